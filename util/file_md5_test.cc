#include <gtest/gtest.h>
#include <string.h>

#include <string>

#include "quarry.h"
#include "quarry_internal.h"
#include "tests/support/log_capture.h"

namespace {

using quarry_test::LogCapture;
using quarry_test::TempDir;

std::string md5_of_file(const std::string &path) {
  char hex[33];
  memset(hex, 'z', sizeof(hex));
  EXPECT_EQ(dl_get_file_md5(path.c_str(), hex), 0);
  return std::string(hex, strnlen(hex, sizeof(hex)));
}

TEST(FileMd5, EmptyFileGivesDigestOfNoData) {
  TempDir dir;
  EXPECT_EQ(md5_of_file(dir.write("f", "")), "d41d8cd98f00b204e9800998ecf8427e");
}

TEST(FileMd5, Rfc1321Vector) {
  TempDir dir;
  EXPECT_EQ(md5_of_file(dir.write("f", "message digest")), "f96b697d7cb7938d525a2f31aaf161d0");
}

TEST(FileMd5, FileLongerThanOneReadBlock) {
  TempDir dir;
  // 1920 bytes: one whole 1024-byte read and a short one.
  std::string data;
  for (int i = 0; i < 192; ++i) data += "1234567890";
  EXPECT_EQ(md5_of_file(dir.write("f", data)), "cd0252366365aa03a5efc583224d8328");
}

TEST(FileMd5, Rfc1321EightyDigitVector) {
  TempDir dir;
  std::string line;
  for (int i = 0; i < 8; ++i) line += "1234567890";
  EXPECT_EQ(md5_of_file(dir.write("f", line)), "57edf4a22be3c955ac49da2e2107b67a");
}

TEST(FileMd5, BinaryBytesAreHashedAsTheyAre) {
  TempDir dir;
  // MD5 of the three bytes 00 0d 0a: a text-mode read would change them.
  EXPECT_EQ(md5_of_file(dir.write("f", std::string("\0\r\n", 3))),
            "692c8022360661692872fdc730517229");
}

TEST(FileMd5, ReadErrorEndsTheDigestSilently) {
  TempDir dir;
  LogCapture capture;
  // A directory opens but cannot be read: the digest is that of no data.
  EXPECT_EQ(md5_of_file(dir.path()), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(capture.text(), "");
}

TEST(FileMd5, MissingFileIsLogged) {
  TempDir dir;
  LogCapture capture;
  char hex[33] = "untouched";
  EXPECT_EQ(dl_get_file_md5(dir.file("missing").c_str(), hex), -1);
  EXPECT_STREQ(hex, "untouched");
  EXPECT_TRUE(capture.has(2, 3, "file can't be opened\n"));
}

TEST(FileMd5, NullOutputIsLogged) {
  TempDir dir;
  LogCapture capture;
  EXPECT_EQ(dl_get_file_md5(dir.write("f", "x").c_str(), nullptr), -1);
  EXPECT_TRUE(capture.has(2, 3, "MD5 error\n"));
}

TEST(FileMd5, NullPathIsLoggedAsUnopenable) {
  LogCapture capture;
  char hex[33];
  EXPECT_EQ(dl_get_file_md5(nullptr, hex), -1);
  EXPECT_TRUE(capture.has(2, 3, "file can't be opened\n"));
}

}  // namespace
