// Test helpers of the open flow: canned responses, loopback URLs, and a
// fixture holding the arguments every open and post function takes.
#ifndef QUARRY_HTTP_OPEN_TEST_SUPPORT_H
#define QUARRY_HTTP_OPEN_TEST_SUPPORT_H

#include <string.h>

#include <string>

#include "http/http_test_support.h"
#include "tests/peer/scripted_peer.h"

namespace quarry_http_test {

constexpr const char *kHeaderEnd = "\r\n\r\n";

// A response with a Content-Length for |body|; |headers| lines end in CRLF.
inline std::string response(const std::string &status, const std::string &headers,
                            const std::string &body) {
  return "HTTP/1.1 " + status + "\r\n" + headers +
         "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

inline std::string local_url(uint16_t port, const std::string &path) {
  return "http://127.0.0.1:" + std::to_string(port) + path;
}

inline size_t count_of(const std::string &text, const std::string &what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

// Settings with a one-second time-out and zeroed arguments; a handle left
// in conn_ is closed at the end.
class ExchangeTest : public HttpTest {
 protected:
  void SetUp() override {
    HttpTest::SetUp();
    set_number(DL_OPT_TIMEOUT, 1);
    memset(&param_, 0, sizeof(param_));
    memset(&err_, 0, sizeof(err_));
    memset(redirect_, 0, sizeof(redirect_));
  }
  void TearDown() override {
    dl_http_close(conn_);
    HttpTest::TearDown();
  }
  // Lets |peer| answer one request with |reply| and starts it.
  static void serve(quarry_test::TcpPeer *peer, const std::string &reply) {
    peer->add({quarry_test::read_until(kHeaderEnd), quarry_test::send_bytes(reply),
               quarry_test::read_to_end()});
    peer->start();
  }
  void use_url(const std::string &url) {
    url_ = url;
    param_.url = &url_[0];
  }

  std::string url_;
  dl_http_param param_;
  dl_error err_;
  char redirect_[512];
  dl_http_conn *conn_ = nullptr;
};

}  // namespace quarry_http_test

#endif  // QUARRY_HTTP_OPEN_TEST_SUPPORT_H
