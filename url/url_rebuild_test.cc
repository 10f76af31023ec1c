#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>

#include "quarry.h"
#include "quarry_internal.h"
#include "tests/support/log_capture.h"
#include "url/url_test_env.h"

namespace {

using quarry_test::dcmn_lines;
using quarry_test::LogCapture;
using quarry_test::UrlTest;

char kRequestUser[] = "ruser";
char kRequestPassword[] = "rpass";
char kProxy[] = "http://proxy:3128";

class UrlRebuild : public UrlTest {
 protected:
  void TearDown() override {
    free(out_.url);
    quarry_test::free_parts(&parts_);
    UrlTest::TearDown();
  }

  // Splits |url|, rebuilds it with the request's credentials and returns
  // the new URL.
  std::string rebuild(const char *url) {
    url_text_ = url;
    request_ = {&url_text_[0], kRequestUser, kRequestPassword, kProxy};
    EXPECT_EQ(url_split(url, &parts_), 0) << url;
    EXPECT_EQ(url_rebuild(&request_, &out_, &parts_), 0) << url;
    return out_.url == nullptr ? "<null>" : out_.url;
  }

  std::string url_text_;
  dl_request request_{};
  dl_url_parts parts_{};
  dl_http_param out_{};
};

TEST_F(UrlRebuild, LoginAndDefaultPortGo) {
  EXPECT_EQ(rebuild("http://u:p@h:80/x"), "http://h/x");
  EXPECT_STREQ(out_.user, "u");
  EXPECT_STREQ(out_.password, "p");
}

TEST_F(UrlRebuild, BracketedHostAndOtherPortStay) {
  set_ipv6(true);
  EXPECT_EQ(rebuild("https://[::1]:8443/x"), "https://[::1]:8443/x");
}

TEST_F(UrlRebuild, PortIsComparedWithTheTransferSchemesDefault) {
  EXPECT_EQ(rebuild("ftp://h:21/a"), "ftp://h/a");
}

TEST_F(UrlRebuild, HttpsPortOnHttpStays) { EXPECT_EQ(rebuild("http://h:443/"), "http://h:443/"); }

TEST_F(UrlRebuild, PortZeroIsWritten) { EXPECT_EQ(rebuild("https://h:0/p"), "https://h:0/p"); }

TEST_F(UrlRebuild, SchemeLessUrlGetsTheTftpPrefix) {
  EXPECT_EQ(rebuild("10.0.0.1/cfg/a.bin"), "tftp://10.0.0.1/cfg/a.bin");
}

TEST_F(UrlRebuild, MissingPathBecomesSlash) { EXPECT_EQ(rebuild("https://h:8443"), "https://h:8443/"); }

TEST_F(UrlRebuild, BracketsAnywhereInTheUrlBracketTheHost) {
  EXPECT_EQ(rebuild("http://h/a[1]"), "http://[h]/a[1]");
}

TEST_F(UrlRebuild, OneBracketAloneDoesNot) { EXPECT_EQ(rebuild("http://h/a]"), "http://h/a]"); }

TEST_F(UrlRebuild, LogsTheNewUrl) {
  LogCapture capture;
  rebuild("http://u:p@h:81/x?y");
  EXPECT_EQ(capture.text(), dcmn_lines({{6, "Enter Func dl_url_parse....\n"},
                                        {6, "Skip Space Success!\n"},
                                        {6, "URL After Modify = http://h:81/x?y\n"}}));
}

TEST_F(UrlRebuild, RequestCredentialsServeWhenTheUrlHasNone) {
  rebuild("http://h/x");
  EXPECT_EQ(out_.user, kRequestUser);
  EXPECT_EQ(out_.password, kRequestPassword);
}

TEST_F(UrlRebuild, UrlCredentialsWin) {
  rebuild("http://u:@h/x");
  EXPECT_STREQ(out_.user, "u");
  EXPECT_STREQ(out_.password, "");
}

TEST_F(UrlRebuild, UserAndPasswordAreChosenIndependently) {
  char host[] = "h";
  char path[] = "/";
  char user[] = "only-user";
  char url[] = "http://h/";
  dl_url_parts parts = {DL_SCHEME_HTTP, host, 80, path, user, nullptr};
  dl_request request = {url, kRequestUser, kRequestPassword, nullptr};
  ASSERT_EQ(url_rebuild(&request, &out_, &parts), 0);
  EXPECT_EQ(out_.user, user);
  EXPECT_EQ(out_.password, kRequestPassword);
}

TEST_F(UrlRebuild, ProxyIsTheRequests) {
  rebuild("http://h/x");
  EXPECT_EQ(out_.proxy, kProxy);
}

TEST_F(UrlRebuild, OtherFieldsAreLeftAlone) {
  char headers[] = "X: y\r\n";
  out_.type = DL_HTTP_PUT;
  out_.headers = headers;
  rebuild("http://h/x");
  EXPECT_EQ(out_.type, DL_HTTP_PUT);
  EXPECT_EQ(out_.headers, headers);
  EXPECT_EQ(out_.body, nullptr);
}

TEST_F(UrlRebuild, BadArgumentsAreRefused) {
  char host[] = "h";
  char path[] = "/";
  char url[] = "http://h/";
  dl_url_parts parts = {DL_SCHEME_HTTP, host, 80, path, nullptr, nullptr};
  dl_request request = {url, nullptr, nullptr, nullptr};
  dl_request no_url = {nullptr, nullptr, nullptr, nullptr};
  dl_url_parts no_host = {DL_SCHEME_HTTP, nullptr, 80, path, nullptr, nullptr};
  dl_url_parts no_path = {DL_SCHEME_HTTP, host, 80, nullptr, nullptr, nullptr};
  dl_url_parts bad_scheme = {DL_SCHEME_NONE, host, 80, path, nullptr, nullptr};
  LogCapture capture;
  EXPECT_EQ(url_rebuild(nullptr, &out_, &parts), -1);
  EXPECT_EQ(url_rebuild(&no_url, &out_, &parts), -1);
  EXPECT_EQ(url_rebuild(&request, nullptr, &parts), -1);
  EXPECT_EQ(url_rebuild(&request, &out_, nullptr), -1);
  EXPECT_EQ(url_rebuild(&request, &out_, &no_host), -1);
  EXPECT_EQ(url_rebuild(&request, &out_, &no_path), -1);
  EXPECT_EQ(url_rebuild(&request, &out_, &bad_scheme), -1);
  EXPECT_EQ(out_.url, nullptr);
  EXPECT_EQ(capture.count(2, 3, "Invalid Param!\n"), 7);
}

}  // namespace
