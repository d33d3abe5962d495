#include "configsrv/subscriptions/subscriptions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

#include "platform/schema/config_if.pb.h"

namespace ConfigSrv {
namespace {

using AppConfig::eRoleFactory;
using AppConfig::eRolePublic;
using AppConfig::eRoleUser;
using AppConfig::SecurityRole;
using ConfigIF::CALLBACK_OPTIONS_CHANGED;
using ConfigIF::CALLBACK_VALUE_CHANGED;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr PbUtility::PeerId kPeer = 1;
constexpr PbUtility::PeerId kOther = 2;
constexpr PbUtility::Owner kOwner{0, 1};

Registration named(const std::string& name, const std::string& identity = "link",
                   SecurityRole role = eRoleUser) {
  return {name, CALLBACK_VALUE_CHANGED, identity, "client", role};
}

Registration ofClient(const std::string& name, const std::string& client) {
  return {name, CALLBACK_VALUE_CHANGED, "link", client, eRoleUser};
}

// "peer/identity/role" of each subscriber.
std::vector<std::string> told(const Subscriptions& subscriptions, const std::string& fullName,
                              ConfigIF::CallbackType type = CALLBACK_VALUE_CHANGED) {
  std::vector<std::string> result;
  for (const Subscriber& subscriber : subscriptions.covering(fullName, type)) {
    result.push_back(std::to_string(subscriber.peer) + "/" + std::string(subscriber.identity) +
                     "/" + std::to_string(subscriber.role));
  }
  return result;
}

struct CoverCase {
  const char* why;
  const char* registered;
  const char* variable;
  bool covered;
};

const CoverCase kCoverCases[] = {
    {"a variable's own full name", "net.mtu", "net.mtu", true},
    {"the group above", "net", "net.mtu", true},
    {"a group further up", "net", "net.eth0.mtu", true},
    {"a group in between", "net.eth0", "net.eth0.mtu", true},
    {"a name that only begins alike", "net", "network.mtu", false},
    {"a name that ends inside a step", "net.m", "net.mtu", false},
    {"something below the variable", "net.mtu.x", "net.mtu", false},
    {"an empty name is everything", "", "net.mtu", true},
    {"case is folded away", "NET.Mtu", "net.mtu", true},
    {"a trailing dot names nothing", "net.", "net.mtu", false},
    {"a group without a name", "net", "net", true},
    {"a variable without a group", ".mtu", ".mtu", true},
    {"everything covers a variable without a group", "", ".mtu", true},
};

TEST(SubscriptionsTest, ANameCoversItselfAndAllBelowItAtDotBoundaries) {
  for (const CoverCase& c : kCoverCases) {
    Subscriptions subscriptions;
    ASSERT_TRUE(subscriptions.add(kPeer, kOwner, named(c.registered)).ok());
    EXPECT_EQ(told(subscriptions, c.variable).size(), c.covered ? 1u : 0u) << c.why;
    EXPECT_EQ(subscriptions.anyCovering(c.variable, CALLBACK_VALUE_CHANGED), c.covered) << c.why;
  }
}

TEST(SubscriptionsTest, OnlyTheTypeThatWasRegisteredIsTold) {
  Subscriptions subscriptions;
  ASSERT_TRUE(subscriptions.add(kPeer, kOwner, named("net.mtu")).ok());
  EXPECT_THAT(told(subscriptions, "net.mtu", CALLBACK_OPTIONS_CHANGED), IsEmpty());
}

TEST(SubscriptionsTest, ARepeatedRegistrationIsAcceptedAndChangesNothing) {
  Subscriptions subscriptions;
  ASSERT_TRUE(subscriptions.add(kPeer, kOwner, named("net.mtu")).ok());
  EXPECT_TRUE(subscriptions.add(kPeer, kOwner, named("Net.MTU")).ok());
  EXPECT_EQ(subscriptions.count(), 1u);
  EXPECT_THAT(told(subscriptions, "net.mtu"), ElementsAre("1/link/1"));
}

TEST(SubscriptionsTest, AVariableAndItsGroupUnderOneIdentityAreToldOnce) {
  Subscriptions subscriptions;
  ASSERT_TRUE(subscriptions.add(kPeer, kOwner, named("net")).ok());
  ASSERT_TRUE(subscriptions.add(kPeer, kOwner, named("net.mtu")).ok());
  EXPECT_THAT(told(subscriptions, "net.mtu"), ElementsAre("1/link/1"));
}

TEST(SubscriptionsTest, TheHighestOfSeveralRolesCounts) {
  Subscriptions subscriptions;
  ASSERT_TRUE(subscriptions.add(kPeer, kOwner, named("net.mtu", "link", eRoleUser)).ok());
  ASSERT_TRUE(subscriptions.add(kPeer, kOwner, named("net.mtu", "link", eRoleFactory)).ok());
  ASSERT_TRUE(subscriptions.add(kPeer, kOwner, named("net.mtu", "link", eRolePublic)).ok());
  EXPECT_THAT(told(subscriptions, "net.mtu"), ElementsAre("1/link/4"));
}

TEST(SubscriptionsTest, EachIdentityAndEachPeerIsToldInOrderOfPeer) {
  Subscriptions subscriptions;
  ASSERT_TRUE(subscriptions.add(kOther, kOwner, named("net.mtu", "link")).ok());
  ASSERT_TRUE(subscriptions.add(kPeer, kOwner, named("net", "second")).ok());
  ASSERT_TRUE(subscriptions.add(kPeer, kOwner, named("net.mtu", "first")).ok());
  EXPECT_THAT(told(subscriptions, "net.mtu"), ElementsAre("1/first/1", "1/second/1", "2/link/1"));
}

TEST(SubscriptionsTest, WithdrawingTakesEveryRoleOfThatNameTypeAndIdentity) {
  Subscriptions subscriptions;
  ASSERT_TRUE(subscriptions.add(kPeer, kOwner, named("net.mtu", "link", eRoleUser)).ok());
  ASSERT_TRUE(subscriptions.add(kPeer, kOwner, named("net.mtu", "link", eRoleFactory)).ok());
  ASSERT_TRUE(subscriptions.add(kPeer, kOwner, named("net.mtu", "another")).ok());
  EXPECT_TRUE(subscriptions.remove(kPeer, "NET.mtu", CALLBACK_VALUE_CHANGED, "link"));
  EXPECT_THAT(told(subscriptions, "net.mtu"), ElementsAre("1/another/1"));
}

TEST(SubscriptionsTest, WithdrawingWhatWasNotRegisteredIsFalse) {
  Subscriptions subscriptions;
  ASSERT_TRUE(subscriptions.add(kPeer, kOwner, named("net.mtu")).ok());
  EXPECT_FALSE(subscriptions.remove(kPeer, "net", CALLBACK_VALUE_CHANGED, "link"));
  EXPECT_FALSE(subscriptions.remove(kPeer, "net.mtu", CALLBACK_OPTIONS_CHANGED, "link"));
  EXPECT_FALSE(subscriptions.remove(kPeer, "net.mtu", CALLBACK_VALUE_CHANGED, "lin"));
  EXPECT_EQ(subscriptions.count(), 1u);
}

TEST(SubscriptionsTest, APeerWithdrawsOnlyItsOwn) {
  Subscriptions subscriptions;
  ASSERT_TRUE(subscriptions.add(kPeer, kOwner, named("net.mtu")).ok());
  EXPECT_FALSE(subscriptions.remove(kOther, "net.mtu", CALLBACK_VALUE_CHANGED, "link"));
  EXPECT_EQ(subscriptions.removeAll(kOther, "client"), 0u);
  subscriptions.forget(kOther);
  EXPECT_THAT(told(subscriptions, "net.mtu"), ElementsAre("1/link/1"));
}

TEST(SubscriptionsTest, WithdrawingAllTakesWhatThatClientNameRegistered) {
  Subscriptions subscriptions;
  ASSERT_TRUE(subscriptions.add(kPeer, kOwner, ofClient("net.mtu", "first")).ok());
  ASSERT_TRUE(subscriptions.add(kPeer, kOwner, ofClient("net.ip", "first")).ok());
  ASSERT_TRUE(subscriptions.add(kPeer, kOwner, ofClient("net.ip", "second")).ok());
  EXPECT_EQ(subscriptions.removeAll(kPeer, "first"), 2u);
  EXPECT_THAT(told(subscriptions, "net.mtu"), IsEmpty());
  EXPECT_THAT(told(subscriptions, "net.ip"), ElementsAre("1/link/1"));
}

TEST(SubscriptionsTest, APeerThatIsGoneIsToldNothing) {
  Subscriptions subscriptions;
  ASSERT_TRUE(subscriptions.add(kPeer, kOwner, named("")).ok());
  ASSERT_TRUE(subscriptions.add(kPeer, kOwner, named("net.mtu")).ok());
  ASSERT_TRUE(subscriptions.add(kOther, kOwner, named("net.mtu")).ok());
  subscriptions.forget(kPeer);
  EXPECT_THAT(told(subscriptions, "net.mtu"), ElementsAre("2/link/1"));
  EXPECT_EQ(subscriptions.count(), 1u);
  EXPECT_EQ(subscriptions.count(kPeer), 0u);
}

TEST(SubscriptionsTest, RegistrationsPastThePeersLimitAreRefusedAndOthersAreNot) {
  SubscriptionLimits limits;
  limits.registrationsPerPeer = 2;
  Subscriptions subscriptions(limits);
  ASSERT_TRUE(subscriptions.add(kPeer, kOwner, named("a")).ok());
  ASSERT_TRUE(subscriptions.add(kPeer, kOwner, named("b")).ok());
  EXPECT_THAT(subscriptions.add(kPeer, kOwner, named("c")).text, HasSubstr("limit of 2"));
  EXPECT_TRUE(subscriptions.add(kPeer, kOwner, named("a")).ok());
  EXPECT_TRUE(subscriptions.add(kOther, kOwner, named("c")).ok());
}

TEST(SubscriptionsTest, RegistrationsPastTheTotalLimitAreRefused) {
  SubscriptionLimits limits;
  limits.registrations = 1;
  Subscriptions subscriptions(limits);
  ASSERT_TRUE(subscriptions.add(kPeer, kOwner, named("a")).ok());
  EXPECT_THAT(subscriptions.add(kOther, kOwner, named("b")).text, HasSubstr("limit of 1"));
  EXPECT_EQ(subscriptions.count(kOther), 0u);
}

TEST(SubscriptionsTest, ANameOfTheLimitsLengthIsAcceptedAndALongerOneRefused) {
  Subscriptions subscriptions;
  EXPECT_TRUE(subscriptions.add(kPeer, kOwner, named(std::string(1024, 'a'))).ok());
  EXPECT_THAT(subscriptions.add(kPeer, kOwner, named(std::string(1025, 'a'))).text,
              HasSubstr("1025 bytes"));
}

TEST(SubscriptionsTest, AnIdentityPastTheLimitIsRefused) {
  Subscriptions subscriptions;
  EXPECT_TRUE(subscriptions.add(kPeer, kOwner, named("a", std::string(256, 'i'))).ok());
  EXPECT_THAT(subscriptions.add(kPeer, kOwner, named("a", std::string(257, 'i'))).text,
              HasSubstr("identity"));
}

TEST(SubscriptionsTest, TheNamesOfAPeersRegistrationsAreThoseOfTheTypeEachOnce) {
  Subscriptions subscriptions;
  ASSERT_TRUE(subscriptions.add(kPeer, kOwner, named("B.c", "one")).ok());
  ASSERT_TRUE(subscriptions.add(kPeer, kOwner, named("b.c", "two")).ok());
  ASSERT_TRUE(subscriptions.add(kPeer, kOwner, named("a")).ok());
  ASSERT_TRUE(subscriptions.add(kOther, kOwner, named("d")).ok());
  EXPECT_THAT(subscriptions.names(kPeer, CALLBACK_VALUE_CHANGED), ElementsAre("a", "b.c"));
  EXPECT_THAT(subscriptions.names(kPeer, ConfigIF::CALLBACK_ON_CHANGE), ElementsAre());
  subscriptions.forget(kPeer);
  EXPECT_THAT(subscriptions.names(kPeer, CALLBACK_VALUE_CHANGED), ElementsAre());
}

TEST(SubscriptionsTest, ManyIdentitiesOfOneProcessAreRefusedAndWithdrawnOnesMakeRoom) {
  SubscriptionLimits limits;
  limits.callersPerPeer = 2;
  Subscriptions subscriptions(limits);
  ASSERT_TRUE(subscriptions.add(kPeer, kOwner, named("a", "one")).ok());
  ASSERT_TRUE(subscriptions.add(kPeer, kOwner, named("a", "two")).ok());
  EXPECT_THAT(subscriptions.add(kPeer, kOwner, named("a", "three")).text, HasSubstr("identities"));
  EXPECT_TRUE(subscriptions.remove(kPeer, "a", CALLBACK_VALUE_CHANGED, "one"));
  EXPECT_TRUE(subscriptions.add(kPeer, kOwner, named("a", "three")).ok());
  EXPECT_THAT(told(subscriptions, "a"), ElementsAre("1/three/1", "1/two/1"));
}

}  // namespace
}  // namespace ConfigSrv
