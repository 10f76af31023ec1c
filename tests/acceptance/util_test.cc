// File, text, base64 and formatting helpers.
#include <gtest/gtest.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <memory>
#include <string>

#include "quarry.h"
#include "quarry_internal.h"
#include "tests/acceptance/capture.h"
#include "tests/support/log_capture.h"

namespace {

using acceptance::StdoutCapture;
using quarry_test::file_exists;
using quarry_test::LogCapture;
using quarry_test::read_file;
using quarry_test::TempDir;

constexpr unsigned kCommon = 2;
constexpr int kError = 3;

struct FreeDeleter {
  void operator()(void *p) const { free(p); }
};
using CText = std::unique_ptr<char, FreeDeleter>;
using CBytes = std::unique_ptr<unsigned char, FreeDeleter>;

class Util : public ::testing::Test {
 protected:
  void SetUp() override { capture_.reset(new LogCapture()); }
  void TearDown() override { capture_.reset(); }
  const LogCapture &log() const { return *capture_; }

  TempDir dir_;
  std::unique_ptr<LogCapture> capture_;
};

// --- dl_get_file_md5 ------------------------------------------------------

std::string md5_of(const std::string &path) {
  char hex[40];
  memset(hex, 'X', sizeof(hex));
  if (dl_get_file_md5(path.c_str(), hex) != 0) return "failed";
  if (hex[32] != '\0') return "unterminated";
  return hex;
}

TEST_F(Util, Md5OfEmptyFile) {
  EXPECT_EQ("d41d8cd98f00b204e9800998ecf8427e", md5_of(dir_.write("empty", "")));
}

TEST_F(Util, Md5IsLowerCaseHex) {
  EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", md5_of(dir_.write("abc", "abc")));
}

TEST_F(Util, Md5OfAFileOfManyBlocks) {
  EXPECT_EQ("7707d6ae4e027c70eea2a935c2296f21",
            md5_of(dir_.write("million", std::string(1000000, 'a'))));
}

TEST_F(Util, Md5ReadsBinaryData) {
  std::string data("\0\r\n\x1a\xff", 5);
  data += std::string(1019, '\0') + "tail";  // crosses a 1024-byte block
  std::string once = md5_of(dir_.write("bin", data));
  EXPECT_NE("failed", once);
  EXPECT_NE(md5_of(dir_.write("bin2", data.substr(0, data.size() - 1))), once);
}

TEST_F(Util, Md5OfADirectoryIsTheDigestOfNothing) {
  // The directory opens, its first read fails, and that ends the digest.
  EXPECT_EQ("d41d8cd98f00b204e9800998ecf8427e", md5_of(dir_.path()));
}

TEST_F(Util, Md5WithoutOutputFails) {
  std::string path = dir_.write("abc", "abc");
  EXPECT_EQ(-1, dl_get_file_md5(path.c_str(), nullptr));
  EXPECT_TRUE(log().has(kCommon, kError, "MD5 error\n")) << log().text();
}

TEST_F(Util, Md5OfMissingFileFails) {
  char hex[33] = "unchanged";
  EXPECT_EQ(-1, dl_get_file_md5(dir_.file("missing").c_str(), hex));
  EXPECT_TRUE(log().has(kCommon, kError, "file can't be opened\n")) << log().text();
}

TEST_F(Util, Md5OfNullPathFails) {
  char hex[33];
  EXPECT_EQ(-1, dl_get_file_md5(nullptr, hex));
}

// --- dl_copy_file ---------------------------------------------------------

TEST_F(Util, CopyCopiesAllBytes) {
  std::string data;
  for (int i = 0; i < 40000; ++i) data += static_cast<char>(i * 7);
  std::string src = dir_.write("src", data);
  std::string dst = dir_.file("dst");
  EXPECT_EQ(0, dl_copy_file(src.c_str(), dst.c_str()));
  EXPECT_EQ(data, read_file(dst));
}

TEST_F(Util, CopyTruncatesTheTarget) {
  std::string src = dir_.write("src", "short");
  std::string dst = dir_.write("dst", std::string(20000, 'x'));
  EXPECT_EQ(0, dl_copy_file(src.c_str(), dst.c_str()));
  EXPECT_EQ("short", read_file(dst));
}

TEST_F(Util, CopyOfEmptyFileCreatesEmptyTarget) {
  std::string src = dir_.write("src", "");
  std::string dst = dir_.file("dst");
  EXPECT_EQ(0, dl_copy_file(src.c_str(), dst.c_str()));
  EXPECT_TRUE(file_exists(dst));
  EXPECT_EQ("", read_file(dst));
}

TEST_F(Util, CopyWithNullArgumentFailsSilently) {
  std::string src = dir_.write("src", "x");
  EXPECT_EQ(-1, dl_copy_file(nullptr, dir_.file("dst").c_str()));
  EXPECT_EQ(-1, dl_copy_file(src.c_str(), nullptr));
  EXPECT_EQ("", log().text());
}

TEST_F(Util, CopyFromMissingSourceFails) {
  std::string dst = dir_.file("dst");
  EXPECT_EQ(-1, dl_copy_file(dir_.file("missing").c_str(), dst.c_str()));
  EXPECT_TRUE(log().has(kCommon, kError, "Source file can't open! \n")) << log().text();
  EXPECT_FALSE(file_exists(dst));
}

TEST_F(Util, CopyIntoMissingDirectoryFails) {
  std::string src = dir_.write("src", "x");
  std::string dst = dir_.file("no/such/dir/dst");
  EXPECT_EQ(-1, dl_copy_file(src.c_str(), dst.c_str()));
  EXPECT_TRUE(log().has(kCommon, kError, "Target file can't open! \n")) << log().text();
  EXPECT_FALSE(file_exists(dir_.file("no")));
}

TEST_F(Util, CopyReportsSuccessEvenWhenWritesFail) {
  std::string src = dir_.write("src", std::string(50000, 'x'));
  EXPECT_EQ(0, dl_copy_file(src.c_str(), "/dev/full"));
}

// --- dl_get_file_size, dl_get_file_mtime, dl_path_is_directory ------------

TEST_F(Util, SizeOfAFile) {
  EXPECT_EQ(12345, dl_get_file_size(dir_.write("f", std::string(12345, 'z')).c_str()));
  EXPECT_EQ(0, dl_get_file_size(dir_.write("e", "").c_str()));
}

TEST_F(Util, SizeOfADirectoryIsWhatStatSays) {
  struct stat st;
  ASSERT_EQ(0, stat(dir_.path().c_str(), &st));
  EXPECT_EQ(static_cast<int32_t>(st.st_size), dl_get_file_size(dir_.path().c_str()));
}

TEST_F(Util, SizeIsASigned32BitNumber) {
  std::string path = dir_.write("sparse", "");
  if (sizeof(off_t) < sizeof(int64_t)) GTEST_SKIP() << "32-bit off_t: no file of 4 GiB here";
  const off_t big = static_cast<off_t>((static_cast<int64_t>(1) << 32) + 7);
  if (truncate(path.c_str(), big) != 0) GTEST_SKIP() << "no sparse files here";
  EXPECT_EQ(7, dl_get_file_size(path.c_str()));
}

TEST_F(Util, SizeOfMissingFileIsMinusOne) {
  EXPECT_EQ(-1, dl_get_file_size(dir_.file("missing").c_str()));
  EXPECT_EQ("", log().text());
}

TEST_F(Util, SizeOfNullPathIsLogged) {
  EXPECT_EQ(-1, dl_get_file_size(nullptr));
  EXPECT_TRUE(log().has(kCommon, kError, "NULL path!\n")) << log().text();
}

TEST_F(Util, MtimeOfAFile) {
  std::string path = dir_.write("f", "x");
  utimbuf times = {1000000000, 1234567890};
  ASSERT_EQ(0, utime(path.c_str(), &times));
  time_t mtime = 0;
  EXPECT_EQ(0, dl_get_file_mtime(path.c_str(), &mtime));
  EXPECT_EQ(1234567890, mtime);
}

TEST_F(Util, MtimeFailuresAreSilent) {
  std::string path = dir_.write("f", "x");
  time_t mtime = 42;
  EXPECT_EQ(-1, dl_get_file_mtime(nullptr, &mtime));
  EXPECT_EQ(-1, dl_get_file_mtime("", &mtime));
  EXPECT_EQ(-1, dl_get_file_mtime(path.c_str(), nullptr));
  EXPECT_EQ(-1, dl_get_file_mtime(dir_.file("missing").c_str(), &mtime));
  EXPECT_EQ(42, mtime);
  EXPECT_EQ("", log().text());
}

TEST_F(Util, DirectoryTest) {
  EXPECT_EQ(1, dl_path_is_directory(dir_.path().c_str()));
  EXPECT_EQ(0, dl_path_is_directory(dir_.write("f", "x").c_str()));
  EXPECT_EQ(0, dl_path_is_directory(dir_.file("missing").c_str()));
  EXPECT_EQ("", log().text());
}

TEST_F(Util, DirectoryTestFollowsLinks) {
  std::string link = dir_.file("link");
  ASSERT_EQ(0, symlink(dir_.path().c_str(), link.c_str()));
  EXPECT_EQ(1, dl_path_is_directory(link.c_str()));
}

TEST_F(Util, DirectoryTestOfNullIsLogged) {
  EXPECT_EQ(0, dl_path_is_directory(nullptr));
  EXPECT_TRUE(log().has(kCommon, kError, "NULL path!\n")) << log().text();
}

// --- dl_get_str_cmd -------------------------------------------------------
// The tool is run through the shell with the arguments unquoted, so a
// leading ";" runs a command of the test's choosing after it.

class StrCmd : public Util {
 protected:
  void SetUp() override {
    if (access("/boot/bin/cfgserver", F_OK) == 0) GTEST_SKIP() << "a real tool is installed";
    Util::SetUp();
  }
};

TEST_F(StrCmd, ReadsOneLineAndKeepsItsNewline) {
  char buf[64];
  EXPECT_EQ(0, dl_get_str_cmd(";echo", "hello", buf, sizeof(buf)));
  EXPECT_STREQ("hello\n", buf);
}

TEST_F(StrCmd, ReadsOnlyTheFirstLine) {
  char buf[64];
  EXPECT_EQ(0, dl_get_str_cmd(";echo one;echo", "two", buf, sizeof(buf)));
  EXPECT_STREQ("one\n", buf);
}

TEST_F(StrCmd, ReadsAtMostTheGivenRoom) {
  char buf[64];
  memset(buf, 'Z', sizeof(buf));
  EXPECT_EQ(0, dl_get_str_cmd(";echo", "hello", buf, 4));
  EXPECT_STREQ("hel", buf);
  EXPECT_EQ('Z', buf[4]);
}

TEST_F(StrCmd, SilentCommandLeavesTheBuffer) {
  char buf[16] = "keep";
  EXPECT_EQ(0, dl_get_str_cmd("get", "item", buf, sizeof(buf)));
  EXPECT_STREQ("keep", buf);
}

TEST_F(StrCmd, CommandIsCutAt511Characters) {
  // "/boot/bin/cfgserver ;echo " takes 26 of the 511 characters.
  std::string word(600, 'a');
  char buf[1024];
  EXPECT_EQ(0, dl_get_str_cmd(";echo", word.c_str(), buf, sizeof(buf)));
  EXPECT_EQ(std::string(511 - 26, 'a') + "\n", buf);
}

// --- strdupdelim, str2lower, isfromdialpad --------------------------------

TEST(Text, StrdupdelimCopiesTheRange) {
  const char *text = "hello world";
  CText copy(strdupdelim(text + 6, text + 11));
  ASSERT_NE(nullptr, copy);
  EXPECT_STREQ("world", copy.get());
  CText empty(strdupdelim(text, text));
  ASSERT_NE(nullptr, empty);
  EXPECT_STREQ("", empty.get());
}

TEST(Text, StrdupdelimStopsAtEndEvenInsideText) {
  const char *text = "Content-Type: text";
  CText name(strdupdelim(text, strchr(text, ':')));
  ASSERT_NE(nullptr, name);
  EXPECT_STREQ("Content-Type", name.get());
}

TEST(Text, Str2lowerStopsAtTheStopCharacter) {
  char s[] = "Content-Type: Text";
  str2lower(s, sizeof(s), ':');
  EXPECT_STREQ("content-type: Text", s);
}

TEST(Text, Str2lowerLeavesTheStopCharacterAsItIs) {
  char s[] = "ABXCD";
  str2lower(s, sizeof(s), 'X');
  EXPECT_STREQ("abXCD", s);
}

TEST(Text, Str2lowerStopsAfterNCharacters) {
  char s[] = "ABCDEF";
  str2lower(s, 3, ':');
  EXPECT_STREQ("abcDEF", s);
}

TEST(Text, Str2lowerWithZeroCountDoesNothing) {
  char s[] = "ABC";
  str2lower(s, 0, ':');
  EXPECT_STREQ("ABC", s);
}

TEST(Text, Str2lowerStopsAtTheEndOfText) {
  char s[8] = {'A', 'B', '\0', 'C', 'D', '\0'};
  str2lower(s, sizeof(s), ':');
  EXPECT_STREQ("ab", s);
  EXPECT_EQ('C', s[3]);
}

TEST(Text, DialpadAcceptsDigitsStarAndHash) {
  EXPECT_EQ(1, isfromdialpad("*123#"));
  EXPECT_EQ(1, isfromdialpad("0123456789*#"));
  EXPECT_EQ(1, isfromdialpad(""));
}

TEST(Text, DialpadRefusesAnythingElse) {
  EXPECT_EQ(0, isfromdialpad("12a"));
  EXPECT_EQ(0, isfromdialpad("+49"));
  EXPECT_EQ(0, isfromdialpad(" 1"));
  EXPECT_EQ(0, isfromdialpad("1 "));
}

// --- base64 ---------------------------------------------------------------

std::string encode(const void *src, size_t len, size_t *result = nullptr) {
  char *out = reinterpret_cast<char *>(0x1);
  size_t n = Curl_base64_encode(src, len, &out);
  if (result != nullptr) *result = n;
  CText owned(out);
  return owned ? std::string(owned.get()) : "(null)";
}

TEST(Base64, EncodesTwoBytesWithOnePad) {
  size_t n = 0;
  EXPECT_EQ("YWI=", encode("ab", 2, &n));
  EXPECT_EQ(4u, n);
}

TEST(Base64, EncodesOneByteWithTwoPads) { EXPECT_EQ("YQ==", encode("a", 1)); }

TEST(Base64, EncodesWholeGroupsWithoutPads) {
  size_t n = 0;
  EXPECT_EQ("Zm9vYmFy", encode("foobar", 6, &n));
  EXPECT_EQ(8u, n);
}

TEST(Base64, ZeroLengthMeansTheTextsLength) {
  size_t n = 0;
  EXPECT_EQ("YWJjZA==", encode("abcd", 0, &n));
  EXPECT_EQ(8u, n);
}

TEST(Base64, EmptyTextGivesAllocatedEmptyText) {
  char *out = nullptr;
  EXPECT_EQ(0u, Curl_base64_encode("", 0, &out));
  ASSERT_NE(nullptr, out);
  EXPECT_STREQ("", out);
  free(out);
}

TEST(Base64, EncodesBinaryWithTheStandardAlphabet) {
  const unsigned char zeros[3] = {0, 0, 0};
  EXPECT_EQ("AAAA", encode(zeros, 3));
  const unsigned char high[2] = {0xfb, 0xff};
  EXPECT_EQ("+/8=", encode(high, 2));
}

std::string decode(const char *src, size_t *result, bool url = false) {
  unsigned char *out = reinterpret_cast<unsigned char *>(0x1);
  size_t n = url ? Curl_base64url_decode(src, &out) : Curl_base64_decode(src, &out);
  *result = n;
  CBytes owned(out);
  if (!owned) return "(null)";
  if (owned.get()[n] != '\0') return "(unterminated)";
  return std::string(reinterpret_cast<char *>(owned.get()), n);
}

TEST(Base64, DecodesPaddedGroups) {
  size_t n = 0;
  EXPECT_EQ("ab", decode("YWI=", &n));
  EXPECT_EQ(2u, n);
  EXPECT_EQ("a", decode("YQ==", &n));
  EXPECT_EQ(1u, n);
  EXPECT_EQ("foobar", decode("Zm9vYmFy", &n));
  EXPECT_EQ(6u, n);
}

TEST(Base64, DecodesUnknownCharactersAsZero) {
  size_t n = 0;
  EXPECT_EQ(std::string("a`"), decode("YW*=", &n));
  EXPECT_EQ(2u, n);
}

TEST(Base64, UrlSafeCharactersAreUnknownToTheStandardDecoder) {
  size_t n = 0;
  EXPECT_EQ(std::string(3, '\0'), decode("-_-_", &n));
  EXPECT_EQ(3u, n);
}

TEST(Base64, IgnoresCharactersBeyondWholeGroups) {
  size_t n = 0;
  EXPECT_EQ("abc", decode("YWJjZA", &n));
  EXPECT_EQ(3u, n);
}

TEST(Base64, StopsMeasuringAtTheFirstPad) {
  size_t n = 0;
  EXPECT_EQ("abcd", decode("YWJjZA==", &n));
  EXPECT_EQ("ab", decode("YWI=YWI=", &n));
  EXPECT_EQ(2u, n);
}

TEST(Base64, AtMostTwoPadsCount) {
  size_t n = 0;
  EXPECT_EQ("a", decode("YQ===", &n));
  EXPECT_EQ(1u, n);
}

TEST(Base64, OnePadFollowedByTextLeavesNoWholeGroup) {
  unsigned char *out = nullptr;
  EXPECT_EQ(0u, Curl_base64_decode("YQ=x", &out));
  free(out);
}

TEST(Base64, LeadingPadDecodesNothing) {
  unsigned char *out = nullptr;
  EXPECT_EQ(0u, Curl_base64_decode("=YWI", &out));
  free(out);
}

TEST(Base64, LessThanOneGroupDecodesNothing) {
  unsigned char *out = nullptr;
  EXPECT_EQ(0u, Curl_base64_decode("YWJ", &out));
  free(out);
  out = nullptr;
  EXPECT_EQ(0u, Curl_base64_decode("", &out));
  free(out);
}

TEST(Base64Url, FiveCharactersDecodeNothing) {
  unsigned char *out = nullptr;
  EXPECT_EQ(0u, Curl_base64url_decode("YWJjZ", &out));
  free(out);
}

TEST(Base64Url, PadsTheInputItself) {
  size_t n = 0;
  EXPECT_EQ("ab", decode("YWI", &n, true));
  EXPECT_EQ(2u, n);
  EXPECT_EQ("a", decode("YQ", &n, true));
  EXPECT_EQ(1u, n);
  EXPECT_EQ("abc", decode("YWJj", &n, true));
  EXPECT_EQ("ab", decode("YWI=", &n, true));
}

TEST(Base64Url, CompletesPartialPadding) {
  size_t n = 0;
  EXPECT_EQ("a", decode("YQ=", &n, true));
  EXPECT_EQ(1u, n);
}

TEST(Base64Url, UsesTheUrlSafeAlphabet) {
  size_t n = 0;
  EXPECT_EQ(std::string("\xfb\xff"), decode("-_8", &n, true));
  EXPECT_EQ(2u, n);
}

TEST(Base64Url, StandardOnlyCharactersCountAsZero) {
  size_t n = 0;
  EXPECT_EQ(std::string("\x00\x0f", 2), decode("+/8=", &n, true));
  EXPECT_EQ(2u, n);
}

// --- formatting -----------------------------------------------------------

int call_mvsnprintf(char *buf, size_t n, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int r = curl_mvsnprintf(buf, n, fmt, ap);
  va_end(ap);
  return r;
}

char *call_mvaprintf(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  char *r = curl_mvaprintf(fmt, ap);
  va_end(ap);
  return r;
}

int call_mvsprintf(char *buf, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int r = curl_mvsprintf(buf, fmt, ap);
  va_end(ap);
  return r;
}

int call_mvprintf(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int r = curl_mvprintf(fmt, ap);
  va_end(ap);
  return r;
}

int call_mvfprintf(FILE *f, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int r = curl_mvfprintf(f, fmt, ap);
  va_end(ap);
  return r;
}

TEST(Format, BoundedFormattingCutsAndMeasures) {
  char buf[8];
  EXPECT_EQ(6, curl_msnprintf(buf, 5, "%s", "abcdef"));
  EXPECT_STREQ("abcd", buf);
  EXPECT_EQ(7, call_mvsnprintf(buf, sizeof(buf), "%d-%s", 42, "xyzw"));
  EXPECT_STREQ("42-xyzw", buf);
}

TEST(Format, AllocatingFormattingReturnsAHeapString) {
  CText a(curl_maprintf("%s:%05.1f:%x", "v", 2.5, 255u));
  ASSERT_NE(nullptr, a);
  EXPECT_STREQ("v:002.5:ff", a.get());
  CText b(call_mvaprintf("%c%c", 'o', 'k'));
  ASSERT_NE(nullptr, b);
  EXPECT_STREQ("ok", b.get());
}

TEST(Format, BufferFormatting) {
  char buf[32];
  EXPECT_EQ(5, curl_msprintf(buf, "%3d%s", 7, "ab"));
  EXPECT_STREQ("  7ab", buf);
  EXPECT_EQ(3, call_mvsprintf(buf, "%lu", 123ul));
  EXPECT_STREQ("123", buf);
}

TEST(Format, StreamFormatting) {
  FILE *f = tmpfile();
  ASSERT_NE(nullptr, f);
  EXPECT_EQ(4, curl_mfprintf(f, "a%db", 12));
  EXPECT_EQ(2, call_mvfprintf(f, "%s", "cd"));
  rewind(f);
  char buf[16] = {};
  ASSERT_EQ(6u, fread(buf, 1, sizeof(buf) - 1, f));
  EXPECT_STREQ("a12bcd", buf);
  fclose(f);
}

TEST(Format, StandardOutputFormatting) {
  StdoutCapture out;
  EXPECT_EQ(4, curl_mprintf("x=%d\n", 1));
  EXPECT_EQ(3, call_mvprintf("%s", "end"));
  fflush(stdout);
  EXPECT_EQ("x=1\nend", out.take());
}

}  // namespace
