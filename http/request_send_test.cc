#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <thread>

#include "http/http_test_support.h"
#include "tests/support/log_capture.h"

namespace {

using quarry_http_test::PairedHandle;
using quarry_http_test::Request;
using quarry_http_test::url_of;
using quarry_test::TempDir;

const char kStdHeaders[] =
    "Host: phone.example\r\nUser-Agent: Vantrel\r\nAccept: */*\r\nConnection: Keep-Alive\r\n";

class SendRequest : public quarry_http_test::HttpTest {
 protected:
  // Builds a request of |type| for phone.example and sends it; returns
  // what the server heard.
  std::string send(int type, const char *path, const char *extra, const char *body,
                   const char *file) {
    Request req;
    req->body->path = file;
    dl_url url = url_of(DL_URL_SCHEME_HTTP, static_cast<uint32_t>(type), "phone.example", 80, path);
    EXPECT_EQ(http_make_request(0, req.get(), extra, body, &url), 0);
    EXPECT_EQ(http_send_request(handle_.get(), req.get()), 0);
    return handle_.heard_all();
  }

  // Bytes of the header block as the sender counts them.
  static size_t header_size(const dl_http_request *req) {
    size_t size = strlen(req->request_line) + 2 + (req->extra ? strlen(req->extra) : 0);
    for (int i = 0; i < req->count; ++i) {
      size += strlen(req->headers[i].name) + strlen(req->headers[i].value) + 4;
    }
    return size;
  }

