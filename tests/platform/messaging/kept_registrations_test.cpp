#include "platform/messaging/client/internal/kept_registrations.h"

#include <gtest/gtest.h>

#include "platform/schema/config_if.pb.h"

namespace PbUtility {
namespace {

constexpr std::uint64_t kEpoch = 5;

constexpr std::uint32_t kRegister = 0x1A0210;

// One registration of one remote, and what becomes of it.
class KeptRegistrationsTest : public testing::Test {
 protected:
  using Connection = KeptRegistrations::Connection;

  Connection keep(std::uint64_t revision, std::uint64_t epoch = kEpoch) {
    return kept.keep("k", kRegister, "payload", epoch, revision);
  }
  void begin(std::uint64_t epoch = kEpoch) { kept.beginConnection(epoch); }
  void acknowledge(std::uint64_t revision) {
    kept.acknowledge("k", kept.connection(), kEpoch, revision);
  }
  // The revision with which the only registration is repeated on a new connection.
  std::uint64_t repeatedWith(std::uint64_t epoch = kEpoch) {
    return onlyOf(kept.beginConnection(epoch));
  }
  static std::uint64_t onlyOf(const std::vector<KeptRegistrations::Repeat>& repeats) {
    return repeats.size() == 1 ? repeats[0].revision : 12345678;
  }

