#include <gtest/gtest.h>

#include <string>

#include "quarry.h"

namespace {

std::string text_of(int code, size_t room = 64) {
  char buf[300];
  memset(buf, 'x', sizeof(buf));
  dl_get_error_string(code, buf, room);
  return buf;
}

TEST(ErrorText, WrongUrlTextAndLength) {
  char buf[64];
  EXPECT_EQ(dl_get_error_string(DL_ERR_URL, buf, sizeof(buf)), 9);
  EXPECT_STREQ(buf, "Wrong URL");
}

TEST(ErrorText, CodesWithoutTextOfTheirOwnAreUnknownError) {
  EXPECT_EQ(text_of(DL_ERR_FTP_REPLY), "Unknown Error");
  EXPECT_EQ(text_of(DL_OK), "Unknown Error");
  EXPECT_EQ(text_of(DL_ERR_FAIL), "Unknown Error");
  EXPECT_EQ(text_of(DL_ERR_REDIRECT_URL), "Unknown Error");
  EXPECT_EQ(text_of(DL_ERR_FTP_USER), "Unknown Error");
  EXPECT_EQ(text_of(DL_ERR_FTP_PASS), "Unknown Error");
  EXPECT_EQ(text_of(DL_ERR_SSL_METHOD), "Unknown Error");
  EXPECT_EQ(text_of(DL_ERR_CERT_VERIFY), "Unknown Error");
  EXPECT_EQ(text_of(DL_ERR_TLS_ALERT), "Unknown Error");
  EXPECT_EQ(text_of(-25), "Unknown Error");
  EXPECT_EQ(text_of(1), "Unknown Error");
}

TEST(ErrorText, CutTextReturnsFullLength) {
  char buf[4];
  EXPECT_EQ(dl_get_error_string(400, buf, sizeof(buf)), 13);
  EXPECT_STREQ(buf, "Inv");
}

TEST(ErrorText, UnlistedHttpStatusIsUnknownError) {
  EXPECT_EQ(text_of(404), "Unknown Error");
  EXPECT_EQ(text_of(401), "Unknown Error");
}

TEST(ErrorText, EveryNamedCodeHasItsExactText) {
  const struct {
    int code;
    const char *text;
  } table[] = {
      {-2, "Create Socket Error"}, {-3, "Connect Failed"},       {-4, "Send Error"},
      {-5, "Recv invalid data"},   {-6, "Invalid Parameter"},    {-7, "Out of memory"},
      {-8, "Read Error"},          {-9, "Wrong URL"},            {-10, "Wrong port"},
      {-11, "Auth Error"},         {-12, "Redirect to many times"}, {-13, "Ipv6 is disable"},
      {-14, "Config doesn't init"}, {-16, "Host is not a tftp server"}, {-20, "Wrong host"},
      {-21, "Exceed max size"},    {200, "200 OK"},              {201, "Resource create success"},
      {400, "Invaild query"},      {403, "Forbidden"},           {408, "request out of time"},
      {500, "Server error"},       {501, "Server doesn't support method"},
  };
  for (const auto &entry : table) {
    char buf[64];
    int n = dl_get_error_string(entry.code, buf, sizeof(buf));
    EXPECT_STREQ(buf, entry.text) << "code " << entry.code;
    EXPECT_EQ(n, static_cast<int>(strlen(entry.text))) << "code " << entry.code;
  }
}

TEST(ErrorText, PercentFreeTextsAreWrittenVerbatim) {
  // A room of exactly the text plus its terminator holds the whole text.
  char buf[10];
  EXPECT_EQ(dl_get_error_string(DL_ERR_URL, buf, sizeof(buf)), 9);
  EXPECT_STREQ(buf, "Wrong URL");
}

}  // namespace
