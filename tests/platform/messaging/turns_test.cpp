#include "platform/messaging/serving/internal/turns.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <string>

#include "platform/messaging/serving/internal/slice.h"

namespace PbUtility {
namespace {

class TurnsTest : public ::testing::Test {
 protected:
  static constexpr uid_t kOne = 1001;
  static constexpr uid_t kOther = 1002;

  void add(uid_t user, std::uint64_t first, std::uint64_t last) {
    for (std::uint64_t key = first; key <= last; ++key) turns.add(user, {key, nullptr});
  }

  // One round, of at most so many items for each user: "1001: 1 2 3; 1002: 9; ".
  std::string round(int itemsPerTurn) {
    std::string served;
    for (std::size_t left = turns.users(); left > 0; --left) served += turn(itemsPerTurn) + "; ";
    return served;
  }

  std::string turn(int items) {
    turns.begin();
    std::string served;
    Turns::Item item;
    for (; items > 0 && turns.next(item); --items) {
      served += (served.empty() ? "" : " ") + std::to_string(item.connection);
      if (again) turns.add(kOne, item);
    }
    turns.end();
    return served;
  }

  Turns turns;
  bool again = false;
};

TEST_F(TurnsTest, NobodyWaitsAtFirst) {
  EXPECT_TRUE(turns.isEmpty());
  EXPECT_EQ(turns.users(), 0U);
}

TEST_F(TurnsTest, AUserIsServedInTheOrderInWhichItsConnectionsBecameReady) {
  add(kOne, 1, 5);
  EXPECT_EQ(round(9), "1 2 3 4 5; ");
  EXPECT_TRUE(turns.isEmpty());
}

TEST_F(TurnsTest, AUserWithOneConnectionWaitsForOneTurnOfAUserWithMany) {
  add(kOne, 1, 700);
  add(kOther, 1000, 1000);
  EXPECT_EQ(round(3), "1 2 3; 1000; ");
  EXPECT_EQ(round(3), "4 5 6; ");
}

TEST_F(TurnsTest, WhoComesDuringARoundIsServedInTheNextAndBeforeWhoWasServedInThis) {
  add(kOne, 1, 9);
  EXPECT_EQ(turn(2), "1 2");
  add(kOther, 100, 101);
  EXPECT_EQ(round(1), "3; 100; ");
  EXPECT_EQ(round(1), "4; 101; ");
}

TEST_F(TurnsTest, WhatIsAddedInItsOwnTurnStandsBehindTheRestOfItsUser) {
  add(kOne, 1, 3);
  again = true;
  EXPECT_EQ(round(2), "1 2; ");
  EXPECT_EQ(round(4), "3 1 2 3; ");
}

TEST_F(TurnsTest, AUserWhoseLineWasEmptyIsServedAgain) {
  add(kOne, 1, 1);
  EXPECT_EQ(round(5), "1; ");
  add(kOne, 2, 2);
  EXPECT_EQ(turns.users(), 1U);
  EXPECT_EQ(round(5), "2; ");
}

TEST_F(TurnsTest, ManyUsersComeAndGo) {
  for (uid_t user = 0; user < 10 * Turns::kIdleUsers; ++user) {
    add(user, user + 1, user + 1);
    EXPECT_EQ(round(1), std::to_string(user + 1) + "; ");
  }
  EXPECT_TRUE(turns.isEmpty());
}

TEST_F(TurnsTest, ATaskIsAnItemToo) {
  bool ran = false;
  turns.add(kOne, {0, [&] { ran = true; }});
  turns.begin();
  Turns::Item item;
  ASSERT_TRUE(turns.next(item));
  ASSERT_TRUE(item.task);
  item.task();
  EXPECT_TRUE(ran);
}

TEST(SliceTest, EndsAfterItsFrames) {
  Slice slice(3, std::chrono::hours(1));
  slice.begin();
  for (int i = 0; i < 3; ++i) {
    EXPECT_FALSE(slice.isOver());
    slice.take();
  }
  EXPECT_TRUE(slice.isOver());
}

TEST(SliceTest, EndsAfterItsTimeButNotBeforeItsFirstFrame) {
  Slice slice(100, std::chrono::microseconds(0));
  slice.begin();
  EXPECT_FALSE(slice.isOver());
  slice.take();
  EXPECT_TRUE(slice.isOver());
}

TEST(SliceTest, HasNoTimeUntilSomebodyBeginsIt) {
  Slice slice(2, std::chrono::microseconds(0));
  slice.take();
  EXPECT_FALSE(slice.isOver());
  slice.take();
  EXPECT_TRUE(slice.isOver());
}

// The allocator of a sanitizer does not tell what is taken of it.
#if !defined(APPCONFIG_SANITIZE_ADDRESS) && !defined(APPCONFIG_SANITIZE_THREAD)
std::size_t allocatedBytes() {
  const struct mallinfo2 all = mallinfo2();
  return all.uordblks + all.hblkhd;
}

TEST_F(TurnsTest, WhoNeverHasNothingWaitingTakesNoMoreMemoryWithTime) {
  add(kOne, 1, 3);
  again = true;
  turn(100);
  const std::size_t before = allocatedBytes();
  turn(100'000);
  // Items of so many turns would be 4 MB.
  EXPECT_LT(allocatedBytes(), before + 100'000);
}
#endif

}  // namespace
}  // namespace PbUtility
