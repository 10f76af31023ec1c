#include <gtest/gtest.h>
#include <string.h>

#include <string>

#include "quarry.h"
#include "ring/ring.h"

namespace {

TEST(RingTables, PrefixListIsTheThreeBuiltInsThenNull) {
  EXPECT_STREQ(ring_tab[0], "ringtone-");
  EXPECT_STREQ(ring_tab[1], "Bellcore-dr");
  EXPECT_STREQ(ring_tab[2], "MyMelody");
  EXPECT_EQ(ring_tab[3], nullptr);
}

TEST(RingTables, WaveFormatIsMuLawMono8kHzLittleEndian) {
  const uint8_t expected[26] = {'W', 'A', 'V', 'E', 'f', 'm', 't', ' ', 18, 0, 0, 0, 7,
                                0,   1,   0,   0x40, 0x1f, 0, 0, 0x40, 0x1f, 0, 0, 1, 0};
  EXPECT_EQ(sizeof(wave_fmt), 26u);
  EXPECT_EQ(memcmp(wave_fmt, expected, sizeof(expected)), 0);
}

std::string head_with(const std::string &tag) {
  std::string head = tag + std::string("\x24\x00\x00\x00", 4);
  head.append(reinterpret_cast<const char *>(wave_fmt), sizeof(wave_fmt));
  return head;
}

bool ok(const std::string &head) {
  return quarry::ring_wave_head_ok(reinterpret_cast<const uint8_t *>(head.data()), head.size());
}

TEST(RingTables, HeadCheckLooksAtOffsets8To33Only) {
  EXPECT_TRUE(ok(head_with("RIFF")));
  EXPECT_TRUE(ok(head_with("RIFX")));
  EXPECT_TRUE(ok(head_with("abcd") + "anything after"));
}

TEST(RingTables, HeadCheckRefusesAnyDifferentByte) {
  const std::string good = head_with("RIFF");
  for (size_t at = 8; at < 34; ++at) {
    std::string bad = good;
    bad[at] = static_cast<char>(bad[at] ^ 0x01);
    EXPECT_FALSE(ok(bad)) << "offset " << at;
  }
}

TEST(RingTables, HeadShorterThan34BytesIsRefused) {
  const std::string good = head_with("RIFF");
  EXPECT_FALSE(ok(good.substr(0, 33)));
  EXPECT_FALSE(ok(""));
  EXPECT_FALSE(quarry::ring_wave_head_ok(nullptr, 34));
}

TEST(RingTables, CachePathIsTheUrlsMd5InLowerCaseHex) {
  char path[quarry::kRingPathRoom];
  ASSERT_TRUE(quarry::ring_cache_path("abc", path));
  EXPECT_STREQ(path, "/tmp/900150983cd24fb0d6963f7d28e17f72.wav");
  ASSERT_TRUE(quarry::ring_cache_path("", path));
  EXPECT_STREQ(path, "/tmp/d41d8cd98f00b204e9800998ecf8427e.wav");
}

}  // namespace
