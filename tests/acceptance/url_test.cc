// The two URL parsers, the URL rebuild for the HTTP client and the text
// cleaning both parsers start with.
#include <gtest/gtest.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <initializer_list>
#include <memory>
#include <string>

#include "quarry.h"
#include "quarry_internal.h"
#include "tests/support/log_capture.h"

namespace {

using quarry_test::LogCapture;

constexpr unsigned kCommon = 2;
constexpr int kError = 3;
constexpr int kInfo = 6;
constexpr char kLoginHostPortFail[] = "Login_Host_Port Info Parsing Fail!\n";

std::string text_or_null(const char *s) { return s == nullptr ? "(null)" : s; }

// One url_split call whose strings are freed afterwards.
struct Split {
  dl_url_parts parts;
  int rc;
  explicit Split(const char *url) {
    memset(&parts, 0, sizeof(parts));
    rc = url_split(url, &parts);
  }
  ~Split() {
    free(parts.host);
    free(parts.path);
    free(parts.user);
    free(parts.password);
  }
  std::string host() const { return text_or_null(parts.host); }
  std::string path() const { return text_or_null(parts.path); }
  std::string user() const { return text_or_null(parts.user); }
  std::string password() const { return text_or_null(parts.password); }
};

struct UrlFree {
  void operator()(dl_url *u) const { dl_url_free(u); }
};
using UrlPtr = std::unique_ptr<dl_url, UrlFree>;

UrlPtr parse(const char *url, int *err, const char *user = nullptr,
             const char *password = nullptr) {
  *err = 12345;
  return UrlPtr(dl_url_parse(url, user, password, err));
}

// Whether the capture holds these DCMN error lines, one after the other.
::testing::AssertionResult logged_in_order(const LogCapture &capture,
                                           std::initializer_list<const char *> messages) {
  const std::string all = capture.text();
  size_t at = 0;
  for (const char *message : messages) {
    const std::string line = LogCapture::line(kCommon, kError, message);
    size_t found = all.find(line, at);
    if (found == std::string::npos) {
      return ::testing::AssertionFailure() << "missing or out of order: " << message
                                           << " in:\n" << all;
    }
    at = found + line.size();
  }
  return ::testing::AssertionSuccess();
}

class Url : public ::testing::Test {
 protected:
  void SetUp() override {
    dl_config_init();
    capture_.reset(new LogCapture());
  }
  void TearDown() override {
    capture_.reset();
    dl_exit();
  }
  static void enable_ipv6(uint32_t on) { ASSERT_EQ(0, dl_set_option(DL_OPT_IPV6_ENABLE, &on)); }
  const LogCapture &log() const { return *capture_; }
  bool has_error(const char *message) const { return capture_->has(kCommon, kError, message); }

