#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "quarry.h"
#include "quarry_internal.h"
#include "tests/support/log_capture.h"
#include "url/url_test_env.h"

namespace {

using quarry_test::dcmn_lines;
using quarry_test::free_parts;
using quarry_test::LogCapture;
using quarry_test::LogLine;
using quarry_test::UrlTest;

const LogLine kEnter{6, "Enter Func dl_url_parse....\n"};
const LogLine kSkip{6, "Skip Space Success!\n"};
const LogLine kSplitFail{3, "Login_Host_Port Info Parsing Fail!\n"};
const LogLine kHostInvalid{3, "Host Info Invalid!\n"};
const LogLine kLoginInvalid{3, "Login Info Invalid!\n"};
const LogLine kNoProtocol{3, "Protocol Not Support!\n"};
const LogLine kUrlInvalid{3, "URL Invalid!\n"};
const LogLine kInvalidUrl{3, "Invalid URL\n"};

struct Parts {
  uint32_t scheme;
  const char *host;
  int port;
  const char *path;
  const char *user;      // null: none expected
  const char *password;  // null: none expected
};

struct SplitCase {
  const char *name;
  const char *url;
  bool ipv6;
  Parts want;
  std::vector<LogLine> logs;
};

std::string text_or_null(const char *s) { return s == nullptr ? "<null>" : s; }

class UrlSplit : public UrlTest {
 protected:
  void check_ok(const SplitCase &c) {
    SCOPED_TRACE(std::string(c.name) + ": " + c.url);
    set_ipv6(c.ipv6);
    LogCapture capture;
    dl_url_parts parts;
    ASSERT_EQ(url_split(c.url, &parts), 0);
    EXPECT_EQ(parts.scheme, c.want.scheme);
    EXPECT_EQ(text_or_null(parts.host), text_or_null(c.want.host));
    EXPECT_EQ(parts.port, c.want.port);
    EXPECT_EQ(text_or_null(parts.path), text_or_null(c.want.path));
    EXPECT_EQ(text_or_null(parts.user), text_or_null(c.want.user));
    EXPECT_EQ(text_or_null(parts.password), text_or_null(c.want.password));
    EXPECT_EQ(capture.text(), dcmn_lines({kEnter, kSkip}));
    free_parts(&parts);
  }