  KeptRegistrations kept;
};

TEST_F(KeptRegistrationsTest, ARegistrationMadeAfterAReadIsRepeatedWithTheReadsRevision) {
  keep(3);
  const auto repeats = kept.beginConnection(kEpoch);
  ASSERT_EQ(repeats.size(), 1U);
  EXPECT_EQ(repeats[0].messageId, kRegister);
  EXPECT_EQ(repeats[0].payload, "payload");
  EXPECT_EQ(repeats[0].revision, 3U);
}

TEST_F(KeptRegistrationsTest, ARegistrationMadeWithoutKnowledgeAsksForChangesFromItsAnswerOn) {
  const Connection connection = keep(kRevisionNow, 0);
  kept.acknowledge("k", connection, kEpoch, 9);
  EXPECT_EQ(repeatedWith(), 9U);
}

// Whoever found the variable registered read it without registering, and may have read anything.
TEST_F(KeptRegistrationsTest,
       ARegistrationMadeWithoutKnowledgeThatNobodyAnsweredAsksForEverything) {
  keep(kRevisionNow, 0);
  EXPECT_EQ(repeatedWith(), kRevisionNone);
}

TEST_F(KeptRegistrationsTest, TheRevisionOfAStoreThatNothingWasCommittedToIsOneLikeAnyOther) {
  begin();
  keep(kRevisionNow, 0);
  acknowledge(0);
  EXPECT_EQ(repeatedWith(), 0U);
}

TEST_F(KeptRegistrationsTest, ANoticeYoungerThanTheAnswerProvesThatAllOwedWasDelivered) {
  keep(3);
  begin();
  acknowledge(9);
  kept.delivered(12);
  EXPECT_EQ(repeatedWith(), 12U);
}

TEST_F(KeptRegistrationsTest, ANoticeOfTheAnswersOwnRevisionProvesNothing) {
  keep(3);
  begin();
  acknowledge(9);
  kept.delivered(9);
  EXPECT_EQ(repeatedWith(), 3U);
}

TEST_F(KeptRegistrationsTest, NoticesForOthersDoNotHideWhatAnUnansweredRepeatIsOwed) {
  keep(3);
  begin();
  kept.delivered(11);
  EXPECT_EQ(repeatedWith(), 3U);
}

TEST_F(KeptRegistrationsTest, AnotherEpochMakesEveryRegistrationAskForEverything) {
  keep(3);
  begin();
  acknowledge(9);
  kept.delivered(10);
  EXPECT_EQ(repeatedWith(kEpoch + 1), kRevisionNone);
}

TEST_F(KeptRegistrationsTest, WhatIsKnownOfAServiceBeforeTheFirstConnectionIsHeldAgainstItsEpoch) {
  keep(3, kEpoch - 1);
  EXPECT_EQ(repeatedWith(), kRevisionNone);
}

// The service was another for a moment, in which no delivery connection came about.
TEST_F(KeptRegistrationsTest, AnAnswerFromAnotherEpochMakesEveryRegistrationAskForEverything) {
  keep(3);
  begin();
  acknowledge(9);
  kept.answered(kEpoch);
  kept.answered(kEpoch + 1);
  EXPECT_EQ(repeatedWith(), kRevisionNone);
}

TEST_F(KeptRegistrationsTest, MakingARegistrationAgainForgetsNothingOwed) {
  keep(3);
  begin();
  keep(8);
  EXPECT_EQ(repeatedWith(), 3U);
}

TEST_F(KeptRegistrationsTest, MakingARegistrationAgainAsksForWhatTheSecondCallerDidNotSee) {
  begin();
  keep(8);
  acknowledge(9);
  kept.delivered(20);
  keep(5);
  EXPECT_EQ(repeatedWith(), 5U);
}

TEST_F(KeptRegistrationsTest, OfARegistrationMadeTwiceAtOnceBothAnswersAreNeeded) {
  begin();
  keep(8);
  keep(5);
  acknowledge(9);
  kept.delivered(20);
  EXPECT_EQ(repeatedWith(), 5U) << "what the second is owed may come after notice 20";
}

TEST_F(KeptRegistrationsTest, AnAnswerFromBeforeTheConnectionSaysNothingAboutItsRepeat) {
  begin();
  const Connection before = keep(3);
  begin();
  kept.acknowledge("k", before, kEpoch, 9);
  kept.delivered(20);
  EXPECT_EQ(repeatedWith(), 3U);
}

TEST_F(KeptRegistrationsTest, AnAbandonedRegistrationIsRepeatedOnTheConnectionThatIsThere) {
  begin();
  kept.abandon("k", keep(3));
  EXPECT_EQ(onlyOf(kept.takeAbandoned()), 3U);
  EXPECT_TRUE(kept.takeAbandoned().empty()) << "it is on its way";
  acknowledge(9);
  EXPECT_TRUE(kept.takeAbandoned().empty());
}

TEST_F(KeptRegistrationsTest, AnAbandonedRegistrationMadeWithoutKnowledgeAsksForEverything) {
  begin();
  kept.abandon("k", keep(kRevisionNow, 0));
  EXPECT_EQ(onlyOf(kept.takeAbandoned()), kRevisionNone);
}

TEST_F(KeptRegistrationsTest, WhatAnotherConnectionRepeatedIsNotAbandonedByALateFailure) {
  begin();
  const Connection before = keep(3);
  begin();
  kept.abandon("k", before);
  EXPECT_TRUE(kept.takeAbandoned().empty());
}

TEST_F(KeptRegistrationsTest, ARefusedRegistrationIsTakenForARepeatWithWhatWasKnown) {
  begin();
  EXPECT_FALSE(kept.anyRefused());
  kept.refuse("k", keep(3), "full");
  EXPECT_TRUE(kept.anyRefused());
  EXPECT_TRUE(kept.takeAbandoned().empty()) << "there is no room yet";
  EXPECT_EQ(onlyOf(kept.takeRefused(10)), 3U);
  EXPECT_FALSE(kept.anyRefused()) << "it is on its way";
  acknowledge(9);
  kept.delivered(12);
  EXPECT_TRUE(kept.takeRefused(10).empty());
  EXPECT_EQ(repeatedWith(), 12U);
}

TEST_F(KeptRegistrationsTest, ARefusedRegistrationMadeWithoutKnowledgeAsksForEverything) {
  begin();
  kept.refuse("k", keep(kRevisionNow, 0), "full");
  EXPECT_EQ(onlyOf(kept.takeRefused(10)), kRevisionNone);
}

TEST_F(KeptRegistrationsTest, RefusedRegistrationsAreTakenInTheOrderOfTheirRefusals) {
  begin();
  for (const char* key : {"c", "a", "b"})
    kept.refuse(key, kept.keep(key, kRegister, key, kEpoch, 1), "full");
  const auto first = kept.takeRefused(2);
  ASSERT_EQ(first.size(), 2U);
  EXPECT_EQ(first[0].key, "c");
  EXPECT_EQ(first[1].key, "a");
  kept.refuse("c", kept.connection(), "full");
  kept.withdraw("b");
  const auto second = kept.takeRefused(2);
  ASSERT_EQ(second.size(), 1U);
  EXPECT_EQ(second[0].key, "c");
}

TEST_F(KeptRegistrationsTest, OfARefusedRegistrationThatItsCallerMakesAgainTheCallersAnswerCounts) {
  begin();
  kept.refuse("k", keep(3), "full");
  keep(3);
  EXPECT_TRUE(kept.takeRefused(10).empty());
  acknowledge(9);
  EXPECT_FALSE(kept.anyRefused());
}

TEST_F(KeptRegistrationsTest, ANewConnectionRepeatsRefusedRegistrationsWithAllOthers) {
  begin();
  const Connection before = keep(3);
  kept.refuse("k", before, "full");
  EXPECT_EQ(repeatedWith(), 3U);
  EXPECT_FALSE(kept.anyRefused());
  kept.refuse("k", before, "full");
  EXPECT_FALSE(kept.anyRefused()) << "a refusal from before the connection says nothing about it";
}

std::string registrationOf(ConfigIF::CallbackType type) {
  ConfigIF::RegisterClientCallbackReq request;
  request.set_client_name("me");
  request.set_role(CommonIF::SECURITY_ROLE_USER);
  request.set_name("net.mtu");
  request.set_type(type);
  return request.SerializeAsString();
}

// Its value may have been taken over, and the change may have failed while nobody could say so.
TEST_F(KeptRegistrationsTest, AfterAQuestionWhoIsToldOnChangeAsksForEverythingOnce) {
  begin();
  for (const auto type : {ConfigIF::CALLBACK_ON_CHANGE, ConfigIF::CALLBACK_VALUE_CHANGED}) {
    const std::string key = std::to_string(type);
    kept.acknowledge(key, kept.keep(key, kRegister, registrationOf(type), kEpoch, 3), kEpoch, 9);
  }
  kept.questioned();
  const auto repeats = kept.beginConnection(kEpoch);
  ASSERT_EQ(repeats.size(), 2U);
  EXPECT_EQ(repeats[0].revision, kRevisionNone);
  EXPECT_EQ(repeats[1].revision, 3U);
  for (const auto& repeat : repeats) kept.acknowledge(repeat.key, kept.connection(), kEpoch, 9);
  kept.delivered(12);
  EXPECT_EQ(kept.beginConnection(kEpoch)[0].revision, 12U);
}

TEST_F(KeptRegistrationsTest, WithdrawnRegistrationsAreNotRepeated) {
  for (const char* key : {"a1", "a2", "b1"})
    kept.abandon(key, kept.keep(key, kRegister, key, kEpoch, 1));
  kept.withdraw("b1");
  EXPECT_EQ(kept.beginConnection(kEpoch).size(), 2U);
  kept.withdrawAll("a");
  EXPECT_TRUE(kept.beginConnection(kEpoch).empty());
}

}  // namespace
}  // namespace PbUtility
