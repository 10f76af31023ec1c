#include <gtest/gtest.h>
#include <stdarg.h>
#include <stdlib.h>

#include <string>

#include "quarry.h"
#include "quarry_internal.h"
#include "tests/support/log_capture.h"

namespace {

using quarry_test::LogCapture;
using quarry_test::read_file;
using quarry_test::TempDir;

int via_vsnprintf(char *buf, size_t n, const char *fmt, ...) __attribute__((format(printf, 3, 4)));
int via_vsnprintf(char *buf, size_t n, const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  int r = curl_mvsnprintf(buf, n, fmt, args);
  va_end(args);
  return r;
}

char *via_vaprintf(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
char *via_vaprintf(const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  char *r = curl_mvaprintf(fmt, args);
  va_end(args);
  return r;
}

int via_vsprintf(char *buf, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
int via_vsprintf(char *buf, const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  int r = curl_mvsprintf(buf, fmt, args);
  va_end(args);
  return r;
}

int via_vfprintf(FILE *f, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
int via_vfprintf(FILE *f, const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  int r = curl_mvfprintf(f, fmt, args);
  va_end(args);
  return r;
}

int via_vprintf(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
int via_vprintf(const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  int r = curl_mvprintf(fmt, args);
  va_end(args);
  return r;
}

TEST(Mprintf, SnprintfCutsAndReportsTheFullLength) {
  char buf[8];
  EXPECT_EQ(curl_msnprintf(buf, sizeof(buf), "%s=%08x", "nc", 1u), 11);
  EXPECT_STREQ(buf, "nc=0000");
}

TEST(Mprintf, VsnprintfFormatsLikeLibc) {
  char buf[64];
  EXPECT_EQ(via_vsnprintf(buf, sizeof(buf), "%d|%5.2f|%-3s|%%", -4, 3.14159, "x"), 14);
  EXPECT_STREQ(buf, "-4| 3.14|x  |%");
}

TEST(Mprintf, SnprintfWithZeroRoomMayTakeNull) {
  EXPECT_EQ(curl_msnprintf(nullptr, 0, "%s", "abc"), 3);
}

TEST(Mprintf, AprintfReturnsANewString) {
  char *text = curl_maprintf("%s:%u", "host", 8080u);
  ASSERT_NE(text, nullptr);
  EXPECT_STREQ(text, "host:8080");
  free(text);
  text = via_vaprintf("%c%c==", 'Y', 'Q');
  ASSERT_NE(text, nullptr);
  EXPECT_STREQ(text, "YQ==");
  free(text);
}

TEST(Mprintf, SprintfWritesUnbounded) {
  char buf[32];
  EXPECT_EQ(curl_msprintf(buf, "%02x%02x", 0xabu, 0x1u), 4);
  EXPECT_STREQ(buf, "ab01");
  EXPECT_EQ(via_vsprintf(buf, "[%s]", "v"), 3);
  EXPECT_STREQ(buf, "[v]");
}

TEST(Mprintf, FprintfWritesToTheStream) {
  TempDir dir;
  std::string path = dir.file("out");
  FILE *f = fopen(path.c_str(), "w");
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(curl_mfprintf(f, "%s %d\n", "a", 1), 4);
  EXPECT_EQ(via_vfprintf(f, "%s", "b"), 1);
  fclose(f);
  EXPECT_EQ(read_file(path), "a 1\nb");
}

TEST(Mprintf, PrintfWritesToStandardOutput) {
  testing::internal::CaptureStdout();
  int a = curl_mprintf("x=%d;", 5);
  int b = via_vprintf("y=%s", "z");
  fflush(stdout);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "x=5;y=z");
  EXPECT_EQ(a, 4);
  EXPECT_EQ(b, 3);
}

TEST(Mprintf, NullArgumentsAreRefused) {
  // Through plain pointers, so the compiler's format checks stay out of the
  // way of the null formats.
  int (*snprintf_fn)(char *, size_t, const char *, ...) = curl_msnprintf;
  int (*vsnprintf_fn)(char *, size_t, const char *, va_list) = curl_mvsnprintf;
  char *(*aprintf_fn)(const char *, ...) = curl_maprintf;
  int (*sprintf_fn)(char *, const char *, ...) = curl_msprintf;
  int (*fprintf_fn)(FILE *, const char *, ...) = curl_mfprintf;
  int (*printf_fn)(const char *, ...) = curl_mprintf;
  LogCapture capture;
  char buf[4];
  va_list unused{};
  EXPECT_EQ(snprintf_fn(nullptr, 4, "x"), -1);
  EXPECT_EQ(vsnprintf_fn(buf, sizeof(buf), nullptr, unused), -1);
  EXPECT_EQ(aprintf_fn(nullptr), nullptr);
  EXPECT_EQ(sprintf_fn(nullptr, "x"), -1);
  EXPECT_EQ(sprintf_fn(buf, nullptr), -1);
  EXPECT_EQ(fprintf_fn(nullptr, "x"), -1);
  EXPECT_EQ(printf_fn(nullptr), -1);
  EXPECT_EQ(capture.count(2, 3, "Invalid Param!\n"), 7);
}

}  // namespace
