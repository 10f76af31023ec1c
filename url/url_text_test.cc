#include <gtest/gtest.h>
#include <limits.h>

#include <string>

#include "quarry.h"
#include "quarry_internal.h"
#include "tests/support/log_capture.h"

namespace {

using quarry_test::LogCapture;

std::string cleaned(const char *src) {
  char dst[128] = {};
  url_remove_special_char(dst, sizeof(dst), src);
  return dst;
}

TEST(RemoveSpecialChar, DropsLeadingSpacesAndEveryTabAndLineBreak) {
  EXPECT_EQ(cleaned("   http://host/a\tb"), "http://host/ab");
  EXPECT_EQ(cleaned("a\r\nb\tc"), "abc");
}

TEST(RemoveSpecialChar, DropsTrailingSpaces) { EXPECT_EQ(cleaned("http://h/x   "), "http://h/x"); }

TEST(RemoveSpecialChar, TrailingSpacesBeforeALineBreakGoToo) {
  EXPECT_EQ(cleaned("http://h/x \r\n"), "http://h/x");
}

TEST(RemoveSpecialChar, KeepsInnerSpaces) { EXPECT_EQ(cleaned("http://h/a b"), "http://h/a b"); }

TEST(RemoveSpecialChar, SpacesAfterALeadingTabAreKept) {
  // Only spaces at the very start are skipped; the TAB goes later.
  EXPECT_EQ(cleaned("\t  x"), "  x");
}

TEST(RemoveSpecialChar, OnlySpacesGiveEmptyText) { EXPECT_EQ(cleaned("    "), ""); }

TEST(RemoveSpecialChar, ExactRoomIsEnough) {
  char dst[4] = {'z', 'z', 'z', 'z'};
  url_remove_special_char(dst, sizeof(dst), "abc");
  EXPECT_STREQ(dst, "abc");
}

TEST(RemoveSpecialChar, TooLittleRoomWritesNothing) {
  char dst[4] = {};
  url_remove_special_char(dst, 3, "abc");
  EXPECT_EQ(std::string(dst, 4), std::string(4, '\0'));
}

TEST(RemoveSpecialChar, RoomIsMeasuredBeforeCleaning) {
  // Three characters survive, but the source is four long.
  char dst[4] = {};
  url_remove_special_char(dst, sizeof(dst), " abc");
  EXPECT_EQ(std::string(dst, 4), std::string(4, '\0'));
}

TEST(RemoveSpecialChar, NullArgumentsDoNothing) {
  char dst[4] = {'z', 0, 0, 0};
  url_remove_special_char(dst, sizeof(dst), nullptr);
  EXPECT_EQ(dst[0], 'z');
  url_remove_special_char(nullptr, 10, "abc");
}

TEST(SchemeDefaultPort, FollowsTheHttpTable) {
  EXPECT_EQ(scheme_default_port(0), 80);
  EXPECT_EQ(scheme_default_port(1), 443);
  EXPECT_EQ(scheme_default_port(2), -1);
}

TEST(SchemeDefaultPort, IndexPastTheTableGivesTheEndRowValue) {
  LogCapture capture;
  EXPECT_EQ(scheme_default_port(3), -1);
  EXPECT_EQ(scheme_default_port(UINT_MAX), -1);
  EXPECT_EQ(capture.count(2, 3, "Invalid Param!\n"), 2);
}

}  // namespace