  void check_fail(const SplitCase &c) {
    SCOPED_TRACE(std::string(c.name) + ": " + text_or_null(c.url));
    set_ipv6(c.ipv6);
    LogCapture capture;
    dl_url_parts parts;
    EXPECT_EQ(url_split(c.url, &parts), -1);
    EXPECT_EQ(capture.text(), dcmn_lines(c.logs));
    free_parts(&parts);
  }
};

TEST_F(UrlSplit, AcceptedUrls) {
  const SplitCase cases[] = {
      {"no scheme is tftp", "192.168.1.5/cfg/a.bin", false,
       {DL_SCHEME_TFTP, "192.168.1.5", 69, "/cfg/a.bin", nullptr, nullptr}, {}},
      {"login and bracketed host", "ftp://bob:secret@[fe80::1]:2121/up/", true,
       {DL_SCHEME_FTP, "fe80::1", 2121, "/up/", "bob", "secret"}, {}},
      {"last @ splits", "http://a@b:c@host/", false,
       {DL_SCHEME_HTTP, "host", 80, "/", "a@b", "c"}, {}},
      {"first colon splits the login", "http://u:p:q@host/", false,
       {DL_SCHEME_HTTP, "host", 80, "/", "u", "p:q"}, {}},
      {"empty password", "http://u:@host/", false, {DL_SCHEME_HTTP, "host", 80, "/", "u", ""}, {}},
      {"empty user", "http://:p@host/", false, {DL_SCHEME_HTTP, "host", 80, "/", "", "p"}, {}},
      {"highest port", "https://host:65535/", false,
       {DL_SCHEME_HTTPS, "host", 65535, "/", nullptr, nullptr}, {}},
      {"port zero", "http://host:0/", false, {DL_SCHEME_HTTP, "host", 0, "/", nullptr, nullptr}, {}},
      {"leading zeros", "http://host:00080/", false,
       {DL_SCHEME_HTTP, "host", 80, "/", nullptr, nullptr}, {}},
      {"blank before port", "http://host: 8080/", false,
       {DL_SCHEME_HTTP, "host", 8080, "/", nullptr, nullptr}, {}},
      {"no path", "http://host", false, {DL_SCHEME_HTTP, "host", 80, "/", nullptr, nullptr}, {}},
      {"port without path", "http://host:8080", false,
       {DL_SCHEME_HTTP, "host", 8080, "/", nullptr, nullptr}, {}},
      {"query and fragment kept", "http://host/p?q=1#f", false,
       {DL_SCHEME_HTTP, "host", 80, "/p?q=1#f", nullptr, nullptr}, {}},
      {"spaces and tab cleaned", "   http://host/a\tb", false,
       {DL_SCHEME_HTTP, "host", 80, "/ab", nullptr, nullptr}, {}},
      {"inner space kept", "http://host/a b", false,
       {DL_SCHEME_HTTP, "host", 80, "/a b", nullptr, nullptr}, {}},
      {"blanks after scheme skipped", "http://  host/", false,
       {DL_SCHEME_HTTP, "host", 80, "/", nullptr, nullptr}, {}},
      {"scheme without case", "HTTPS://Host/x", false,
       {DL_SCHEME_HTTPS, "Host", 443, "/x", nullptr, nullptr}, {}},
      {"tftp default port", "tftp://h/f", false, {DL_SCHEME_TFTP, "h", 69, "/f", nullptr, nullptr}, {}},
      {"ftp default port", "FTP://h/", false, {DL_SCHEME_FTP, "h", 21, "/", nullptr, nullptr}, {}},
      {"https default port", "https://h/", false,
       {DL_SCHEME_HTTPS, "h", 443, "/", nullptr, nullptr}, {}},
      {"bracketed host, default port", "http://[::1]/", true,
       {DL_SCHEME_HTTP, "::1", 80, "/", nullptr, nullptr}, {}},
      {"text before [ ignored", "http://x[::1]:81/", true,
       {DL_SCHEME_HTTP, "::1", 81, "/", nullptr, nullptr}, {}},
      {"text between ] and : ignored", "http://[::1]junk:81/", true,
       {DL_SCHEME_HTTP, "::1", 81, "/", nullptr, nullptr}, {}},
      {"no colon after ]", "http://[::1]junk/", true,
       {DL_SCHEME_HTTP, "::1", 80, "/", nullptr, nullptr}, {}},
      {"query is part of the host", "http://host?x=1/y", false,
       {DL_SCHEME_HTTP, "host?x=1", 80, "/y", nullptr, nullptr}, {}},
      {"@ in the path is no login", "http://host/a@b:c", false,
       {DL_SCHEME_HTTP, "host", 80, "/a@b:c", nullptr, nullptr}, {}},
      {"login and port", "ftp://u:pw@host:2100/d/f.txt", false,
       {DL_SCHEME_FTP, "host", 2100, "/d/f.txt", "u", "pw"}, {}},
      {"scheme-less with port", "10.0.0.1:6969/f", false,
       {DL_SCHEME_TFTP, "10.0.0.1", 6969, "/f", nullptr, nullptr}, {}},
  };
  for (const auto &c : cases) check_ok(c);
}

TEST_F(UrlSplit, RefusedUrls) {
  const SplitCase cases[] = {
      {"null", nullptr, false, {}, {kInvalidUrl}},
      {"empty", "", false, {}, {kInvalidUrl}},
      {"unknown scheme", "gopher://host/", false, {}, {kEnter, kNoProtocol}},
      {"scheme-less with :// later", "host/x?u=http://y", false, {}, {kEnter, kNoProtocol}},
      {"port too large", "https://host:65536/", false, {}, {kEnter, kSkip, kSplitFail}},
      {"port overflowing int", "http://host:99999999999999999999/", false, {},
       {kEnter, kSkip, kSplitFail}},
      {"user without password", "ftp://bob@host/x", false, {}, {kEnter, kSkip, kSplitFail}},
      {"bracketed host without ipv6", "ftp://bob:secret@[fe80::1]:2121/up/", false, {},
       {kEnter, kSkip, kSplitFail}},
      {"nothing after scheme", "http://", false, {}, {kEnter, kUrlInvalid}},
      {"blanks after scheme", "http://   ", false, {}, {kEnter, kUrlInvalid}},
      {"only spaces", "    ", false, {}, {kEnter, kUrlInvalid}},
      {"only a tab", "\t", false, {}, {kEnter, kUrlInvalid}},
      {"empty login", "http://@host/", false, {}, {kEnter, kSkip, kLoginInvalid, kSplitFail}},
      {"empty host after login", "http://u:p@/x", false, {},
       {kEnter, kSkip, kHostInvalid, kSplitFail}},
      {"blank host after login", "http://u:p@ /x", false, {},
       {kEnter, kSkip, kHostInvalid, kSplitFail}},
      {"nothing after port colon", "http://host:/", false, {},
       {kEnter, kSkip, kHostInvalid, kSplitFail}},
      {"blank after port colon", "http://host: /", false, {},
       {kEnter, kSkip, kHostInvalid, kSplitFail}},
      {"letter in port", "http://host:8a/", false, {}, {kEnter, kSkip, kSplitFail}},
      {"sign in port", "http://host:-1/", false, {}, {kEnter, kSkip, kSplitFail}},
      {"blank inside port", "http://host:8 0/", false, {}, {kEnter, kSkip, kSplitFail}},
      {"no closing bracket", "http://[::1/", true, {}, {kEnter, kSkip, kSplitFail}},
      {"empty brackets", "http://[]:80/", true, {}, {kEnter, kSkip, kSplitFail}},
      {"empty host before port", "http://:80/", false, {}, {kEnter, kSkip, kSplitFail}},
      {"path only", "/cfg/a.bin", false, {}, {kEnter, kSkip, kHostInvalid, kSplitFail}},
  };
  for (const auto &c : cases) check_fail(c);
}

TEST_F(UrlSplit, UnknownSchemeIsCodeFour) {
  dl_url_parts parts;
  EXPECT_EQ(url_split("gopher://host/", &parts), -1);
  EXPECT_EQ(parts.scheme, static_cast<uint32_t>(DL_SCHEME_NONE));
  free_parts(&parts);
}

TEST_F(UrlSplit, PartsAreZeroedEvenWhenTheUrlIsRefusedAtOnce) {
  static char not_heap[] = "x";
  dl_url_parts parts = {7, not_heap, 9, not_heap, not_heap, not_heap};
  EXPECT_EQ(url_split(nullptr, &parts), -1);
  EXPECT_EQ(parts.scheme, 0u);
  EXPECT_EQ(parts.host, nullptr);
  EXPECT_EQ(parts.port, 0);
  EXPECT_EQ(parts.path, nullptr);
  EXPECT_EQ(parts.user, nullptr);
  EXPECT_EQ(parts.password, nullptr);
}

TEST_F(UrlSplit, LoginStaysSetAfterALaterFailure) {
  set_ipv6(false);
  dl_url_parts parts;
  EXPECT_EQ(url_split("ftp://bob:secret@[fe80::1]/", &parts), -1);
  EXPECT_EQ(text_or_null(parts.user), "bob");
  EXPECT_EQ(text_or_null(parts.password), "secret");
  EXPECT_EQ(parts.host, nullptr);
  free_parts(&parts);
}

TEST_F(UrlSplit, NullPartsIsRefused) {
  LogCapture capture;
  EXPECT_EQ(url_split("http://host/", nullptr), -1);
  EXPECT_EQ(capture.text(), dcmn_lines({{3, "Invalid Param!\n"}}));
}

}  // namespace
