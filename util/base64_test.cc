#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>

#include "quarry.h"
#include "quarry_internal.h"
#include "tests/support/log_capture.h"

namespace {

using quarry_test::LogCapture;

std::string encode(const std::string &data, size_t len) {
  char *out = nullptr;
  size_t n = Curl_base64_encode(data.data(), len, &out);
  EXPECT_NE(out, nullptr);
  if (out == nullptr) return "<null>";
  std::string text(out);
  EXPECT_EQ(n, text.size());
  free(out);
  return text;
}

// Decoded bytes, or "<null>" when the decoder handed back no buffer.
std::string decode_with(size_t (*fn)(const char *, unsigned char **), const char *src,
                        size_t *result) {
  unsigned char sentinel = 0;
  unsigned char *out = &sentinel;  // the decoder must reset it
  *result = fn(src, &out);
  if (out == nullptr) return "<null>";
  std::string bytes(reinterpret_cast<char *>(out), *result);
  EXPECT_EQ(out[*result], '\0') << "not terminated";
  free(out);
  return bytes;
}

std::string decode(const char *src, size_t *result) {
  return decode_with(Curl_base64_decode, src, result);
}

std::string url_decode(const char *src, size_t *result) {
  return decode_with(Curl_base64url_decode, src, result);
}

TEST(Base64Encode, TwoBytesEndInOnePad) {
  char *out = nullptr;
  EXPECT_EQ(Curl_base64_encode("ab", 2, &out), 4u);
  ASSERT_NE(out, nullptr);
  EXPECT_STREQ(out, "YWI=");
  free(out);
}

TEST(Base64Encode, OneByteEndsInTwoPads) { EXPECT_EQ(encode("a", 1), "YQ=="); }

TEST(Base64Encode, Rfc4648Vectors) {
  EXPECT_EQ(encode("f", 1), "Zg==");
  EXPECT_EQ(encode("fo", 2), "Zm8=");
  EXPECT_EQ(encode("foo", 3), "Zm9v");
  EXPECT_EQ(encode("foob", 4), "Zm9vYg==");
  EXPECT_EQ(encode("fooba", 5), "Zm9vYmE=");
  EXPECT_EQ(encode("foobar", 6), "Zm9vYmFy");
}

TEST(Base64Encode, ZeroLengthMeansZeroTerminatedText) {
  EXPECT_EQ(encode("user:pass", 0), "dXNlcjpwYXNz");
}

TEST(Base64Encode, ZeroLengthStopsAtFirstZeroByte) {
  EXPECT_EQ(encode(std::string("ab\0cd", 5), 0), "YWI=");
}

TEST(Base64Encode, ExplicitLengthKeepsZeroBytes) {
  EXPECT_EQ(encode(std::string("\0\x01\x02\xff", 4), 4), "AAEC/w==");
}

TEST(Base64Encode, EmptyStringGivesAllocatedEmptyText) {
  char *out = nullptr;
  EXPECT_EQ(Curl_base64_encode("", 0, &out), 0u);
  ASSERT_NE(out, nullptr);
  EXPECT_STREQ(out, "");
  free(out);
}

TEST(Base64Encode, InputLongerThanOneEncoderChunkRoundTrips) {
  std::string data(3 * (1u << 20) + 2, '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7 + i / 251);
  char *text = nullptr;
  size_t n = Curl_base64_encode(data.data(), data.size(), &text);
  ASSERT_NE(text, nullptr);
  EXPECT_EQ(n, (data.size() + 2) / 3 * 4);
  EXPECT_EQ(strlen(text), n);
  unsigned char *back = nullptr;
  EXPECT_EQ(Curl_base64_decode(text, &back), data.size());
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(memcmp(back, data.data(), data.size()), 0);
  free(back);
  free(text);
}

TEST(Base64Encode, NullSourceIsRefusedWithNullOutput) {
  LogCapture capture;
  char sentinel = 0;
  char *out = &sentinel;
  EXPECT_EQ(Curl_base64_encode(nullptr, 3, &out), 0u);
  EXPECT_EQ(out, nullptr);
  EXPECT_TRUE(capture.has(2, 3, "Invalid Param!\n"));
}

TEST(Base64Encode, NullOutputPointerIsRefused) {
  LogCapture capture;
  EXPECT_EQ(Curl_base64_encode("ab", 2, nullptr), 0u);
  EXPECT_TRUE(capture.has(2, 3, "Invalid Param!\n"));
}

TEST(Base64Decode, WholeGroupsDecode) {
  size_t n = 0;
  EXPECT_EQ(decode("YWJj", &n), "abc");
  EXPECT_EQ(n, 3u);
  EXPECT_EQ(decode("Zm9vYmE=", &n), "fooba");
  EXPECT_EQ(n, 5u);
  EXPECT_EQ(decode("Zm9vYg==", &n), "foob");
  EXPECT_EQ(n, 4u);
}

TEST(Base64Decode, CharacterOutsideAlphabetCountsAsZeroWithoutError) {
  LogCapture capture;
  size_t n = 0;
  // Y=24, W=22, '*'=0, '='=0: 011000 010110 000000 -> 0x61 0x60.
  EXPECT_EQ(decode("YW*=", &n), std::string("\x61\x60", 2));
  EXPECT_EQ(n, 2u);
  EXPECT_EQ(capture.text(), "");
}

TEST(Base64Decode, UrlSafeCharactersCountAsZero) {
  size_t n = 0;
  EXPECT_EQ(decode("-_-_", &n), std::string(3, '\0'));
  EXPECT_EQ(n, 3u);
}

TEST(Base64Decode, LeadingPadDecodesNothing) {
  size_t n = 7;
  EXPECT_EQ(decode("=YWJj", &n), "<null>");
  EXPECT_EQ(n, 0u);
  EXPECT_EQ(decode("==", &n), "<null>");
  EXPECT_EQ(n, 0u);
}

TEST(Base64Decode, NoWholeGroupDecodesNothing) {
  size_t n = 7;
  EXPECT_EQ(decode("YWJ", &n), "<null>");
  EXPECT_EQ(n, 0u);
}

TEST(Base64Decode, EmptyInputDecodesNothing) {
  size_t n = 7;
  EXPECT_EQ(decode("", &n), "<null>");
  EXPECT_EQ(n, 0u);
}

TEST(Base64Decode, CharactersBeyondWholeGroupsAreIgnored) {
  size_t n = 0;
  EXPECT_EQ(decode("YWJjZ", &n), "abc");
  EXPECT_EQ(n, 3u);
  EXPECT_EQ(decode("YWJjZGU", &n), "abc");
  EXPECT_EQ(n, 3u);
}

TEST(Base64Decode, PaddingCountsOnlyWhenItCompletesAGroup) {
  size_t n = 7;
  // Two data characters and one pad measure three: no whole group.
  EXPECT_EQ(decode("YQ=x", &n), "<null>");
  EXPECT_EQ(n, 0u);
}

TEST(Base64Decode, TextAfterThePaddingIsIgnored) {
  size_t n = 0;
  EXPECT_EQ(decode("YQ==YWJj", &n), "a");
  EXPECT_EQ(n, 1u);
}

TEST(Base64Decode, AtMostTwoPadsCount) {
  size_t n = 0;
  // Measured "YWJ" plus two pads: one group, three bytes less two.
  EXPECT_EQ(decode("YWJ===", &n), "a");
  EXPECT_EQ(n, 1u);
  EXPECT_EQ(decode("Y===", &n), "<null>");
  EXPECT_EQ(n, 0u);
}

TEST(Base64Decode, PaddingTrimsTheLastWholeGroupWhereverItFalls) {
  size_t n = 0;
  // "YWJjZA" and one pad measure seven: one group whose three bytes lose
  // one to the padding count.
  EXPECT_EQ(decode("YWJjZA=", &n), "ab");
  EXPECT_EQ(n, 2u);
}

TEST(Base64Decode, EmbeddedLineBreakShiftsTheGroupsSilently) {
  size_t n = 0;
  // '\n' counts as zero: Y W 0 J -> 011000 010110 000000 001001.
  EXPECT_EQ(decode("YW\nJj", &n), std::string("\x61\x60\x09", 3));
  EXPECT_EQ(n, 3u);
}

TEST(Base64Decode, NullArgumentsAreRefused) {
  LogCapture capture;
  unsigned char sentinel = 0;
  unsigned char *out = &sentinel;
  EXPECT_EQ(Curl_base64_decode(nullptr, &out), 0u);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(Curl_base64_decode("YWJj", nullptr), 0u);
  EXPECT_EQ(capture.count(2, 3, "Invalid Param!\n"), 2);
}

TEST(Base64UrlDecode, FiveCharactersDecodeNothing) {
  size_t n = 7;
  EXPECT_EQ(url_decode("YWJjZ", &n), "<null>");
  EXPECT_EQ(n, 0u);
}

TEST(Base64UrlDecode, MissingPaddingIsAdded) {
  size_t n = 0;
  EXPECT_EQ(url_decode("YQ", &n), "a");
  EXPECT_EQ(n, 1u);
  EXPECT_EQ(url_decode("YWI", &n), "ab");
  EXPECT_EQ(n, 2u);
  EXPECT_EQ(url_decode("YWJj", &n), "abc");
  EXPECT_EQ(n, 3u);
}

TEST(Base64UrlDecode, PresentPaddingIsAccepted) {
  size_t n = 0;
  EXPECT_EQ(url_decode("YQ==", &n), "a");
  EXPECT_EQ(n, 1u);
}

TEST(Base64UrlDecode, UsesTheUrlSafeAlphabet) {
  size_t n = 0;
  EXPECT_EQ(url_decode("-_8", &n), "\xfb\xff");
  EXPECT_EQ(n, 2u);
}

TEST(Base64UrlDecode, StandardOnlyCharactersCountAsZero) {
  size_t n = 0;
  // '+' and '/' are 0 here: 000000 000000 111100 -> 0x00 0x0f.
  EXPECT_EQ(url_decode("+/8", &n), std::string("\x00\x0f", 2));
  EXPECT_EQ(n, 2u);
}

TEST(Base64UrlDecode, EmptyInputDecodesNothing) {
  size_t n = 7;
  EXPECT_EQ(url_decode("", &n), "<null>");
  EXPECT_EQ(n, 0u);
}

TEST(Base64UrlDecode, NullArgumentsAreRefused) {
  LogCapture capture;
  unsigned char sentinel = 0;
  unsigned char *out = &sentinel;
  EXPECT_EQ(Curl_base64url_decode(nullptr, &out), 0u);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(Curl_base64url_decode("YQ", nullptr), 0u);
  EXPECT_EQ(capture.count(2, 3, "Invalid Param!\n"), 2);
}

}  // namespace
