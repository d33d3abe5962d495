// What many registrations cost: whose share they take, and that nobody waits while they are erased.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>

#include "configsrv/subscriptions/subscriptions.h"
#include "platform/schema/config_if.pb.h"

namespace ConfigSrv {
namespace {

using ConfigIF::CALLBACK_OPTIONS_CHANGED;
using ConfigIF::CALLBACK_VALUE_CHANGED;
using PbUtility::Owner;
using testing::HasSubstr;

constexpr uid_t kServiceUser = 990;
constexpr PbUtility::PeerId kHolder = 1;
constexpr PbUtility::PeerId kOtherHolder = 2;
constexpr Owner kRoot{0, 10};
constexpr Owner kUser{1000, 20};
constexpr Owner kOtherUser{1001, 30};

Registration valuesOf(const std::string& name, const std::string& client = "client") {
  return {name, CALLBACK_VALUE_CHANGED, "link", client, AppConfig::eRoleUser};
}

// Subscriptions whose slices are run by hand.
class SubscriptionSharesTest : public testing::Test {
 protected:
  static constexpr std::size_t kOne = SubscriptionLimits::kRegistrationBytes + 4;
  static constexpr std::size_t kCaller = SubscriptionLimits::kCallerBytes + 10;

  // Bytes for so many registrations of names of four bytes, and for one caller.
  static constexpr std::size_t bytesFor(std::size_t registrations) {
    return kCaller + registrations * kOne;
  }
  static std::string nthName(std::size_t n) { return std::to_string(1000 + n); }

  // How many the owner can make before it is refused.
  std::size_t fill(PbUtility::PeerId peer, Owner owner) {
    for (std::size_t n = 0;; ++n) {
      const Base::Status<> added = subscriptions_->add(peer, owner, valuesOf(nthName(n)));
      refusal_ = added.text;
      if (!added.ok()) return n;
    }
  }
  void add(PbUtility::PeerId peer, std::size_t count) {
    for (std::size_t n = 0; n < count; ++n)
      ASSERT_TRUE(subscriptions_->add(peer, kUser, valuesOf(nthName(n))).ok());
  }
  bool isTold(PbUtility::PeerId peer, const std::string& name) const {
    for (const Subscriber& told : subscriptions_->covering(name, CALLBACK_VALUE_CHANGED)) {
      if (told.peer == peer) return true;
    }
    return false;
  }
  // Runs one slice, if there is one to run.
  bool runSlice() {
    if (slices_.empty()) return false;
    const std::function<void()> slice = std::move(slices_.front());
    slices_.pop_front();
    slice();
    return true;
  }

