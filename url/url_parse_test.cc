#include <gtest/gtest.h>

#include <string>

#include "quarry.h"
#include "quarry_internal.h"
#include "tests/support/log_capture.h"
#include "url/url_test_env.h"

namespace {

using quarry_test::dcmn_lines;
using quarry_test::LogCapture;
using quarry_test::UrlTest;

struct ParseOk {
  const char *url;
  bool ipv6;
  uint32_t scheme;
  const char *host;
  int port;
  const char *path;
  uint32_t is_ipv6;
};

struct ParseFail {
  const char *url;
  bool ipv6;
  int code;
  const char *log;
};

class UrlParse : public UrlTest {};

TEST_F(UrlParse, AcceptedUrls) {
  const ParseOk cases[] = {
      {"http://host", false, DL_URL_SCHEME_HTTP, "host", 80, "/", 0},
      {"http://host/a b", false, DL_URL_SCHEME_HTTP, "host", 80, "/a%20b", 0},
      {"http://host/a  b ", false, DL_URL_SCHEME_HTTP, "host", 80, "/a%20%20b", 0},
      {"http://my host/x", false, DL_URL_SCHEME_HTTP, "my%20host", 80, "/x", 0},
      {"https://host:/p", false, DL_URL_SCHEME_HTTPS, "host", 443, "/p", 0},
      {"https://host:8443/x?y=1#z", false, DL_URL_SCHEME_HTTPS, "host", 8443, "/x?y=1#z", 0},
      {"http://host:0/", false, DL_URL_SCHEME_HTTP, "host", 0, "/", 0},
      {"http://host:65535", false, DL_URL_SCHEME_HTTP, "host", 65535, "/", 0},
      {"http://host:/", false, DL_URL_SCHEME_HTTP, "host", 80, "/", 0},
      {"  http://host/a\tb\r\n", false, DL_URL_SCHEME_HTTP, "host", 80, "/ab", 0},
      {"http://[::1]:8080/x", true, DL_URL_SCHEME_HTTP, "::1", 8080, "/x", 1},
      {"https://[fe80::1]", true, DL_URL_SCHEME_HTTPS, "fe80::1", 443, "/", 1},
      {"HTTPS://Host/x", false, DL_URL_SCHEME_HTTPS, "Host", 443, "/x", 0},
      // The upper-case HTTP prefix is not skipped: the scheme's letters
      // become the host and the path keeps the two slashes.
      {"HTTP://host/x", false, DL_URL_SCHEME_HTTP, "HTTP", 80, "//host/x", 0},
      {"Http://host/x", false, DL_URL_SCHEME_HTTP, "Http", 80, "//host/x", 0},
      // ...unless a lower-case "http://" stands anywhere in the text.
      {"HTTP://host/?r=http://x", false, DL_URL_SCHEME_HTTP, "host", 80, "/?r=http://x", 0},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.url);
    set_ipv6(c.ipv6);
    LogCapture capture;
    int err = -99;
    dl_url *u = dl_url_parse(c.url, nullptr, nullptr, &err);
    ASSERT_NE(u, nullptr);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(u->scheme, c.scheme);
    EXPECT_EQ(u->request_type, 0u);
    EXPECT_EQ(u->is_ipv6, c.is_ipv6);
    EXPECT_STREQ(u->host, c.host);
    EXPECT_EQ(u->port, c.port);
    EXPECT_STREQ(u->path, c.path);
    EXPECT_EQ(u->user, nullptr);
    EXPECT_EQ(u->password, nullptr);
    EXPECT_EQ(capture.text(), "");
    dl_url_free(u);
  }
}

