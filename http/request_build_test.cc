#include <gtest/gtest.h>

#include <string>

#include "http/http_test_support.h"
#include "tests/support/log_capture.h"

namespace {

using quarry_http_test::Request;
using quarry_http_test::url_of;
using quarry_test::TempDir;

class MakeRequest : public quarry_http_test::HttpTest {
 protected:
  // The header list as "Name: value" lines.
  static std::string headers_of(const dl_http_request *req) {
    std::string out;
    for (int i = 0; i < req->count; ++i) {
      out += std::string(req->headers[i].name) + ": " + req->headers[i].value + "\n";
    }
    return out;
  }

  static std::string host_of(const dl_url &url) {
    Request req;
    EXPECT_EQ(http_make_request(url.scheme == DL_URL_SCHEME_HTTPS ? DL_HTTP_TLS : 0, req.get(),
                                nullptr, nullptr, &url),
              0);
    return req->count > 0 ? req->headers[0].value : "";
  }
};

TEST_F(MakeRequest, PlainGetHasHostUserAgentAcceptAndConnectionInThatOrder) {
  Request req;
  dl_url url = url_of(DL_URL_SCHEME_HTTP, DL_HTTP_GET, "example.com", 80, "/dir/file.cfg");
  ASSERT_EQ(http_make_request(0, req.get(), nullptr, nullptr, &url), 0);
  EXPECT_STREQ(req->request_line, "GET /dir/file.cfg HTTP/1.1\r\n");
  EXPECT_EQ(headers_of(req.get()),
            "Host: example.com\nUser-Agent: Vantrel\nAccept: */*\nConnection: Keep-Alive\n");
  EXPECT_TRUE(capture_->has(3, 3, "Host: example.com\n"));
  EXPECT_TRUE(capture_->has(3, 3, "User-Agent: Vantrel\n"));
  EXPECT_EQ(req->body->head, nullptr);
}

TEST_F(MakeRequest, HostLeavesOutTheSchemesDefaultPort) {
  EXPECT_EQ(host_of(url_of(DL_URL_SCHEME_HTTP, 0, "h.example", 80, "/")), "h.example");
  EXPECT_EQ(host_of(url_of(DL_URL_SCHEME_HTTPS, 0, "h.example", 443, "/")), "h.example");
}

TEST_F(MakeRequest, HostCarriesAnyOtherPort) {
  EXPECT_EQ(host_of(url_of(DL_URL_SCHEME_HTTP, 0, "h.example", 8080, "/")), "h.example:8080");
  EXPECT_EQ(host_of(url_of(DL_URL_SCHEME_HTTP, 0, "h.example", 443, "/")), "h.example:443");
  EXPECT_EQ(host_of(url_of(DL_URL_SCHEME_HTTPS, 0, "h.example", 80, "/")), "h.example:80");
}

TEST_F(MakeRequest, HostBracketsAnIpv6LiteralWithAndWithoutPort) {
  EXPECT_EQ(host_of(url_of(DL_URL_SCHEME_HTTP, 0, "fe80::1", 80, "/", true)), "[fe80::1]");
  EXPECT_EQ(host_of(url_of(DL_URL_SCHEME_HTTPS, 0, "::1", 443, "/", true)), "[::1]");
  EXPECT_EQ(host_of(url_of(DL_URL_SCHEME_HTTP, 0, "fe80::1", 8080, "/", true)), "[fe80::1]:8080");
}

TEST_F(MakeRequest, UserAgentComesFromTheSetting) {
  ASSERT_EQ(dl_set_option(DL_OPT_USER_AGENT, "Desk/2.1 (lab)"), 0);
  Request req;
  dl_url url = url_of(DL_URL_SCHEME_HTTP, 0, "h", 80, "/");
  ASSERT_EQ(http_make_request(0, req.get(), nullptr, nullptr, &url), 0);
  EXPECT_STREQ(req->headers[1].value, "Desk/2.1 (lab)");
  EXPECT_TRUE(capture_->has(3, 3, "User-Agent: Desk/2.1 (lab)\n"));
}

TEST_F(MakeRequest, ExtraAcceptLineSuppressesTheDefaultAccept) {
  Request req;
  dl_url url = url_of(DL_URL_SCHEME_HTTP, 0, "h", 80, "/");
  ASSERT_EQ(http_make_request(0, req.get(), "Accept: text/xml\r\n", nullptr, &url), 0);
  EXPECT_EQ(headers_of(req.get()), "Host: h\nUser-Agent: Vantrel\nConnection: Keep-Alive\n");
  EXPECT_STREQ(req->extra, "Accept: text/xml\r\n");
}

TEST_F(MakeRequest, LowerCaseAcceptLineKeepsTheDefaultAccept) {
  Request req;
  dl_url url = url_of(DL_URL_SCHEME_HTTP, 0, "h", 80, "/");
  ASSERT_EQ(http_make_request(0, req.get(), "accept: text/xml\r\n", nullptr, &url), 0);
  EXPECT_EQ(headers_of(req.get()),
            "Host: h\nUser-Agent: Vantrel\nAccept: */*\nConnection: Keep-Alive\n");
}

TEST_F(MakeRequest, HttpsRequestCarriesNoConnectionHeader) {
  Request req;
  dl_url url = url_of(DL_URL_SCHEME_HTTPS, 0, "h", 443, "/");
  ASSERT_EQ(http_make_request(DL_HTTP_TLS, req.get(), nullptr, nullptr, &url), 0);
  EXPECT_EQ(headers_of(req.get()), "Host: h\nUser-Agent: Vantrel\nAccept: */*\n");
}

TEST_F(MakeRequest, BasicModeSendsTheUrlCredentialsAtOnce) {
  Request req;
  req->mode = DL_EX_BASIC_AUTH;
  dl_url url = url_of(DL_URL_SCHEME_HTTP, 0, "h", 80, "/", false, "user", "pass");
  ASSERT_EQ(http_make_request(0, req.get(), nullptr, nullptr, &url), 0);
  EXPECT_EQ(headers_of(req.get()),
            "Host: h\nUser-Agent: Vantrel\nAccept: */*\nConnection: Keep-Alive\n"
            "Authorization: Basic dXNlcjpwYXNz\n");
  EXPECT_TRUE(capture_->has(3, 3, "set basic auth header\n"));
}

TEST_F(MakeRequest, BasicModeTakesAnAbsentPasswordAsEmpty) {
  Request req;
  req->mode = DL_EX_BASIC_AUTH;
  dl_url url = url_of(DL_URL_SCHEME_HTTP, 0, "h", 80, "/", false, "admin", nullptr);
  ASSERT_EQ(http_make_request(0, req.get(), nullptr, nullptr, &url), 0);
  ASSERT_EQ(req->count, 5);
  EXPECT_STREQ(req->headers[4].value, "Basic YWRtaW46");
}

TEST_F(MakeRequest, OtherModesSendNoAuthorization) {
  Request req;
  req->mode = DL_EX_NONE;
  dl_url url = url_of(DL_URL_SCHEME_HTTP, 0, "h", 80, "/", false, "user", "pass");
  ASSERT_EQ(http_make_request(0, req.get(), nullptr, nullptr, &url), 0);
  EXPECT_EQ(req->count, 4);
}

TEST_F(MakeRequest, BodyTextGetsItsContentLengthLast) {
  Request req;
  dl_url url = url_of(DL_URL_SCHEME_HTTP, DL_HTTP_POST, "h", 80, "/form");
  ASSERT_EQ(http_make_request(0, req.get(), "X-A: 1\r\n", "a=1&b=2", &url), 0);
  EXPECT_EQ(headers_of(req.get()),
            "Host: h\nUser-Agent: Vantrel\nAccept: */*\nConnection: Keep-Alive\n"
            "Content-Length: 7\n");
  EXPECT_TRUE(capture_->has(3, 3, "Content-Length: 7\n"));
  EXPECT_STREQ(req->body->text, "a=1&b=2");
}

TEST_F(MakeRequest, BodyTextWithoutExtraHeadersStillGetsContentLength) {
  Request req;
  dl_url url = url_of(DL_URL_SCHEME_HTTP, DL_HTTP_POST, "h", 80, "/");
  ASSERT_EQ(http_make_request(0, req.get(), nullptr, "xyz", &url), 0);
  EXPECT_STREQ(req->headers[req->count - 1].value, "3");
}

TEST_F(MakeRequest, CallersOwnContentLengthIsNotRepeated) {
  Request req;
  dl_url url = url_of(DL_URL_SCHEME_HTTP, DL_HTTP_POST, "h", 80, "/");
  ASSERT_EQ(http_make_request(0, req.get(), "Content-Length: 3\r\n", "xyz", &url), 0);
  EXPECT_EQ(headers_of(req.get()),
            "Host: h\nUser-Agent: Vantrel\nAccept: */*\nConnection: Keep-Alive\n");
}

TEST_F(MakeRequest, PutFileGetsTheFileSizeAsContentLength) {
  TempDir dir;
  std::string path = dir.write("fw.bin", std::string(1234, 'f'));
  Request req;
  req->body->path = path.c_str();
  dl_url url = url_of(DL_URL_SCHEME_HTTP, DL_HTTP_PUT, "h", 80, "/fw.bin");
  ASSERT_EQ(http_make_request(0, req.get(), "X-Up: 1\r\n", nullptr, &url), 0);
  EXPECT_STREQ(req->headers[req->count - 1].name, "Content-Length");
  EXPECT_STREQ(req->headers[req->count - 1].value, "1234");
}

TEST_F(MakeRequest, BodyFailureIsTheResult) {
  Request req;
  req->body->path = "/no/such/file";
  dl_url url = url_of(DL_URL_SCHEME_HTTP, DL_HTTP_POST, "h", 80, "/");
  EXPECT_EQ(http_make_request(0, req.get(), "X: y\r\n", "text", &url), DL_ERR_PARAM);
}

TEST_F(MakeRequest, RequestTypeAboveThreeFailsWithWrongUrl) {
  Request req;
  dl_url url = url_of(DL_URL_SCHEME_HTTP, 4, "h", 80, "/");
  EXPECT_EQ(http_make_request(0, req.get(), nullptr, nullptr, &url), DL_ERR_URL);
  EXPECT_TRUE(capture_->has(3, 3, "make request error\n"));
  EXPECT_EQ(req->count, 0);
}

TEST_F(MakeRequest, MissingPiecesAreRefused) {
  Request req;
  dl_url url = url_of(DL_URL_SCHEME_HTTP, 0, "h", 80, "/");
  dl_url no_host = url_of(DL_URL_SCHEME_HTTP, 0, nullptr, 80, "/");
  dl_url no_path = url_of(DL_URL_SCHEME_HTTP, 0, "h", 80, nullptr);
  dl_url bad_scheme = url_of(2, 0, "h", 80, "/");
  EXPECT_EQ(http_make_request(0, nullptr, nullptr, nullptr, &url), DL_ERR_PARAM);
  EXPECT_EQ(http_make_request(0, req.get(), nullptr, nullptr, nullptr), DL_ERR_PARAM);
  EXPECT_EQ(http_make_request(0, req.get(), nullptr, nullptr, &no_host), DL_ERR_PARAM);
  EXPECT_EQ(http_make_request(0, req.get(), nullptr, nullptr, &no_path), DL_ERR_PARAM);
  EXPECT_EQ(http_make_request(0, req.get(), nullptr, nullptr, &bad_scheme), DL_ERR_PARAM);
  EXPECT_EQ(capture_->count(3, 3, "http make request with invalid parameter\n"), 5);
}

}  // namespace