  std::unique_ptr<LogCapture> capture_;
};

// --- url_remove_special_char ----------------------------------------------

std::string clean(const char *src, size_t room = 128) {
  char dst[128] = {};
  url_remove_special_char(dst, room, src);
  return dst;
}

TEST(RemoveSpecialChar, DropsTabsAndLineBreaksAndOuterSpaces) {
  EXPECT_EQ("abcd", clean("  a\tb\nc\rd  "));
}

TEST(RemoveSpecialChar, KeepsInnerSpaces) { EXPECT_EQ("a b", clean(" a b ")); }

TEST(RemoveSpecialChar, SkipsOnlyLeadingSpacesNotTabs) {
  // The tab is dropped in the copy, after the leading spaces were skipped,
  // so the space behind it stays.
  EXPECT_EQ(" a", clean("\t a"));
}

TEST(RemoveSpecialChar, TrailingSpacesGoAfterTabsAreDropped) { EXPECT_EQ("a", clean("a \t ")); }

TEST(RemoveSpecialChar, OnlySpacesGiveEmptyText) { EXPECT_EQ("", clean("    ")); }

TEST(RemoveSpecialChar, NeedsRoomForTheWholeSource) {
  char dst[8];
  memset(dst, 'Z', sizeof(dst));
  url_remove_special_char(dst, 4, "abcd");
  EXPECT_EQ('Z', dst[0]);
  url_remove_special_char(dst, 5, "abcd");
  EXPECT_STREQ("abcd", dst);
}

TEST(RemoveSpecialChar, RoomIsMeasuredOnTheUncleanedSource) {
  char dst[8];
  memset(dst, 'Z', sizeof(dst));
  url_remove_special_char(dst, 4, "  ab");
  EXPECT_EQ('Z', dst[0]);
}

TEST(RemoveSpecialChar, NullArgumentsDoNothing) {
  char dst[4] = {'Z', 'Z', 'Z', 'Z'};
  url_remove_special_char(dst, sizeof(dst), nullptr);
  EXPECT_EQ('Z', dst[0]);
  url_remove_special_char(nullptr, 16, "abc");
}

// --- url_split: schemes ---------------------------------------------------

TEST_F(Url, SplitBareHostAndPathIsTftp) {
  Split s("192.168.1.5/cfg/a.bin");
  ASSERT_EQ(0, s.rc);
  EXPECT_EQ(static_cast<uint32_t>(DL_SCHEME_TFTP), s.parts.scheme);
  EXPECT_EQ("192.168.1.5", s.host());
  EXPECT_EQ(69, s.parts.port);
  EXPECT_EQ("/cfg/a.bin", s.path());
  EXPECT_EQ(nullptr, s.parts.user);
  EXPECT_EQ(nullptr, s.parts.password);
}

TEST_F(Url, SplitKnowsFourSchemesAndTheirPorts) {
  struct Case {
    const char *url;
    uint32_t scheme;
    int port;
  };
  for (const Case &c : {Case{"https://h/", DL_SCHEME_HTTPS, 443}, Case{"http://h/", DL_SCHEME_HTTP, 80},
                        Case{"tftp://h/", DL_SCHEME_TFTP, 69}, Case{"ftp://h/", DL_SCHEME_FTP, 21}}) {
    Split s(c.url);
    ASSERT_EQ(0, s.rc) << c.url;
    EXPECT_EQ(c.scheme, s.parts.scheme) << c.url;
    EXPECT_EQ(c.port, s.parts.port) << c.url;
    EXPECT_EQ("h", s.host()) << c.url;
  }
}

TEST_F(Url, SplitComparesSchemesWithoutCase) {
  Split s("HtTpS://Server.Example/File");
  ASSERT_EQ(0, s.rc);
  EXPECT_EQ(static_cast<uint32_t>(DL_SCHEME_HTTPS), s.parts.scheme);
  EXPECT_EQ("Server.Example", s.host());
  EXPECT_EQ("/File", s.path());
}

TEST_F(Url, SplitRefusesUnknownScheme) {
  Split s("gopher://host/");
  EXPECT_EQ(-1, s.rc);
  EXPECT_EQ(static_cast<uint32_t>(DL_SCHEME_NONE), s.parts.scheme);
  EXPECT_TRUE(has_error("Protocol Not Support!\n")) << log().text();
}

TEST_F(Url, SplitRefusesSchemeThatOnlyStartsLikeAKnownOne) {
  Split s("ftps://host/");
  EXPECT_EQ(-1, s.rc);
  EXPECT_EQ(static_cast<uint32_t>(DL_SCHEME_NONE), s.parts.scheme);
}

TEST_F(Url, SplitSeesASchemeMarkAnywhere) {
  // "://" later in the text makes the start count as a scheme.
  Split s("192.168.1.5/get?from=http://other/");
  EXPECT_EQ(-1, s.rc);
  EXPECT_EQ(static_cast<uint32_t>(DL_SCHEME_NONE), s.parts.scheme);
  EXPECT_TRUE(has_error("Protocol Not Support!\n"));
}

TEST_F(Url, SplitZeroesThePartsFirst) {
  dl_url_parts parts;
  memset(&parts, 0, sizeof(parts));
  parts.scheme = 99;
  parts.port = 7;
  EXPECT_EQ(-1, url_split("gopher://host/", &parts));
  EXPECT_EQ(static_cast<uint32_t>(DL_SCHEME_NONE), parts.scheme);
  EXPECT_EQ(0, parts.port);
  EXPECT_EQ(nullptr, parts.host);
  free(parts.host);
  free(parts.path);
  free(parts.user);
  free(parts.password);
}

TEST_F(Url, SplitLogsItsEntry) {
  Split s("http://host/x");
  ASSERT_EQ(0, s.rc);
  EXPECT_TRUE(log().has(kCommon, kInfo, "Enter Func dl_url_parse....\n")) << log().text();
  EXPECT_TRUE(log().has(kCommon, kInfo, "Skip Space Success!\n")) << log().text();
}

// --- url_split: bad input -------------------------------------------------

TEST_F(Url, SplitRefusesNullAndEmpty) {
  dl_url_parts parts;
  memset(&parts, 0, sizeof(parts));
  EXPECT_EQ(-1, url_split(nullptr, &parts));
  EXPECT_EQ(-1, url_split("", &parts));
  EXPECT_EQ(2, log().count(kCommon, kError, "Invalid URL\n")) << log().text();
}

TEST_F(Url, SplitRefusesNullParts) { EXPECT_EQ(-1, url_split("http://host/", nullptr)); }

TEST_F(Url, SplitRefusesNothingAfterTheScheme) {
  Split s("http://");
  EXPECT_EQ(-1, s.rc);
  EXPECT_TRUE(has_error("URL Invalid!\n")) << log().text();
}

TEST_F(Url, SplitRefusesOnlyBlanksAfterTheScheme) {
  Split s("http://  \t ");
  EXPECT_EQ(-1, s.rc);
  EXPECT_TRUE(has_error("URL Invalid!\n")) << log().text();
}

TEST_F(Url, SplitSkipsBlanksAfterTheScheme) {
  Split s("http://   host/x");
  ASSERT_EQ(0, s.rc);
  EXPECT_EQ("host", s.host());
  EXPECT_TRUE(log().has(kCommon, kInfo, "Skip Space Success!\n"));
}

// --- url_split: login -----------------------------------------------------

TEST_F(Url, SplitTakesLoginAndBracketedHost) {
  enable_ipv6(1);
  Split s("ftp://bob:secret@[fe80::1]:2121/up/");
  ASSERT_EQ(0, s.rc);
  EXPECT_EQ(static_cast<uint32_t>(DL_SCHEME_FTP), s.parts.scheme);
  EXPECT_EQ("bob", s.user());
  EXPECT_EQ("secret", s.password());
  EXPECT_EQ("fe80::1", s.host());
  EXPECT_EQ(2121, s.parts.port);
  EXPECT_EQ("/up/", s.path());
}

TEST_F(Url, SplitRefusesBracketedHostWithoutIpv6) {
  Split s("ftp://bob:secret@[fe80::1]:2121/up/");
  EXPECT_EQ(-1, s.rc);
  EXPECT_TRUE(has_error(kLoginHostPortFail)) << log().text();
}

TEST_F(Url, SplitRefusesUserWithoutPassword) {
  Split s("ftp://bob@host/x");
  EXPECT_EQ(-1, s.rc);
  EXPECT_TRUE(has_error(kLoginHostPortFail)) << log().text();
  EXPECT_FALSE(has_error("Login Info Invalid!\n"));
}

TEST_F(Url, SplitCutsAtTheLastAt) {
  Split s("http://a@b:c@host/");
  ASSERT_EQ(0, s.rc);
  EXPECT_EQ("a@b", s.user());
  EXPECT_EQ("c", s.password());
  EXPECT_EQ("host", s.host());
}

TEST_F(Url, SplitRefusesEmptyLogin) {
  Split s("ftp://@host/x");
  EXPECT_EQ(-1, s.rc);
  EXPECT_TRUE(logged_in_order(log(), {"Login Info Invalid!\n", kLoginHostPortFail}));
}

TEST_F(Url, SplitPasswordMayBeEmpty) {
  Split s("ftp://bob:@host/x");
  ASSERT_EQ(0, s.rc);
  EXPECT_EQ("bob", s.user());
  EXPECT_EQ("", s.password());
}

TEST_F(Url, SplitUserMayBeEmpty) {
  Split s("ftp://:pw@host/x");
  ASSERT_EQ(0, s.rc);
  EXPECT_EQ("", s.user());
  EXPECT_EQ("pw", s.password());
}

TEST_F(Url, SplitPasswordRunsPastFurtherColons) {
  Split s("ftp://bob:se:cret@host/x");
  ASSERT_EQ(0, s.rc);
  EXPECT_EQ("bob", s.user());
  EXPECT_EQ("se:cret", s.password());
}

TEST_F(Url, SplitLoginStopsAtTheFirstSlash) {
  // The "@" after the first "/" belongs to the path, not to a login.
  Split s("http://host/mail@box");
  ASSERT_EQ(0, s.rc);
  EXPECT_EQ(nullptr, s.parts.user);
  EXPECT_EQ("host", s.host());
  EXPECT_EQ("/mail@box", s.path());
}

// --- url_split: host ------------------------------------------------------

TEST_F(Url, SplitRefusesEmptyHost) {
  Split s("http:///x");
  EXPECT_EQ(-1, s.rc);
  EXPECT_TRUE(logged_in_order(log(), {"Host Info Invalid!\n", kLoginHostPortFail}));
}

TEST_F(Url, SplitRefusesEmptyHostAfterLogin) {
  Split s("ftp://u:p@/x");
  EXPECT_EQ(-1, s.rc);
  EXPECT_TRUE(logged_in_order(log(), {"Host Info Invalid!\n", kLoginHostPortFail}));
}

TEST_F(Url, SplitRefusesBlankHostAfterLogin) {
  Split s("ftp://u:p@  /x");
  EXPECT_EQ(-1, s.rc);
  EXPECT_TRUE(logged_in_order(log(), {"Host Info Invalid!\n", kLoginHostPortFail}));
}

TEST_F(Url, SplitSkipsBlanksBeforeTheHost) {
  Split s("ftp://u:p@  host/x");
  ASSERT_EQ(0, s.rc);
  EXPECT_EQ("host", s.host());
}

TEST_F(Url, SplitRefusesPortWithoutHost) {
  Split s("http://:80/");
  EXPECT_EQ(-1, s.rc);
  EXPECT_TRUE(has_error(kLoginHostPortFail)) << log().text();
  EXPECT_FALSE(has_error("Host Info Invalid!\n"));
}

TEST_F(Url, SplitBracketedHostKeepsDefaultPort) {
  enable_ipv6(1);
  Split s("http://[::1]/");
  ASSERT_EQ(0, s.rc);
  EXPECT_EQ("::1", s.host());
  EXPECT_EQ(80, s.parts.port);
}

TEST_F(Url, SplitIgnoresTextBetweenBracketAndPortSeparator) {
  enable_ipv6(1);
  Split s("http://[::1]xyz:8080/a");
  ASSERT_EQ(0, s.rc);
  EXPECT_EQ("::1", s.host());
  EXPECT_EQ(8080, s.parts.port);
  EXPECT_EQ("/a", s.path());
}

TEST_F(Url, SplitFindsTheBracketAnywhereInTheHostPart) {
  enable_ipv6(1);
  Split s("http://x[::1]:81/");
  ASSERT_EQ(0, s.rc);
  EXPECT_EQ("::1", s.host());
  EXPECT_EQ(81, s.parts.port);
}

TEST_F(Url, SplitRefusesUnclosedBracket) {
  enable_ipv6(1);
  Split s("http://[::1/x");
  EXPECT_EQ(-1, s.rc);
  EXPECT_TRUE(has_error(kLoginHostPortFail)) << log().text();
}

TEST_F(Url, SplitRefusesEmptyBrackets) {
  enable_ipv6(1);
  Split s("http://[]/x");
  EXPECT_EQ(-1, s.rc);
  EXPECT_TRUE(has_error(kLoginHostPortFail)) << log().text();
}

// --- url_split: port ------------------------------------------------------

TEST_F(Url, SplitPortLimits) {
  {
    Split s("https://host:65536/");
    EXPECT_EQ(-1, s.rc);
    EXPECT_TRUE(has_error(kLoginHostPortFail));
  }
  {
    Split s("https://host:65535/");
    ASSERT_EQ(0, s.rc);
    EXPECT_EQ(65535, s.parts.port);
  }
  {
    Split s("https://host:0/");
    ASSERT_EQ(0, s.rc);
    EXPECT_EQ(0, s.parts.port);
  }
}

TEST_F(Url, SplitRefusesHugePortWithoutWrapping) {
  Split s("http://host:4294967377/");
  EXPECT_EQ(-1, s.rc);
  EXPECT_TRUE(has_error(kLoginHostPortFail));
}

TEST_F(Url, SplitRefusesEmptyPort) {
  Split s("http://host:/x");
  EXPECT_EQ(-1, s.rc);
  EXPECT_TRUE(logged_in_order(log(), {"Host Info Invalid!\n", kLoginHostPortFail}));
}

TEST_F(Url, SplitRefusesBlankPort) {
  Split s("http://host:  /x");
  EXPECT_EQ(-1, s.rc);
  EXPECT_TRUE(logged_in_order(log(), {"Host Info Invalid!\n", kLoginHostPortFail}));
}

TEST_F(Url, SplitSkipsBlanksBeforeThePort) {
  Split s("http://host:  8080/x");
  ASSERT_EQ(0, s.rc);
  EXPECT_EQ(8080, s.parts.port);
}

TEST_F(Url, SplitRefusesNonDigitsInThePort) {
  for (const char *url : {"http://host:80a/", "http://host:+80/", "http://host:-1/",
                          "http://host:80 /", "http://host:8?0/"}) {
    Split s(url);
    EXPECT_EQ(-1, s.rc) << url;
  }
  EXPECT_TRUE(has_error(kLoginHostPortFail));
  EXPECT_FALSE(has_error("Host Info Invalid!\n"));
}

TEST_F(Url, SplitRefusesEmptyPortAfterBracket) {
  enable_ipv6(1);
  Split s("http://[::1]:/x");
  EXPECT_EQ(-1, s.rc);
  EXPECT_TRUE(logged_in_order(log(), {"Host Info Invalid!\n", kLoginHostPortFail}));
}

// --- url_split: path ------------------------------------------------------

TEST_F(Url, SplitWithoutPathGivesSlash) {
  Split s("http://host");
  ASSERT_EQ(0, s.rc);
  EXPECT_EQ("/", s.path());
}

TEST_F(Url, SplitKeepsQueryAndFragment) {
  Split s("http://host/p?q=1#f");
  ASSERT_EQ(0, s.rc);
  EXPECT_EQ("/p?q=1#f", s.path());
}

TEST_F(Url, SplitQueryWithoutSlashStaysInTheHost) {
  Split s("http://host?x=1");
  ASSERT_EQ(0, s.rc);
  EXPECT_EQ("host?x=1", s.host());
  EXPECT_EQ("/", s.path());
}

TEST_F(Url, SplitCleansTheTextFirst) {
  Split s("   http://host/a\tb");
  ASSERT_EQ(0, s.rc);
  EXPECT_EQ("host", s.host());
  EXPECT_EQ("/ab", s.path());
}

TEST_F(Url, SplitDropsLineBreaksInsideTheHost) {
  Split s("http://ho\r\nst:8\t0/x  ");
  ASSERT_EQ(0, s.rc);
  EXPECT_EQ("host", s.host());
  EXPECT_EQ(80, s.parts.port);
  EXPECT_EQ("/x", s.path());
}

// --- url_rebuild ----------------------------------------------------------

struct Rebuilt {
  int rc = -2;
  dl_http_param out;
  Rebuilt(const char *url, const char *user, const char *password, const char *proxy) {
    memset(&out, 0, sizeof(out));
    Split s(url);
    if (s.rc != 0) return;
    dl_request req = {const_cast<char *>(url), const_cast<char *>(user),
                      const_cast<char *>(password), const_cast<char *>(proxy)};
    rc = url_rebuild(&req, &out, &s.parts);
    // The user and password may point into the parts; copy them before
    // the parts go.
    user_ = text_or_null(out.user);
    password_ = text_or_null(out.password);
  }
  ~Rebuilt() { free(out.url); }
  std::string url() const { return text_or_null(out.url); }
  std::string user_;
  std::string password_;
};

TEST_F(Url, RebuildDropsLoginAndDefaultPort) {
  Rebuilt r("http://u:p@h:80/x", nullptr, nullptr, nullptr);
  ASSERT_EQ(0, r.rc);
  EXPECT_EQ("http://h/x", r.url());
  EXPECT_EQ("u", r.user_);
  EXPECT_EQ("p", r.password_);
}

TEST_F(Url, RebuildKeepsBracketsAndOtherPorts) {
  enable_ipv6(1);
  Rebuilt r("https://[::1]:8443/x", nullptr, nullptr, nullptr);
  ASSERT_EQ(0, r.rc);
  EXPECT_EQ("https://[::1]:8443/x", r.url());
}

TEST_F(Url, RebuildLogsTheNewUrl) {
  Rebuilt r("http://u:p@h:80/x", nullptr, nullptr, nullptr);
  ASSERT_EQ(0, r.rc);
  EXPECT_TRUE(log().has(kCommon, kInfo, "URL After Modify = http://h/x\n")) << log().text();
}

TEST_F(Url, RebuildPrefersTheUrlsLogin) {
  Rebuilt r("http://u:p@h/x", "caller", "callerpw", nullptr);
  ASSERT_EQ(0, r.rc);
  EXPECT_EQ("u", r.user_);
  EXPECT_EQ("p", r.password_);
}

TEST_F(Url, RebuildFallsBackToTheCallersLogin) {
  Rebuilt r("http://h/x", "caller", "callerpw", nullptr);
  ASSERT_EQ(0, r.rc);
  EXPECT_EQ("caller", r.user_);
  EXPECT_EQ("callerpw", r.password_);
}

TEST_F(Url, RebuildHandsOnTheCallersProxy) {
  static char proxy[] = "http://proxy:3128/";
  Rebuilt r("http://h/x", nullptr, nullptr, proxy);
  ASSERT_EQ(0, r.rc);
  EXPECT_EQ(proxy, r.out.proxy);
}

TEST_F(Url, RebuildDefaultPortsFollowTheTransferTable) {
  struct Case {
    const char *in;
    const char *out;
  };
  for (const Case &c : {Case{"https://h:443/", "https://h/"}, Case{"ftp://h:21/f", "ftp://h/f"},
                        Case{"tftp://h:69/f", "tftp://h/f"}, Case{"tftp://h:70/f", "tftp://h:70/f"},
                        Case{"http://h:8080", "http://h:8080/"}, Case{"h/f", "tftp://h/f"},
                        Case{"HTTP://h:443/", "http://h:443/"}}) {
    Rebuilt r(c.in, nullptr, nullptr, nullptr);
    ASSERT_EQ(0, r.rc) << c.in;
    EXPECT_EQ(c.out, r.url()) << c.in;
  }
}

TEST_F(Url, RebuildBracketsFollowTheCallersUrl) {
  // Brackets anywhere in the caller's URL bracket the host.
  Rebuilt r("http://h/[x]", nullptr, nullptr, nullptr);
  ASSERT_EQ(0, r.rc);
  EXPECT_EQ("http://[h]/[x]", r.url());
}

// --- scheme_default_port --------------------------------------------------

TEST(SchemeDefaultPort, FollowsTheHttpTable) {
  EXPECT_EQ(80, scheme_default_port(0));
  EXPECT_EQ(443, scheme_default_port(1));
  EXPECT_EQ(-1, scheme_default_port(2));
}

TEST(SchemeDefaultPort, PastTheTableGivesMinusOne) {
  EXPECT_EQ(-1, scheme_default_port(3));
  EXPECT_EQ(-1, scheme_default_port(0xFFFFFFFFu));
}

// --- dl_url_parse ---------------------------------------------------------

TEST_F(Url, ParseHttpWithDefaults) {
  int err;
  UrlPtr u = parse("http://host/file.cfg", &err);
  ASSERT_NE(nullptr, u);
  EXPECT_EQ(0, err);
  EXPECT_EQ(static_cast<uint32_t>(DL_URL_SCHEME_HTTP), u->scheme);
  EXPECT_EQ(0u, u->request_type);
  EXPECT_EQ(0u, u->is_ipv6);
  EXPECT_STREQ("host", u->host);
  EXPECT_STREQ("/file.cfg", u->path);
  EXPECT_EQ(80, u->port);
  EXPECT_EQ(nullptr, u->user);
  EXPECT_EQ(nullptr, u->password);
  EXPECT_FALSE(log().mentions("<3+error >")) << log().text();
}

TEST_F(Url, ParseHttpsWithDefaults) {
  int err;
  UrlPtr u = parse("https://host", &err);
  ASSERT_NE(nullptr, u);
  EXPECT_EQ(0, err);
  EXPECT_EQ(static_cast<uint32_t>(DL_URL_SCHEME_HTTPS), u->scheme);
  EXPECT_STREQ("host", u->host);
  EXPECT_STREQ("/", u->path);
  EXPECT_EQ(443, u->port);
}

TEST_F(Url, ParseCopiesUserAndPassword) {
  int err;
  const char user[] = "alice";
  const char password[] = "pw";
  UrlPtr u = parse("http://host/", &err, user, password);
  ASSERT_NE(nullptr, u);
  EXPECT_STREQ("alice", u->user);
  EXPECT_STREQ("pw", u->password);
  EXPECT_NE(user, u->user);
  EXPECT_NE(password, u->password);
}

TEST_F(Url, ParseCopiesOnlyWhatIsGiven) {
  int err;
  UrlPtr u = parse("http://host/", &err, "alice", nullptr);
  ASSERT_NE(nullptr, u);
  EXPECT_STREQ("alice", u->user);
  EXPECT_EQ(nullptr, u->password);
}

TEST_F(Url, ParseWritesSpacesAsPercent20) {
  int err;
  UrlPtr u = parse("http://host/a b", &err);
  ASSERT_NE(nullptr, u);
  EXPECT_STREQ("/a%20b", u->path);
}

TEST_F(Url, ParseCleansBeforeEncodingSpaces) {
  int err;
  UrlPtr u = parse("  http://host/a  b\t c  ", &err);
  ASSERT_NE(nullptr, u);
  EXPECT_STREQ("/a%20%20b%20c", u->path);
}

TEST_F(Url, ParseKeepsQueryAndFragmentInThePath) {
  int err;
  UrlPtr u = parse("http://h/p?q=1#f", &err);
  ASSERT_NE(nullptr, u);
  EXPECT_STREQ("/p?q=1#f", u->path);
}

TEST_F(Url, ParseRefusesNullAndEmpty) {
  int err;
  EXPECT_EQ(nullptr, parse(nullptr, &err));
  EXPECT_EQ(DL_ERR_URL, err);
  EXPECT_EQ(nullptr, parse("", &err));
  EXPECT_EQ(DL_ERR_URL, err);
  EXPECT_EQ(2, log().count(kCommon, kError, "Invalid URL\n")) << log().text();
}

TEST_F(Url, ParseRefusesOtherSchemes) {
  int err;
  EXPECT_EQ(nullptr, parse("ftp://host/", &err));
  EXPECT_EQ(DL_ERR_URL, err);
  EXPECT_TRUE(has_error("Invalid URL\n")) << log().text();
  EXPECT_EQ(nullptr, parse("host/file", &err));
  EXPECT_EQ(DL_ERR_URL, err);
}

TEST_F(Url, ParseAcceptsNullErr) {
  EXPECT_EQ(nullptr, dl_url_parse("ftp://host/", nullptr, nullptr, nullptr));
  UrlPtr u(dl_url_parse("http://host/", nullptr, nullptr, nullptr));
  EXPECT_NE(nullptr, u);
}

TEST_F(Url, ParseAlwaysSkipsTheHttpsPrefix) {
  int err;
  UrlPtr u = parse("HTTPS://Host/P", &err);
  ASSERT_NE(nullptr, u);
  EXPECT_EQ(static_cast<uint32_t>(DL_URL_SCHEME_HTTPS), u->scheme);
  EXPECT_STREQ("Host", u->host);
  EXPECT_STREQ("/P", u->path);
  EXPECT_EQ(443, u->port);
}

TEST_F(Url, ParseUpperCaseHttpPrefixIsNotSkipped) {
  int err;
  UrlPtr u = parse("HTTP://host/p", &err);
  ASSERT_NE(nullptr, u);
  EXPECT_EQ(0, err);
  EXPECT_EQ(static_cast<uint32_t>(DL_URL_SCHEME_HTTP), u->scheme);
  EXPECT_STREQ("HTTP", u->host);
  EXPECT_EQ(80, u->port);
  EXPECT_STREQ("//host/p", u->path);
}

TEST_F(Url, ParseUpperCaseHttpPrefixIsSkippedWhenLowerCaseAppearsLater) {
  int err;
  UrlPtr u = parse("HTTP://host/?u=http://x", &err);
  ASSERT_NE(nullptr, u);
  EXPECT_STREQ("host", u->host);
  EXPECT_STREQ("/?u=http://x", u->path);
}

TEST_F(Url, ParseBracketedHost) {
  enable_ipv6(1);
  int err;
  UrlPtr u = parse("http://[fe80::1]:8080/x", &err);
  ASSERT_NE(nullptr, u);
  EXPECT_EQ(0, err);
  EXPECT_EQ(1u, u->is_ipv6);
  EXPECT_STREQ("fe80::1", u->host);
  EXPECT_EQ(8080, u->port);
  EXPECT_STREQ("/x", u->path);
}

TEST_F(Url, ParseBracketedHostWithoutPort) {
  enable_ipv6(1);
  int err;
  UrlPtr u = parse("https://[::1]", &err);
  ASSERT_NE(nullptr, u);
  EXPECT_STREQ("::1", u->host);
  EXPECT_EQ(443, u->port);
  EXPECT_STREQ("/", u->path);
}

TEST_F(Url, ParseBracketedHostWithEmptyPort) {
  enable_ipv6(1);
  int err;
  UrlPtr u = parse("http://[::1]:/x", &err);
  ASSERT_NE(nullptr, u);
  EXPECT_EQ(80, u->port);
  EXPECT_STREQ("/x", u->path);
}

TEST_F(Url, ParseRefusesBracketedHostWhenIpv6IsOff) {
  int err;
  EXPECT_EQ(nullptr, parse("http://[fe80::1]/x", &err));
  EXPECT_EQ(DL_ERR_IPV6_DISABLED, err);
  EXPECT_TRUE(has_error("can't use ipv6 when ipv6 is diable\n")) << log().text();
}

TEST_F(Url, ParseRefusesUnclosedBracket) {
  enable_ipv6(1);
  int err;
  EXPECT_EQ(nullptr, parse("http://[fe80::1/x", &err));
  EXPECT_EQ(DL_ERR_URL, err);
  EXPECT_TRUE(has_error("Invalid Host\n")) << log().text();
}

TEST_F(Url, ParseRefusesEmptyHost) {
  int err;
  for (const char *url : {"http:///x", "http://:80/x", "https://?q", "http://#f"}) {
    EXPECT_EQ(nullptr, parse(url, &err)) << url;
    EXPECT_EQ(DL_ERR_URL, err) << url;
  }
  EXPECT_EQ(4, log().count(kCommon, kError, "Invalid Host\n")) << log().text();
}

TEST_F(Url, ParseRefusesQueryOrFragmentStraightAfterTheHost) {
  int err;
  EXPECT_EQ(nullptr, parse("https://host?x", &err));
  EXPECT_EQ(DL_ERR_URL, err);
  EXPECT_EQ(nullptr, parse("https://host#x", &err));
  EXPECT_EQ(DL_ERR_URL, err);
  EXPECT_EQ(2, log().count(kCommon, kError, "Bad file name\n")) << log().text();
}

TEST_F(Url, ParseRefusesTextAfterTheBracketedHost) {
  enable_ipv6(1);
  int err;
  EXPECT_EQ(nullptr, parse("http://[::1]x/", &err));
  EXPECT_EQ(DL_ERR_URL, err);
  EXPECT_TRUE(has_error("Bad file name\n")) << log().text();
}

TEST_F(Url, ParseEmptyPortKeepsTheDefault) {
  int err;
  UrlPtr u = parse("https://host:/p", &err);
  ASSERT_NE(nullptr, u);
  EXPECT_EQ(443, u->port);
  EXPECT_STREQ("/p", u->path);
  UrlPtr v = parse("http://host:", &err);
  ASSERT_NE(nullptr, v);
  EXPECT_EQ(80, v->port);
  EXPECT_STREQ("/", v->path);
}

TEST_F(Url, ParsePortLimits) {
  int err;
  UrlPtr top = parse("http://host:65535/", &err);
  ASSERT_NE(nullptr, top);
  EXPECT_EQ(65535, top->port);
  UrlPtr zero = parse("http://host:0/", &err);
  ASSERT_NE(nullptr, zero);
  EXPECT_EQ(0, zero->port);
  EXPECT_EQ(nullptr, parse("http://host:65536/", &err));
  EXPECT_EQ(DL_ERR_URL, err);
  EXPECT_TRUE(has_error("BAD_PORT_NUMBER\n")) << log().text();
}

TEST_F(Url, ParseRefusesBadPorts) {
  int err;
  for (const char *url : {"http://host:8a/", "http://host:80?x", "http://host:+1/",
                          "http://host:99999999999999999999/", "http://host: 80/"}) {
    EXPECT_EQ(nullptr, parse(url, &err)) << url;
    EXPECT_EQ(DL_ERR_URL, err) << url;
  }
  EXPECT_EQ(5, log().count(kCommon, kError, "BAD_PORT_NUMBER\n")) << log().text();
}

TEST_F(Url, ParseHostStopsAtTheFirstDelimiter) {
  int err;
  UrlPtr u = parse("http://my host:81/a", &err);
  ASSERT_NE(nullptr, u);
  EXPECT_STREQ("my%20host", u->host);
  EXPECT_EQ(81, u->port);
}

TEST_F(Url, ParseDropsTabsAndLineBreaks) {
  int err;
  UrlPtr u = parse("http://ho\tst/a\r\nb", &err);
  ASSERT_NE(nullptr, u);
  EXPECT_STREQ("host", u->host);
  EXPECT_STREQ("/ab", u->path);
}

TEST_F(Url, ParseSuccessResetsErr) {
  int err = DL_ERR_URL;
  UrlPtr u(dl_url_parse("http://host/", nullptr, nullptr, &err));
  ASSERT_NE(nullptr, u);
  EXPECT_EQ(0, err);
}

TEST(UrlFree, AcceptsNull) { dl_url_free(nullptr); }

}  // namespace
