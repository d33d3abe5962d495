#include "platform/messaging/serving/internal/buffers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

namespace PbUtility {
namespace {

using testing::HasSubstr;

class BuffersTest : public ::testing::Test {
 protected:
  static constexpr uid_t kRoot = 0;
  static constexpr uid_t kOwn = 500;
  static constexpr uid_t kOne = 1001;
  static constexpr uid_t kOther = 1002;
  static constexpr uid_t kThird = 1003;

  // A connection is named by its number; the process is the user's only one unless it is said.
  void set(std::uint64_t connection, uid_t user, std::size_t bytes, pid_t process = 0) {
    Buffers::Account& account = accounts[connection];
    account.connection = connection;
    account.owner = {user, process == 0 ? static_cast<pid_t>(user + 1) : process};
    buffers.set(account, bytes);
  }

  // Closes who has to go; 0 when nobody has.
  std::uint64_t closed() {
    const std::optional<Buffers::Excess> excess = buffers.excess();
    if (!excess) return 0;
    why = excess->limit;
    buffers.set(accounts[excess->connection], 0);
    return excess->connection;
  }

  // All 100, ordinary 60, a user 40, a process 50.
  Buffers buffers{{100, 60, 40, 50}, kOwn};
  std::map<std::uint64_t, Buffers::Account> accounts;
  std::string why;
};

TEST_F(BuffersTest, WithinItsSharesNobodyIsClosed) {
  set(1, kOne, 40);
  set(2, kOther, 20);
  set(3, kRoot, 40);
  EXPECT_EQ(closed(), 0U);
  EXPECT_FALSE(buffers.isPast());
}

TEST_F(BuffersTest, AUserPastItsShareLosesTheConnectionOfItsOwnThatHoldsMost) {
  set(1, kRoot, 40);
  set(2, kOne, 25);
  set(3, kOne, 10);
  set(4, kOther, 15);
  EXPECT_EQ(closed(), 0U);
  set(3, kOne, 16);
  EXPECT_EQ(closed(), 2U);
  EXPECT_EQ(why,
            "no more than 40 bytes of unread answers, unread notices and unfinished frames for one "
            "user, and user 1001 has its share");
  EXPECT_EQ(closed(), 0U);
}

TEST_F(BuffersTest, AsManyAreClosedAsItTakes) {
  for (std::uint64_t i = 1; i <= 4; ++i) set(i, kOne, 10);
  set(5, kOne, 39);
  EXPECT_EQ(closed(), 5U);
  set(6, kOne, 9);
  EXPECT_NE(closed(), 0U);
  EXPECT_EQ(closed(), 0U);
  EXPECT_LE(buffers.shares().ofUser(kOne), 40U);
}

TEST_F(BuffersTest, AProcessHasItsShareWhoeverItIs) {
  set(1, kRoot, 30, 7);
  set(2, kRoot, 40, 8);
  set(3, kRoot, 21, 7);
  EXPECT_EQ(closed(), 1U);
  EXPECT_THAT(why, HasSubstr("for one process, and process 7 has its share"));
}

TEST_F(BuffersTest, OfAllUsersTogetherTheOneWhoHoldsMostLosesItsLargest) {
  set(1, kOne, 20);
  set(2, kOne, 15);
  set(3, kOther, 22);
  EXPECT_EQ(closed(), 0U);
  set(4, kThird, 5);
  EXPECT_EQ(closed(), 1U);
  EXPECT_THAT(why, HasSubstr("no more than 60 "));
  EXPECT_EQ(closed(), 0U);
}

TEST_F(BuffersTest, OrdinaryUsersDoNotTakeWhatIsKeptForRootAndTheServicesOwn) {
  set(1, kOne, 40);
  set(2, kOther, 20);
  set(3, kOwn, 40);
  EXPECT_EQ(closed(), 0U);
  set(4, kRoot, 50);
  EXPECT_EQ(closed(), 4U);
  EXPECT_THAT(why, HasSubstr("in all"));
}

TEST_F(BuffersTest, WhatWouldNotFitIsKnownBeforeItIsThere) {
  set(1, kOne, 30);
  EXPECT_TRUE(buffers.fits(accounts[1], 10));
  EXPECT_FALSE(buffers.fits(accounts[1], 11));
  set(2, kRoot, 30, 7);
  EXPECT_FALSE(buffers.fits(accounts[2], 21));
  // What all share is no reason to give up the one that asks: another may have most of it.
  set(3, kOther, 25);
  EXPECT_TRUE(buffers.fits(accounts[3], 10));
}

TEST_F(BuffersTest, WhatIsGivenBackCountsNoMore) {
  set(1, kOne, 40);
  set(1, kOne, 5);
  set(2, kOne, 35);
  EXPECT_EQ(closed(), 0U);
  set(1, kOne, 0);
  set(2, kOne, 0);
  EXPECT_EQ(buffers.shares().all(), 0U);
}

TEST_F(BuffersTest, WhoWasPastItsShareAndIsNotAnyMoreIsLeftAlone) {
  set(1, kOne, 41);
  set(1, kOne, 40);
  EXPECT_EQ(closed(), 0U);
  EXPECT_FALSE(buffers.isPast());
}

}  // namespace
}  // namespace PbUtility
