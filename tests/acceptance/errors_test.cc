// Result codes and their texts, through dl_get_error_string only.
#include <gtest/gtest.h>
#include <limits.h>
#include <string.h>

#include <string>

#include "quarry.h"

namespace {

struct CodeText {
  int code;
  const char *text;
};

// Every library code and the exact text callers show and compare.
const CodeText kLibraryCodes[] = {
    {DL_OK, "Unknown Error"},
    {DL_ERR_FAIL, "Unknown Error"},
    {DL_ERR_SOCKET, "Create Socket Error"},
    {DL_ERR_CONNECT, "Connect Failed"},
    {DL_ERR_SEND, "Send Error"},
    {DL_ERR_RECV, "Recv invalid data"},
    {DL_ERR_PARAM, "Invalid Parameter"},
    {DL_ERR_NOMEM, "Out of memory"},
    {DL_ERR_READ, "Read Error"},
    {DL_ERR_URL, "Wrong URL"},
    {DL_ERR_PORT, "Wrong port"},
    {DL_ERR_AUTH, "Auth Error"},
    {DL_ERR_REDIRECT, "Redirect to many times"},
    {DL_ERR_IPV6_DISABLED, "Ipv6 is disable"},
    {DL_ERR_NO_CONFIG, "Config doesn't init"},
    {DL_ERR_FTP_REPLY, "Unknown Error"},
    {DL_ERR_NOT_TFTP, "Host is not a tftp server"},
    {DL_ERR_REDIRECT_URL, "Unknown Error"},
    {DL_ERR_FTP_USER, "Unknown Error"},
    {DL_ERR_FTP_PASS, "Unknown Error"},
    {DL_ERR_HOST, "Wrong host"},
    {DL_ERR_MAX_SIZE, "Exceed max size"},
    {DL_ERR_SSL_METHOD, "Unknown Error"},
    {DL_ERR_CERT_VERIFY, "Unknown Error"},
    {DL_ERR_TLS_ALERT, "Unknown Error"},
};

const CodeText kHttpStatuses[] = {
    {200, "200 OK"},
    {201, "Resource create success"},
    {400, "Invaild query"},
    {403, "Forbidden"},
    {408, "request out of time"},
    {500, "Server error"},
    {501, "Server doesn't support method"},
};

std::string text_of(int code) {
  char buf[256];
  memset(buf, 'Z', sizeof(buf));
  dl_get_error_string(code, buf, sizeof(buf));
  return std::string(buf, strnlen(buf, sizeof(buf)));
}

TEST(ErrorString, CodeNumbersAreTheDocumentedOnes) {
  EXPECT_EQ(0, DL_OK);
  EXPECT_EQ(-1, DL_ERR_FAIL);
  EXPECT_EQ(-9, DL_ERR_URL);
  EXPECT_EQ(-13, DL_ERR_IPV6_DISABLED);
  EXPECT_EQ(-14, DL_ERR_NO_CONFIG);
  EXPECT_EQ(-21, DL_ERR_MAX_SIZE);
  EXPECT_EQ(-24, DL_ERR_TLS_ALERT);
}

TEST(ErrorString, EveryLibraryCodeHasItsExactText) {
  for (const CodeText &entry : kLibraryCodes) {
    EXPECT_EQ(entry.text, text_of(entry.code)) << "code " << entry.code;
  }
}

TEST(ErrorString, KnownHttpStatusesHaveTheirTexts) {
  for (const CodeText &entry : kHttpStatuses) {
    EXPECT_EQ(entry.text, text_of(entry.code)) << "status " << entry.code;
  }
}

TEST(ErrorString, ReturnsTheFullTextLength) {
  char buf[64];
  for (const CodeText &entry : kLibraryCodes) {
    EXPECT_EQ(static_cast<int>(strlen(entry.text)), dl_get_error_string(entry.code, buf, 64));
  }
  for (const CodeText &entry : kHttpStatuses) {
    EXPECT_EQ(static_cast<int>(strlen(entry.text)), dl_get_error_string(entry.code, buf, 64));
  }
}

TEST(ErrorString, WrongUrlWritesItsTextAndReturnsNine) {
  char buf[64];
  EXPECT_EQ(9, dl_get_error_string(-9, buf, 64));
  EXPECT_STREQ("Wrong URL", buf);
}

TEST(ErrorString, FtpReplyAndSuccessSayUnknownError) {
  char buf[64];
  EXPECT_EQ(13, dl_get_error_string(-15, buf, 64));
  EXPECT_STREQ("Unknown Error", buf);
  EXPECT_EQ(13, dl_get_error_string(0, buf, 64));
  EXPECT_STREQ("Unknown Error", buf);
}

TEST(ErrorString, ShortBufferCutsTextButReturnsFullLength) {
  char buf[8];
  memset(buf, 'Z', sizeof(buf));
  EXPECT_EQ(13, dl_get_error_string(400, buf, 4));
  EXPECT_STREQ("Inv", buf);
  EXPECT_EQ('Z', buf[4]);
}

TEST(ErrorString, SizeOneWritesOnlyTheTerminator) {
  char buf[4] = {'Z', 'Z', 'Z', 'Z'};
  EXPECT_EQ(9, dl_get_error_string(DL_ERR_URL, buf, 1));
  EXPECT_EQ('\0', buf[0]);
  EXPECT_EQ('Z', buf[1]);
}

TEST(ErrorString, SizeZeroWritesNothingAndStillMeasures) {
  char buf[4] = {'Z', 'Z', 'Z', 'Z'};
  EXPECT_EQ(15, dl_get_error_string(DL_ERR_MAX_SIZE, buf, 0));
  EXPECT_EQ('Z', buf[0]);
  EXPECT_EQ(15, dl_get_error_string(DL_ERR_MAX_SIZE, nullptr, 0));
}

TEST(ErrorString, UnlistedStatusesSayUnknownError) {
  for (int code : {401, 404, 202, 301, 302, 502, 1, 99}) {
    EXPECT_EQ("Unknown Error", text_of(code)) << "code " << code;
  }
}

TEST(ErrorString, CodesBeyondTheTableSayUnknownError) {
  for (int code : {-25, -26, -100, INT_MIN, INT_MAX}) {
    EXPECT_EQ("Unknown Error", text_of(code)) << "code " << code;
  }
}

TEST(ErrorString, AddsNothingToTheText) {
  char buf[64];
  memset(buf, 'Z', sizeof(buf));
  dl_get_error_string(DL_ERR_HOST, buf, sizeof(buf));
  EXPECT_EQ(0, memcmp(buf, "Wrong host\0", 11));
}

}  // namespace