TEST_F(UrlParse, RefusedUrls) {
  const ParseFail cases[] = {
      {nullptr, false, DL_ERR_URL, "Invalid URL\n"},
      {"", false, DL_ERR_URL, "Invalid URL\n"},
      {"   ", false, DL_ERR_URL, "Invalid URL\n"},
      {"ftp://host/", false, DL_ERR_URL, "Invalid URL\n"},
      {"host/x", false, DL_ERR_URL, "Invalid URL\n"},
      {"https://host?x", false, DL_ERR_URL, "Bad file name\n"},
      {"http://host#f", false, DL_ERR_URL, "Bad file name\n"},
      {"http://[::1]x/", true, DL_ERR_URL, "Bad file name\n"},
      {"http://[::1", true, DL_ERR_URL, "Invalid Host\n"},
      {"http://[::1]/", false, DL_ERR_IPV6_DISABLED, "can't use ipv6 when ipv6 is diable\n"},
      {"http://[]/", true, DL_ERR_URL, "Invalid Host\n"},
      {"http:///x", false, DL_ERR_URL, "Invalid Host\n"},
      {"http://", false, DL_ERR_URL, "Invalid Host\n"},
      {"http://:80/", false, DL_ERR_URL, "Invalid Host\n"},
      {"http://?x", false, DL_ERR_URL, "Invalid Host\n"},
      {"http://host:65536/", false, DL_ERR_URL, "BAD_PORT_NUMBER\n"},
      {"http://host:99999999999999999999/", false, DL_ERR_URL, "BAD_PORT_NUMBER\n"},
      {"http://host:8a/", false, DL_ERR_URL, "BAD_PORT_NUMBER\n"},
      {"http://host:80?x", false, DL_ERR_URL, "BAD_PORT_NUMBER\n"},
      {"http://host:8 0/", false, DL_ERR_URL, "BAD_PORT_NUMBER\n"},
      // Login information is not this parser's: "u" is the host, the rest
      // the port.
      {"http://u:p@host/", false, DL_ERR_URL, "BAD_PORT_NUMBER\n"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.url == nullptr ? "<null>" : c.url);
    set_ipv6(c.ipv6);
    LogCapture capture;
    int err = 0;
    EXPECT_EQ(dl_url_parse(c.url, "u", "p", &err), nullptr);
    EXPECT_EQ(err, c.code);
    EXPECT_EQ(capture.text(), dcmn_lines({{3, c.log}}));
  }
}

TEST_F(UrlParse, CredentialsAreCopied) {
  char user[] = "alice";
  char password[] = "s3cret";
  dl_url *u = dl_url_parse("http://h/", user, password, nullptr);
  ASSERT_NE(u, nullptr);
  EXPECT_STREQ(u->user, "alice");
  EXPECT_STREQ(u->password, "s3cret");
  EXPECT_NE(u->user, user);
  EXPECT_NE(u->password, password);
  dl_url_free(u);
}

TEST_F(UrlParse, EitherCredentialMayBeNull) {
  dl_url *u = dl_url_parse("http://h/", "alice", nullptr, nullptr);
  ASSERT_NE(u, nullptr);
  EXPECT_STREQ(u->user, "alice");
  EXPECT_EQ(u->password, nullptr);
  dl_url_free(u);
  u = dl_url_parse("http://h/", nullptr, "", nullptr);
  ASSERT_NE(u, nullptr);
  EXPECT_EQ(u->user, nullptr);
  EXPECT_STREQ(u->password, "");
  dl_url_free(u);
}

TEST_F(UrlParse, NullErrorSlotIsAllowed) {
  EXPECT_EQ(dl_url_parse("ftp://h/", nullptr, nullptr, nullptr), nullptr);
  dl_url *u = dl_url_parse("https://h/", nullptr, nullptr, nullptr);
  ASSERT_NE(u, nullptr);
  dl_url_free(u);
}

TEST_F(UrlParse, FreeTakesNullAndEmptyRecords) {
  dl_url_free(nullptr);
  dl_url *empty = static_cast<dl_url *>(calloc(1, sizeof(dl_url)));
  ASSERT_NE(empty, nullptr);
  dl_url_free(empty);
}

}  // namespace
