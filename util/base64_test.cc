#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "quarry.h"
#include "quarry_internal.h"
#include "tests/support/log_capture.h"
#include "tests/support/row_name.h"

namespace {

using quarry_test::LogCapture;
using quarry_test::RowName;

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

// Encoding |data|'s first |len| bytes (0: up to its first zero byte).
struct EncodeCheck {
  std::string data;
  size_t len;
  const char *text;
};

struct EncodeCase {
  const char *name;
  std::vector<EncodeCheck> checks;
};

const EncodeCase kEncodeCases[] = {
    {"OneByteEndsInTwoPads", {{"a", 1, "YQ=="}}},
    {"Rfc4648Vectors",
     {{"f", 1, "Zg=="},
      {"fo", 2, "Zm8="},
      {"foo", 3, "Zm9v"},
      {"foob", 4, "Zm9vYg=="},
      {"fooba", 5, "Zm9vYmE="},
      {"foobar", 6, "Zm9vYmFy"}}},
    {"ZeroLengthMeansZeroTerminatedText", {{"user:pass", 0, "dXNlcjpwYXNz"}}},
    {"ZeroLengthStopsAtFirstZeroByte", {{std::string("ab\0cd", 5), 0, "YWI="}}},
    {"ExplicitLengthKeepsZeroBytes", {{std::string("\0\x01\x02\xff", 4), 4, "AAEC/w=="}}},
};

class Base64Encoding : public ::testing::TestWithParam<EncodeCase> {};

TEST_P(Base64Encoding, Encodes) {
  for (const EncodeCheck &check : GetParam().checks) {
    SCOPED_TRACE(check.text);
    EXPECT_EQ(encode(check.data, check.len), check.text);
  }
}

INSTANTIATE_TEST_SUITE_P(Texts, Base64Encoding, ::testing::ValuesIn(kEncodeCases), RowName());

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

// One text decoded: the bytes (or "<null>" for no buffer) and the count
// returned.
struct DecodeCheck {
  const char *text;
  std::string bytes;
  size_t count;
};

struct DecodeCase {
  const char *name;
  std::vector<DecodeCheck> checks;
};

// Each check starts from a count the decoder must overwrite.
void expect_decodes(std::string (*decoder)(const char *, size_t *), const DecodeCase &c) {
  for (const DecodeCheck &check : c.checks) {
    SCOPED_TRACE(check.text);
    size_t n = 7;
    EXPECT_EQ(decoder(check.text, &n), check.bytes);
    EXPECT_EQ(n, check.count);
  }
}

const DecodeCase kDecodeCases[] = {
    {"WholeGroupsDecode", {{"YWJj", "abc", 3}, {"Zm9vYmE=", "fooba", 5}, {"Zm9vYg==", "foob", 4}}},
    {"UrlSafeCharactersCountAsZero", {{"-_-_", std::string(3, '\0'), 3}}},
    {"LeadingPadDecodesNothing", {{"=YWJj", "<null>", 0}, {"==", "<null>", 0}}},
    {"NoWholeGroupDecodesNothing", {{"YWJ", "<null>", 0}}},
    {"EmptyInputDecodesNothing", {{"", "<null>", 0}}},
    {"CharactersBeyondWholeGroupsAreIgnored", {{"YWJjZ", "abc", 3}, {"YWJjZGU", "abc", 3}}},
    // Two data characters and one pad measure three: no whole group.
    {"PaddingCountsOnlyWhenItCompletesAGroup", {{"YQ=x", "<null>", 0}}},
    {"TextAfterThePaddingIsIgnored", {{"YQ==YWJj", "a", 1}}},
    // Measured "YWJ" plus two pads: one group, three bytes less two.
    {"AtMostTwoPadsCount", {{"YWJ===", "a", 1}, {"Y===", "<null>", 0}}},
    // "YWJjZA" and one pad measure seven: one group whose three bytes lose
    // one to the padding count.
    {"PaddingTrimsTheLastWholeGroupWhereverItFalls", {{"YWJjZA=", "ab", 2}}},
    // '\n' counts as zero: Y W 0 J -> 011000 010110 000000 001001.
    {"EmbeddedLineBreakShiftsTheGroupsSilently", {{"YW\nJj", std::string("\x61\x60\x09", 3), 3}}},
};

class Base64Decoding : public ::testing::TestWithParam<DecodeCase> {};

TEST_P(Base64Decoding, Decodes) { expect_decodes(decode, GetParam()); }

INSTANTIATE_TEST_SUITE_P(Texts, Base64Decoding, ::testing::ValuesIn(kDecodeCases), RowName());

TEST(Base64Decode, CharacterOutsideAlphabetCountsAsZeroWithoutError) {
  LogCapture capture;
  size_t n = 0;
  // Y=24, W=22, '*'=0, '='=0: 011000 010110 000000 -> 0x61 0x60.
  EXPECT_EQ(decode("YW*=", &n), std::string("\x61\x60", 2));
  EXPECT_EQ(n, 2u);
  EXPECT_EQ(capture.text(), "");
}

const DecodeCase kUrlDecodeCases[] = {
    {"FiveCharactersDecodeNothing", {{"YWJjZ", "<null>", 0}}},
    {"MissingPaddingIsAdded", {{"YQ", "a", 1}, {"YWI", "ab", 2}, {"YWJj", "abc", 3}}},
    {"PresentPaddingIsAccepted", {{"YQ==", "a", 1}}},
    {"UsesTheUrlSafeAlphabet", {{"-_8", "\xfb\xff", 2}}},
    // '+' and '/' are 0 here: 000000 000000 111100 -> 0x00 0x0f.
    {"StandardOnlyCharactersCountAsZero", {{"+/8", std::string("\x00\x0f", 2), 2}}},
    {"EmptyInputDecodesNothing", {{"", "<null>", 0}}},
};

class Base64UrlDecoding : public ::testing::TestWithParam<DecodeCase> {};

TEST_P(Base64UrlDecoding, Decodes) { expect_decodes(url_decode, GetParam()); }

INSTANTIATE_TEST_SUITE_P(Texts, Base64UrlDecoding, ::testing::ValuesIn(kUrlDecodeCases),
                         RowName());

// Each decoder refuses a null text and a null output pointer, logging both.
struct NullArgumentsCase {
  const char *name;
  size_t (*decoder)(const char *, unsigned char **);
  const char *text;
};

const NullArgumentsCase kNullArgumentsCases[] = {
    {"Base64Decode", Curl_base64_decode, "YWJj"},
    {"Base64UrlDecode", Curl_base64url_decode, "YQ"},
};

class DecoderNullArguments : public ::testing::TestWithParam<NullArgumentsCase> {};

TEST_P(DecoderNullArguments, AreRefused) {
  LogCapture capture;
  unsigned char sentinel = 0;
  unsigned char *out = &sentinel;
  EXPECT_EQ(GetParam().decoder(nullptr, &out), 0u);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(GetParam().decoder(GetParam().text, nullptr), 0u);
  EXPECT_EQ(capture.count(2, 3, "Invalid Param!\n"), 2);
}

INSTANTIATE_TEST_SUITE_P(Decoders, DecoderNullArguments, ::testing::ValuesIn(kNullArgumentsCases),
                         RowName());

}  // namespace
