#include <gtest/gtest.h>
#include <pthread.h>
#include <string.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "quarry.h"
#include "quarry_internal.h"
#include "ring/ring.h"

namespace {

using quarry::ring_lookup_name;
using quarry::ring_lookup_prefix;

class RingName : public ::testing::Test {
 protected:
  void SetUp() override {
    dl_exit();
    dl_config_init();
  }
  void TearDown() override {
    dl_exit();
    libq_log_exit();
  }
  static void configure(uint8_t slot, uint8_t ring, const std::string &name) {
    uint8_t entry[DL_RING_ENTRY_SIZE] = {slot, ring};
    memcpy(entry + 2, name.data(), name.size() < 126 ? name.size() : 126);
    ASSERT_EQ(dl_set_option(DL_OPT_RING_ENTRY, entry), 0);
  }
  int lookup(const char *name) {
    ring_ = -1;
    return ring_lookup_name(name, &ring_);
  }
  int32_t ring_ = -1;
};

TEST_F(RingName, PrefixesMatchWithoutRegardToCase) {
  EXPECT_EQ(lookup("ringtone-5"), 1);
  EXPECT_EQ(ring_, 5);
  EXPECT_EQ(lookup("RINGTONE-5"), 1);
  EXPECT_EQ(ring_, 5);
  EXPECT_EQ(lookup("MyMelody5"), 1);
  EXPECT_EQ(ring_, 5);
  EXPECT_EQ(lookup("bellcore-DR3"), 1);
  EXPECT_EQ(ring_, 3);
}

TEST_F(RingName, PrefixWithoutNumberMatchesAndLeavesTheRingAlone) {
  EXPECT_EQ(lookup("Bellcore-dr"), 1);
  EXPECT_EQ(ring_, -1);
  EXPECT_EQ(lookup("MyMelodyX"), 1);
  EXPECT_EQ(ring_, -1);
}

TEST_F(RingName, NumberIsReadAsDecimalWithBlanksAndSign) {
  EXPECT_EQ(lookup("ringtone- 7"), 1);
  EXPECT_EQ(ring_, 7);
  EXPECT_EQ(lookup("ringtone--2"), 1);
  EXPECT_EQ(ring_, -2);
  EXPECT_EQ(lookup("ringtone-012abc"), 1);
  EXPECT_EQ(ring_, 12);
}

TEST_F(RingName, NumberBeyondInt32NamesNoRing) {
  EXPECT_EQ(lookup("ringtone-2147483647"), 1);
  EXPECT_EQ(ring_, INT32_MAX);
  EXPECT_EQ(lookup("ringtone-2147483648"), 1);
  EXPECT_EQ(ring_, -1);
  EXPECT_EQ(lookup("ringtone-99999999999999999999999"), 1);
  EXPECT_EQ(ring_, -1);
}

TEST_F(RingName, PrefixOnlyPartlyPresentDoesNotMatch) {
  EXPECT_EQ(lookup("ringtone"), 0);
  EXPECT_EQ(lookup("Bellcore5"), 0);
  EXPECT_EQ(ring_, -1);
}

TEST_F(RingName, ConfiguredNameGivesItsRingByte) {
  configure(4, 200, "Office");
  EXPECT_EQ(lookup("office"), 1);
  EXPECT_EQ(ring_, 200);
  EXPECT_EQ(lookup("OFFICE"), 1);
  EXPECT_EQ(ring_, 200);
}

TEST_F(RingName, ConfiguredNameMustMatchWhole) {
  configure(0, 3, "Office");
  EXPECT_EQ(lookup("Off"), 0);
  EXPECT_EQ(lookup("Office2"), 0);
  EXPECT_EQ(ring_, -1);
}

TEST_F(RingName, FirstMatchingSlotWins) {
  configure(7, 9, "boss");
  configure(2, 4, "BOSS");
  EXPECT_EQ(lookup("Boss"), 1);
  EXPECT_EQ(ring_, 4);
}

TEST_F(RingName, BuiltInPrefixComesBeforeTheTable) {
  configure(0, 8, "ringtone-1");
  EXPECT_EQ(lookup("ringtone-1"), 1);
  EXPECT_EQ(ring_, 1);
}

TEST_F(RingName, NameFillingTheWholeEntryIsComparedWithinIt) {
  const std::string longest(126, 'a');
  configure(1, 6, longest);  // no terminator inside the entry
  EXPECT_EQ(lookup(longest.c_str()), 1);
  EXPECT_EQ(ring_, 6);
  EXPECT_EQ(lookup((longest + "a").c_str()), 0);
}

TEST_F(RingName, UnusedSlotsMatchNothing) {
  EXPECT_EQ(lookup("anything"), 0);
  EXPECT_EQ(lookup(""), 0);
  EXPECT_EQ(ring_, -1);
}

TEST_F(RingName, PrefixStepAloneIgnoresTheTable) {
  configure(0, 3, "Office");
  int32_t ring = -1;
  EXPECT_EQ(ring_lookup_prefix("Office", &ring), 0);
  EXPECT_EQ(ring, -1);
}

TEST_F(RingName, TableIsReadUnderTheSettingsLock) {
  configure(0, 3, "Office");
  ASSERT_EQ(pthread_mutex_lock(&g_dl_cfg.cfg_lock), 0);
  std::atomic<bool> done{false};
  int32_t ring = -1;
  std::thread looker([&] {
    ring_lookup_name("office", &ring);
    done = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_FALSE(done);
  pthread_mutex_unlock(&g_dl_cfg.cfg_lock);
  looker.join();
  EXPECT_TRUE(done);
  EXPECT_EQ(ring, 3);
}

}  // namespace
