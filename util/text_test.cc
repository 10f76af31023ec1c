#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>

#include "quarry.h"
#include "quarry_internal.h"
#include "tests/support/log_capture.h"

namespace {

using quarry_test::LogCapture;

std::string lowered(std::string text, size_t n, int stop) {
  str2lower(&text[0], n, stop);
  return text;
}

TEST(Strdupdelim, CopiesTheRangeWithoutItsEnd) {
  const char text[] = "Host: example";
  char *copy = strdupdelim(text, text + 4);
  ASSERT_NE(copy, nullptr);
  EXPECT_STREQ(copy, "Host");
  free(copy);
}

TEST(Strdupdelim, EmptyRangeGivesEmptyString) {
  const char text[] = "abc";
  char *copy = strdupdelim(text + 1, text + 1);
  ASSERT_NE(copy, nullptr);
  EXPECT_STREQ(copy, "");
  free(copy);
}

TEST(Strdupdelim, CopiesZeroBytesInsideTheRange) {
  const char text[] = {'a', '\0', 'b'};
  char *copy = strdupdelim(text, text + 3);
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(std::string(copy, 4), std::string("a\0b\0", 4));
  free(copy);
}

TEST(Strdupdelim, NullOrReversedRangeIsRefused) {
  LogCapture capture;
  const char text[] = "abc";
  EXPECT_EQ(strdupdelim(nullptr, text), nullptr);
  EXPECT_EQ(strdupdelim(text, nullptr), nullptr);
  EXPECT_EQ(strdupdelim(text + 2, text), nullptr);
  EXPECT_EQ(capture.count(2, 3, "Invalid Param!\n"), 3);
}

TEST(Str2lower, StopsAtTheStopCharacter) {
  EXPECT_EQ(lowered("Content-Type: Text", 100, ':'), "content-type: Text");
}

TEST(Str2lower, StopsAfterNCharacters) { EXPECT_EQ(lowered("ABCDEF", 3, ':'), "abcDEF"); }

TEST(Str2lower, ZeroCountDoesNothing) { EXPECT_EQ(lowered("ABC", 0, ':'), "ABC"); }

TEST(Str2lower, StopsAtTheZeroByte) {
  std::string text("AB\0CD", 5);
  str2lower(&text[0], text.size(), ':');
  EXPECT_EQ(text, std::string("ab\0CD", 5));
}

TEST(Str2lower, LowersOnlyLetters) { EXPECT_EQ(lowered("X-1_Y", 10, 0), "x-1_y"); }

TEST(Str2lower, NullStringIsRefused) {
  LogCapture capture;
  str2lower(nullptr, 5, ':');
  EXPECT_TRUE(capture.has(2, 3, "Invalid Param!\n"));
}

TEST(Isfromdialpad, DigitsStarAndHashPass) { EXPECT_EQ(isfromdialpad("*123#"), 1); }

TEST(Isfromdialpad, LetterFails) { EXPECT_EQ(isfromdialpad("12a"), 0); }

TEST(Isfromdialpad, EmptyStringPasses) { EXPECT_EQ(isfromdialpad(""), 1); }

TEST(Isfromdialpad, OtherPunctuationFails) {
  EXPECT_EQ(isfromdialpad("12+3"), 0);
  EXPECT_EQ(isfromdialpad(" 1"), 0);
  EXPECT_EQ(isfromdialpad("\xb9"), 0);
}

TEST(Isfromdialpad, NullIsRefused) {
  LogCapture capture;
  EXPECT_EQ(isfromdialpad(nullptr), 0);
  EXPECT_TRUE(capture.has(2, 3, "Invalid Param!\n"));
}

}  // namespace