  PairedHandle handle_;
  TempDir dir_;
};

TEST_F(SendRequest, GetIsTheRequestLineTheHeadersAndABlankLine) {
  std::string expected = std::string("GET /cfg/phone.cfg HTTP/1.1\r\n") + kStdHeaders + "\r\n";
  EXPECT_EQ(send(DL_HTTP_GET, "/cfg/phone.cfg", nullptr, nullptr, nullptr), expected);
}

TEST_F(SendRequest, DeleteCarriesNoBody) {
  std::string expected = std::string("DELETE /x HTTP/1.1\r\n") + kStdHeaders + "\r\n";
  EXPECT_EQ(send(DL_HTTP_DELETE, "/x", nullptr, nullptr, nullptr), expected);
}

TEST_F(SendRequest, ExtraHeaderTextFollowsTheListVerbatim) {
  const char extra[] = "X-Mac: 00:15:65:aa:bb:cc\r\nAccept-Language: en\r\n";
  std::string expected = std::string("GET / HTTP/1.1\r\n") + kStdHeaders + extra + "\r\n";
  EXPECT_EQ(send(DL_HTTP_GET, "/", extra, nullptr, nullptr), expected);
}

TEST_F(SendRequest, PostTextFollowsTheBlankLine) {
  std::string expected = std::string("POST /api HTTP/1.1\r\n") + kStdHeaders +
                         "Content-Length: 9\r\nX-A: b\r\n\r\nkey=value";
  EXPECT_EQ(send(DL_HTTP_POST, "/api", "X-A: b\r\n", "key=value", nullptr), expected);
}

TEST_F(SendRequest, PutSendsTheFileAfterTheHeaders) {
  std::string content = "binary\0data\xff", full(content.c_str(), 12);
  std::string path = dir_.write("fw.bin", full);
  std::string expected = std::string("PUT /fw.bin HTTP/1.1\r\n") + kStdHeaders +
                         "Content-Length: 12\r\nX-Up: 1\r\n\r\n" + full;
  EXPECT_EQ(send(DL_HTTP_PUT, "/fw.bin", "X-Up: 1\r\n", nullptr, path.c_str()), expected);
}

TEST_F(SendRequest, RawPostSendsTheFileWithItsSizeAsLength) {
  std::string path = dir_.write("log.txt", "line one\nline two\n");
  const char extra[] = "Content-Type: text/plain\r\n";
  std::string expected = std::string("POST /logs HTTP/1.1\r\n") + kStdHeaders +
                         "Content-Length: 18\r\n" + extra + "\r\nline one\nline two\n";
  EXPECT_EQ(send(DL_HTTP_POST, "/logs", extra, nullptr, path.c_str()), expected);
}

TEST_F(SendRequest, MultipartPostFramesTheFileExactly) {
  ASSERT_EQ(mkdir(dir_.file("a").c_str(), 0700), 0);
  std::string path = dir_.write("a/b.cfg", "account.1.enable = 1\n");
  const char extra[] = "Content-Type: multipart/form-data; boundary=XyZ\r\n";
  std::string part =
      "--XyZ\r\n"
      "Content-Disposition: form-data; name=\"upload\"; filename=\"b.cfg\"\r\n"
      "Content-Type: application/octet-stream\r\n"
      "Content-Transfer-Encoding: binary\r\n"
      "\r\n"
      "account.1.enable = 1\n"
      "\r\n--XyZ--\r\n";
  std::string expected = std::string("POST /upload HTTP/1.1\r\n") + kStdHeaders +
                         "Content-Length: " + std::to_string(part.size()) + "\r\n" + extra +
                         "\r\n" + part;
  EXPECT_EQ(send(DL_HTTP_POST, "/upload", extra, nullptr, path.c_str()), expected);
  EXPECT_FALSE(capture_->has(3, 5, "http send separately\n"));
}

// A POST whose header block and text body add up to |total| bytes.
class SendSplit : public SendRequest {
 protected:
  std::string send_total(size_t total) {
    std::string body(total, 'b');
    Request probe;
    dl_url url = url_of(DL_URL_SCHEME_HTTP, DL_HTTP_POST, "phone.example", 80, "/big");
    EXPECT_EQ(http_make_request(0, probe.get(), nullptr, body.c_str(), &url), 0);
    // Shrinking the body by the header size keeps the length's digit count.
    body.resize(total - header_size(probe.get()));
    Request req;
    EXPECT_EQ(http_make_request(0, req.get(), nullptr, body.c_str(), &url), 0);
    EXPECT_EQ(header_size(req.get()) + body.size(), total);
    EXPECT_EQ(http_send_request(handle_.get(), req.get()), 0);
    std::string heard = handle_.heard_all();
    EXPECT_EQ(heard.substr(heard.size() - body.size()), body);
    return heard;
  }
};

TEST_F(SendSplit, Exactly16384BytesGoInOneBlock) {
  EXPECT_EQ(send_total(16384).size(), 16384u);
  EXPECT_FALSE(capture_->has(3, 5, "http send separately\n"));
}

TEST_F(SendSplit, From16385BytesHeaderAndBodyGoSeparately) {
  EXPECT_EQ(send_total(16385).size(), 16385u);
  EXPECT_TRUE(capture_->has(3, 5, "http send separately\n"));
}

TEST_F(SendRequest, LargeMultipartFileIsSentSeparatelyAndWhole) {
  std::string content;
  for (int i = 0; content.size() < 40000; ++i) content += std::to_string(i) + ",";
  std::string path = dir_.write("big.csv", content);
  const char extra[] = "Content-Type: multipart/form-data; boundary=----b0\r\n";
  std::string part =
      "------b0\r\n"
      "Content-Disposition: form-data; name=\"upload\"; filename=\"big.csv\"\r\n"
      "Content-Type: application/octet-stream\r\n"
      "Content-Transfer-Encoding: binary\r\n"
      "\r\n" +
      content + "\r\n------b0--\r\n";
  std::string expected = std::string("POST /u HTTP/1.1\r\n") + kStdHeaders +
                         "Content-Length: " + std::to_string(part.size()) + "\r\n" + extra +
                         "\r\n" + part;
  EXPECT_EQ(send(DL_HTTP_POST, "/u", extra, nullptr, path.c_str()), expected);
  EXPECT_TRUE(capture_->has(3, 5, "http send separately\n"));
}

TEST_F(SendRequest, ResendingStartsTheFileFromItsBeginning) {
  std::string path = dir_.write("fw.bin", "0123456789");
  Request req;
  req->body->path = path.c_str();
  dl_url url = url_of(DL_URL_SCHEME_HTTP, DL_HTTP_PUT, "phone.example", 80, "/fw");
  ASSERT_EQ(http_make_request(0, req.get(), "X: 1\r\n", nullptr, &url), 0);
  ASSERT_EQ(http_send_request(handle_.get(), req.get()), 0);
  ASSERT_EQ(http_send_request(handle_.get(), req.get()), 0);
  std::string one = std::string("PUT /fw HTTP/1.1\r\n") + kStdHeaders +
                    "Content-Length: 10\r\nX: 1\r\n\r\n0123456789";
  EXPECT_EQ(handle_.heard_all(), one + one);
}

TEST_F(SendRequest, FileThatGrewAfterPreparingIsSentAtItsMeasuredSize) {
  std::string path = dir_.write("grow.txt", "abc");
  Request req;
  req->body->path = path.c_str();
  dl_url url = url_of(DL_URL_SCHEME_HTTP, DL_HTTP_PUT, "phone.example", 80, "/g");
  ASSERT_EQ(http_make_request(0, req.get(), "X: 1\r\n", nullptr, &url), 0);
  dir_.write("grow.txt", "abcdefgh");
  ASSERT_EQ(http_send_request(handle_.get(), req.get()), 0);
  std::string expected =
      std::string("PUT /g HTTP/1.1\r\n") + kStdHeaders + "Content-Length: 3\r\nX: 1\r\n\r\nabc";
  EXPECT_EQ(handle_.heard_all(), expected);
}

TEST_F(SendRequest, TracingLogsTheHeaderBlockAndTheBody) {
  set_number(DL_OPT_DATA_TRACE, 1);
  std::string expected =
      std::string("POST /t HTTP/1.1\r\n") + kStdHeaders + "Content-Length: 4\r\n\r\nbody";
  send(DL_HTTP_POST, "/t", nullptr, "body", nullptr);
  EXPECT_TRUE(capture_->has(3, 3, "HTTP request header:\n"));
  EXPECT_TRUE(capture_->has(3, 6, expected.substr(0, expected.size() - 4) + "\n"));
  EXPECT_TRUE(capture_->has(3, 3, "HTTP request body:\n"));
  EXPECT_TRUE(capture_->has(3, 6, "body\n"));
}

TEST_F(SendRequest, WithoutTracingNothingOfTheRequestIsLogged) {
  send(DL_HTTP_POST, "/t", nullptr, "body", nullptr);
  EXPECT_FALSE(capture_->mentions("HTTP request header:"));
  EXPECT_FALSE(capture_->mentions("HTTP request body:"));
}

TEST_F(SendRequest, RefusesMissingPieces) {
  Request req;
  EXPECT_EQ(http_send_request(nullptr, req.get()), DL_ERR_PARAM);
  EXPECT_EQ(http_send_request(handle_.get(), nullptr), DL_ERR_PARAM);
  EXPECT_EQ(http_send_request(handle_.get(), req.get()), DL_ERR_PARAM);
  dl_http_conn dead = {};
  http_set_request_line(req.get(), 0, "/");
  EXPECT_EQ(http_send_request(&dead, req.get()), DL_ERR_PARAM);
  EXPECT_EQ(capture_->count(3, 3, "http send with invalid parameter\n"), 4);
}

TEST_F(SendRequest, SendToAGonePeerFailsWithSendError) {
  Request req;
  dl_url url = url_of(DL_URL_SCHEME_HTTP, 0, "phone.example", 80, "/");
  ASSERT_EQ(http_make_request(0, req.get(), nullptr, nullptr, &url), 0);
  handle_.close_peer();
  EXPECT_EQ(http_send_request(handle_.get(), req.get()), DL_ERR_SEND);
  EXPECT_TRUE(capture_->has(3, 3, "write error, errno 32\n"));
}

class HttpWrite : public SendRequest {};

TEST_F(HttpWrite, WritesEveryByte) {
  std::string data(200000, 'w');
  data[199999] = 'z';
  std::string heard;
  std::thread reader([&] { heard = handle_.heard(data.size()); });
  EXPECT_EQ(http_write(handle_.get(), data.data(), static_cast<int>(data.size())), 0);
  reader.join();
  EXPECT_EQ(heard, data);
}

TEST_F(HttpWrite, NothingToWriteIsSuccess) {
  EXPECT_EQ(http_write(handle_.get(), "x", 0), 0);
  EXPECT_EQ(http_write(handle_.get(), nullptr, -5), 0);
  EXPECT_EQ(http_write(nullptr, nullptr, 0), 0);
  EXPECT_TRUE(handle_.silent());
}

TEST_F(HttpWrite, RefusesAMissingHandleOrData) {
  dl_http_conn dead = {};
  EXPECT_EQ(http_write(nullptr, "x", 1), DL_ERR_PARAM);
  EXPECT_EQ(http_write(handle_.get(), nullptr, 1), DL_ERR_PARAM);
  EXPECT_EQ(http_write(&dead, "x", 1), DL_ERR_PARAM);
  EXPECT_EQ(capture_->count(3, 3, "http write with invalid parameter\n"), 3);
}

TEST_F(HttpWrite, TlsWithoutSessionFails) {
  handle_->flags |= DL_HTTP_TLS;
  errno = 0;
  EXPECT_EQ(http_write(handle_.get(), "x", 1), DL_ERR_SEND);
  EXPECT_TRUE(capture_->mentions("write error, errno "));
  EXPECT_TRUE(handle_.silent());
}

class Trace : public SendRequest {};

TEST_F(Trace, ModeOneLogsPiecesOf191BytesAtInfo) {
  set_number(DL_OPT_DATA_TRACE, 1);
  std::string data = std::string(191, 'a') + std::string(10, 'b');
  http_trace(data.data(), static_cast<int>(data.size()));
  EXPECT_TRUE(capture_->has(3, 6, std::string(191, 'a') + "\n"));
  EXPECT_TRUE(capture_->has(3, 6, std::string(10, 'b') + "\n"));
}

TEST_F(Trace, ModeTwoLogsAtError) {
  set_number(DL_OPT_DATA_TRACE, 2);
  http_trace("abc", 3);
  EXPECT_TRUE(capture_->has(3, 3, "abc\n"));
}

TEST_F(Trace, OtherModesLogNothing) {
  for (uint32_t trace : {0u, 3u}) {
    ASSERT_EQ(dl_set_option(DL_OPT_DATA_TRACE, &trace), 0);
    http_trace("abc", 3);
  }
  http_trace(nullptr, 3);
  EXPECT_FALSE(capture_->mentions("abc"));
}

}  // namespace
