#include "platform/messaging/serving/shares.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>

namespace PbUtility {
namespace {

using testing::HasSubstr;

constexpr uid_t kOwn = 990;

class SharesTest : public testing::Test {
 protected:
  // How many units of one each are taken until one is refused.
  std::size_t take(Owner owner, std::string* why = nullptr) {
    std::size_t taken = 0;
    for (;; ++taken) {
      const Base::Status<> room = shares_.room(owner);
      if (why != nullptr) *why = room.text;
      if (!room.ok()) return taken;
      shares_.add(owner);
    }
  }

  Shares shares_{"things", {10, 7, 4, 3}, kOwn};
};

TEST_F(SharesTest, AProcessHasItsShareWhoeverItIs) {
  std::string why;
  EXPECT_EQ(take({1000, 1}, &why), 3U);
  EXPECT_EQ(why, "no more than 3 things for one process, and process 1 has its share");
  EXPECT_EQ(take({0, 2}), 3U);
}

TEST_F(SharesTest, AUserHasItsShareHoweverManyProcesses) {
  EXPECT_EQ(take({1000, 1}), 3U);
  std::string why;
  EXPECT_EQ(take({1000, 2}, &why), 1U);
  EXPECT_EQ(why, "no more than 4 things for one user, and user 1000 has its share");
  EXPECT_EQ(take({1000, 3}), 0U);
}

TEST_F(SharesTest, OrdinaryUsersTogetherLeaveTheReserve) {
  EXPECT_EQ(take({1000, 1}) + take({1000, 2}), 4U);
  std::string why;
  EXPECT_EQ(take({1001, 3}, &why), 3U);
  EXPECT_EQ(take({1002, 4}, &why), 0U);
  EXPECT_THAT(why, HasSubstr("no more than 7 things for all users together"));
  EXPECT_EQ(take({0, 5}), 3U) << "kept for root";
  EXPECT_EQ(take({kOwn, 6}, &why), 0U);
  EXPECT_EQ(why, "no more than 10 things in all, and they are in use");
}

TEST_F(SharesTest, RootAndTheServicesOwnUserHaveNoShareOfAUser) {
  EXPECT_EQ(take({kOwn, 1}) + take({kOwn, 2}), 6U);
  EXPECT_FALSE(shares_.isOrdinary({0, 1}));
  EXPECT_FALSE(shares_.isOrdinary({kOwn, 1}));
  EXPECT_TRUE(shares_.isOrdinary({1000, 1}));
}

TEST_F(SharesTest, WhatIsGivenBackMayBeTakenAgain) {
  EXPECT_EQ(take({1000, 1}), 3U);
  shares_.remove({1000, 1}, 2);
  EXPECT_EQ(shares_.all(), 1U);
  EXPECT_EQ(shares_.ofUser(1000), 1U);
  EXPECT_EQ(shares_.ofProcess(1), 1U);
  EXPECT_EQ(take({1000, 1}), 2U);
  EXPECT_EQ(take({1001, 2}) + take({1001, 3}), 4U)
      << "the rest of what all ordinary users may have";
}

TEST_F(SharesTest, AmountsAreHeldAgainstEachLimitAsAWhole) {
  EXPECT_TRUE(shares_.room({1000, 1}, 3).ok());
  EXPECT_FALSE(shares_.room({1000, 1}, 4).ok());
  EXPECT_FALSE(shares_.room({1000, 1}, ~std::size_t{0}).ok()) << "no overflow";
  shares_.add({0, 2}, 3);
  shares_.add({0, 3}, 3);
  shares_.add({0, 4}, 3);
  EXPECT_TRUE(shares_.room({0, 5}, 1).ok());
  EXPECT_FALSE(shares_.room({0, 5}, 2).ok());
}

// Numbers of processes come round only after millions: what is kept for each that is gone would add up.
TEST_F(SharesTest, ProcessesThatHaveGivenEverythingBackTakeNoMemory) {
  const auto comeAndGo = [this](pid_t first, int count) {
    for (pid_t pid = first; pid < first + count; ++pid) {
      shares_.add({1000, pid}, 1);
      shares_.remove({1000, pid}, 1);
    }
  };
  comeAndGo(1, 1000);
  const std::size_t before = ::mallinfo2().uordblks;
  comeAndGo(10'000, 20'000);
  EXPECT_LT(::mallinfo2().uordblks, before + 100'000);
}

}  // namespace
}  // namespace PbUtility
