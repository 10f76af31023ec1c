// Runs N consecutive downloads through dl_download against a scripted
// loopback server; run under valgrind (or LeakSanitizer) to show that no
// transfer leaks memory or descriptors. "download_loop N https" downloads
// from an openssl s_server over TLS 1.3 instead, verified with the test
// PKI, a full handshake each time: no OpenSSL object may be left.
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "quarry.h"
#include "tests/peer/scripted_peer.h"
#include "tests/support/log_capture.h"
#include "tests/support/real_servers.h"

namespace {

using quarry_test::open_descriptors;

// Downloads |url| into |path| |rounds| times. False (reported) when one
// failed; |*leaked| gets the descriptors left open by the loop.
bool download_rounds(const std::string &url, const std::string &path, int rounds, int *leaked) {
  int before = open_descriptors();
  for (int i = 0; i < rounds; ++i) {
    dl_request req = {};
    req.url = const_cast<char *>(url.c_str());
    char redirect[512] = "";
    dl_error err = {};
    if (dl_download(&req, path.c_str(), redirect, &err) != 0) {
      fprintf(stderr, "download %d of %s failed: %d %s\n", i, url.c_str(), err.code, err.msg);
      return false;
    }
  }
  *leaked = open_descriptors() - before;
  return true;
}

int https_loop(int rounds) {
  quarry_test::RealServer &server = quarry_test::RealServer::shared("tls");
  if (!server.ok()) {
    fprintf(stderr, "no TLS server: %s\n", server.error().c_str());
    return 1;
  }
  dl_config_init();
  dl_log_init(0);
  uint32_t timeout = 30;
  uint32_t negotiated = 3;
  uint32_t on = 1;
  dl_set_option(DL_OPT_TIMEOUT, &timeout);
  dl_set_option(DL_OPT_SSL_METHOD, &negotiated);
  dl_set_option(DL_OPT_SSL_VERIFY, &on);
  dl_set_option(DL_OPT_SSL_CHECK_HOST, &on);
  dl_set_option(DL_OPT_SSL_CA_PATH, quarry_test::RealServer::pki("cadir").c_str());
  quarry_test::TempDir dir;
  std::string url = server.url("tls1_3", "/");
  std::string path = dir.file("page.html");
  int leaked = 0;
  bool done = download_rounds(url, path, rounds, &leaked);
  dl_exit();
  if (!done) return 1;
  bool tls13 = quarry_test::read_file(path).find("Protocol  : TLSv1.3\n") != std::string::npos;
  if (!tls13 || leaked != 0) {
    fprintf(stderr, "wrong page or %d descriptors leaked\n", leaked);
    return 1;
  }
  printf("%d https downloads, no descriptor left open\n", rounds);
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  int rounds = argc > 1 ? atoi(argv[1]) : 1000;
  if (argc > 2 && std::string(argv[2]) == "https") return https_loop(rounds);
  const std::string body(3000, 'q');
  quarry_test::TcpPeer peer;
  for (int i = 0; i < rounds; ++i) {
    peer.add({quarry_test::read_until("\r\n\r\n"),
              quarry_test::send_bytes("HTTP/1.1 200 OK\r\nContent-Length: 3000\r\n\r\n" + body),
              quarry_test::close_conn()});
  }
  peer.start();
  dl_config_init();
  dl_log_init(0);
  uint32_t timeout = 30;
  dl_set_option(DL_OPT_TIMEOUT, &timeout);
  quarry_test::TempDir dir;
  std::string url = "http://127.0.0.1:" + std::to_string(peer.port()) + "/f.bin";
  std::string path = dir.file("f.bin");
  int leaked = 0;
  if (!download_rounds(url, path, rounds, &leaked)) return 1;
  dl_exit();
  peer.wait();
  if (quarry_test::read_file(path) != body || leaked != 0) {
    fprintf(stderr, "wrong body or %d descriptors leaked\n", leaked);
    return 1;
  }
  printf("%d downloads, no descriptor left open\n", rounds);
  return 0;
}
