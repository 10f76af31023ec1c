// The passive-mode reply parsers and the names a transfer falls back on.
#include <gtest/gtest.h>

#include <string>

#include "ftp/ftp_conn.h"

namespace {

std::string passive_text(const char *reply) {
  char out[64];
  return quarry::ftp_passive_text(reply, out, sizeof(out)) ? out : "<none>";
}

TEST(FtpPassiveText, TakesTheTextBetweenTheParentheses) {
  EXPECT_EQ(passive_text("227 Entering Passive Mode (192,168,1,2,19,137)."), "192,168,1,2,19,137");
  EXPECT_EQ(passive_text("229 Extended Passive mode OK (|||30124|)"), "|||30124|");
  EXPECT_EQ(passive_text("227 ()"), "");
}

TEST(FtpPassiveText, MissingParenthesisIsRefused) {
  EXPECT_EQ(passive_text("227 Entering Passive Mode 192,168,1,2,19,137"), "<none>");
  EXPECT_EQ(passive_text("227 Entering Passive Mode (192,168,1,2,19,137"), "<none>");
  EXPECT_EQ(passive_text("227 ) before ("), "<none>");
}

TEST(FtpPassiveText, LongTextIsCutToTheRoom) {
  char out[8];
  ASSERT_TRUE(quarry::ftp_passive_text("227 (1234567890123)", out, sizeof(out)));
  EXPECT_STREQ(out, "1234567");
}

TEST(FtpParsePasv, AddressAndPortFromSixNumbers) {
  char host[64];
  int port = 0;
  ASSERT_TRUE(quarry::ftp_parse_pasv("192,168,1,2,19,137", host, sizeof(host), &port));
  EXPECT_STREQ(host, "192.168.1.2");
  EXPECT_EQ(port, 5001);
}

TEST(FtpParsePasv, MissingCommasAreRefused) {
  char host[64];
  int port = 0;
  EXPECT_FALSE(quarry::ftp_parse_pasv("1921681219137", host, sizeof(host), &port));
  EXPECT_FALSE(quarry::ftp_parse_pasv("192.168.1.2.19,137", host, sizeof(host), &port));
}

TEST(FtpParsePasv, HugeNumbersDoNotOverflow) {
  char host[64];
  int port = 0;
  ASSERT_TRUE(quarry::ftp_parse_pasv("1,2,3,4,99999999999999,99999999999", host, sizeof(host),
                                     &port));
  EXPECT_GT(port, 65535);
}

TEST(FtpParseEpsv, FirstNumberIsThePort) {
  int port = 0;
  ASSERT_TRUE(quarry::ftp_parse_epsv("|||30023|", &port));
  EXPECT_EQ(port, 30023);
  EXPECT_FALSE(quarry::ftp_parse_epsv("|||x|", &port));
}

TEST(FtpReplyNumber, NumberAfterTheCode) {
  EXPECT_EQ(quarry::ftp_reply_number("213 1234"), 1234u);
  EXPECT_EQ(quarry::ftp_reply_number("213 "), 0u);
  EXPECT_EQ(quarry::ftp_reply_number("213 99999999999999"), UINT32_MAX);
}

TEST(FtpNames, DownloadNameQuirkAndLastSegment) {
  EXPECT_STREQ(quarry::ftp_download_name("file.bin"), "ile.bin");
  EXPECT_STREQ(quarry::ftp_download_name("/pub/file.bin"), "file.bin");
  EXPECT_STREQ(quarry::ftp_download_name(""), "");
}

TEST(FtpNames, UploadNameIsTheLocalLastSegment) {
  EXPECT_STREQ(quarry::ftp_upload_name("/home/a.cfg"), "a.cfg");
  EXPECT_STREQ(quarry::ftp_upload_name("a.cfg"), "a.cfg");
}

}  // namespace