  SubscriptionLimits limits_;
  std::deque<std::function<void()>> slices_;
  std::unique_ptr<Subscriptions> subscriptions_ = std::make_unique<Subscriptions>(
      limits_, kServiceUser,
      [this](uid_t, std::function<void()> task) { slices_.push_back(std::move(task)); });
  std::string refusal_;
};

class SubscriptionLimitsTest : public SubscriptionSharesTest {
 protected:
  SubscriptionLimitsTest() {
    limits_.bytes = {bytesFor(10) + bytesFor(10), bytesFor(6), bytesFor(4), bytesFor(8)};
    subscriptions_ = std::make_unique<Subscriptions>(limits_, kServiceUser);
  }
};

TEST_F(SubscriptionLimitsTest, AUserHasItsShareAndIsToldTheLimitAndWhoseItIs) {
  EXPECT_EQ(fill(kHolder, kUser), 4U);
  EXPECT_THAT(refusal_, HasSubstr("no more than " + std::to_string(bytesFor(4)) +
                                  " bytes of registrations for one user, and user 1000 has"));
}

TEST_F(SubscriptionLimitsTest, AllUsersTogetherLeaveRootItsPart) {
  fill(kHolder, kUser);
  fill(kOtherHolder, kOtherUser);
  EXPECT_THAT(refusal_, HasSubstr("for all users together"));
  EXPECT_EQ(fill(3, kRoot), 8U);
  EXPECT_THAT(refusal_, HasSubstr("process 10 has its share"));
  EXPECT_TRUE(subscriptions_->add(4, {kServiceUser, 40}, valuesOf("a")).ok());
}

TEST_F(SubscriptionLimitsTest, ARegistrationMadeAgainTakesNothingOfTheShare) {
  EXPECT_EQ(fill(kHolder, kUser), 4U);
  EXPECT_TRUE(subscriptions_->add(kHolder, kUser, valuesOf(nthName(0))).ok());
  EXPECT_EQ(subscriptions_->bytes().all(), bytesFor(4));
}

TEST_F(SubscriptionLimitsTest, WhatIsWithdrawnMakesRoomToTheByte) {
  fill(kHolder, kUser);
  ASSERT_TRUE(subscriptions_->remove(kHolder, nthName(1), CALLBACK_VALUE_CHANGED, "link"));
  EXPECT_TRUE(subscriptions_->add(kHolder, kUser, valuesOf("5678")).ok());
  subscriptions_->removeAll(kHolder, "client");
  EXPECT_EQ(subscriptions_->bytes().all(), 0U);
  EXPECT_EQ(fill(kHolder, kUser), 4U);
}

TEST_F(SubscriptionLimitsTest, LongNamesAndTextsCountByTheirLength) {
  const std::string name(2 * kOne, 'n');
  EXPECT_TRUE(subscriptions_->add(kHolder, kUser, valuesOf(name)).ok());
  EXPECT_EQ(subscriptions_->bytes().all(),
            SubscriptionLimits::kRegistrationBytes + name.size() + kCaller);
  EXPECT_THAT(subscriptions_->add(kHolder, kUser, valuesOf(name + "2")).text,
              HasSubstr("user 1000"));
}

TEST_F(SubscriptionSharesTest, APeerThatIsGoneIsToldNothingFromThatMomentOn) {
  add(kHolder, 3);
  subscriptions_->forget(kHolder);
  EXPECT_FALSE(isTold(kHolder, nthName(1)));
  EXPECT_FALSE(subscriptions_->anyCovering(nthName(1), CALLBACK_VALUE_CHANGED));
  EXPECT_THAT(subscriptions_->names(kHolder, CALLBACK_VALUE_CHANGED), testing::IsEmpty());
  EXPECT_FALSE(subscriptions_->contains(kHolder, valuesOf(nthName(1))));
}

TEST_F(SubscriptionSharesTest, WhatAPeerLeavesIsErasedInSlicesAndCountsAsItsOwnersUntilThen) {
  constexpr std::size_t kMany = 2 * SubscriptionLimits::kErasedAtOnce + 1;
  add(kHolder, kMany);
  subscriptions_->forget(kHolder);
  EXPECT_EQ(subscriptions_->bytes().ofUser(kUser.uid), bytesFor(kMany));
  std::size_t before = subscriptions_->count();
  int slices = 0;
  for (; runSlice(); ++slices) {
    EXPECT_LE(before - subscriptions_->count(), SubscriptionLimits::kErasedAtOnce);
    before = subscriptions_->count();
  }
  EXPECT_EQ(slices, 3);
  EXPECT_EQ(subscriptions_->count(), 0U);
  EXPECT_EQ(subscriptions_->bytes().all(), 0U);
  EXPECT_FALSE(subscriptions_->isErasing());
}

TEST_F(SubscriptionSharesTest,
       WhoRegistersAgainBeforeTheOldOnesAreErasedIsToldOnceAndStaysRegistered) {
  add(kHolder, 3);
  EXPECT_EQ(subscriptions_->removeAll(kHolder, "client"), 3U);
  EXPECT_FALSE(isTold(kHolder, nthName(0)));
  EXPECT_FALSE(subscriptions_->remove(kHolder, nthName(0), CALLBACK_VALUE_CHANGED, "link"));
  add(kHolder, 1);
  EXPECT_EQ(subscriptions_->covering(nthName(0), CALLBACK_VALUE_CHANGED).size(), 1U);
  while (runSlice()) continue;
  EXPECT_TRUE(isTold(kHolder, nthName(0)));
  EXPECT_FALSE(isTold(kHolder, nthName(1)));
  EXPECT_EQ(subscriptions_->count(kHolder), 1U);
}

TEST_F(SubscriptionSharesTest, WithdrawingAllAgainAndAgainDoesNotUseUpTheIdentities) {
  for (std::size_t i = 0; i < 2 * limits_.callersPerPeer; ++i) {
    add(kHolder, 1);
    ASSERT_EQ(subscriptions_->removeAll(kHolder, "client"), 1U);
  }
  while (runSlice()) continue;
  EXPECT_EQ(subscriptions_->bytes().all(), 0U);
}

TEST_F(SubscriptionSharesTest, OthersAndOtherTypesAtANameAreLeftAloneWhileItIsErased) {
  add(kHolder, 1);
  add(kOtherHolder, 1);
  const Registration options{nthName(0), CALLBACK_OPTIONS_CHANGED, "link", "another",
                             AppConfig::eRoleUser};
  ASSERT_TRUE(subscriptions_->add(kHolder, kUser, options).ok());
  subscriptions_->removeAll(kHolder, "client");
  while (runSlice()) continue;
  EXPECT_TRUE(isTold(kOtherHolder, nthName(0)));
  EXPECT_TRUE(subscriptions_->contains(kHolder, options));
  EXPECT_FALSE(isTold(kHolder, nthName(0)));
}

// Thousands at one name move each other when one is taken out, so a slice takes fewer of them.
TEST_F(SubscriptionSharesTest, ASliceTakesFewerOfANameThatManyHaveRegistered) {
  constexpr std::size_t kPeers = 4 * SubscriptionLimits::kMovedForOne;
  for (PbUtility::PeerId peer = 1; peer <= kPeers; ++peer)
    ASSERT_TRUE(subscriptions_->add(peer, kRoot, valuesOf("all")).ok());
  for (PbUtility::PeerId peer = 1; peer <= kPeers; ++peer) subscriptions_->forget(peer);
  ASSERT_TRUE(runSlice());
  const std::size_t erased = kPeers - subscriptions_->count();
  EXPECT_LT(erased, SubscriptionLimits::kErasedAtOnce / 2);
  EXPECT_GT(erased, SubscriptionLimits::kErasedAtOnce / 8);
}

}  // namespace
}  // namespace ConfigSrv
