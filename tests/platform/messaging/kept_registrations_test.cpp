#include "platform/messaging/internal/kept_registrations.h"

#include <gtest/gtest.h>

namespace PbUtility {
namespace {

constexpr std::uint64_t kEpoch = 5;

// The revision with which the only registration is repeated on a new connection.
std::uint64_t repeatedWith(KeptRegistrations& kept, std::uint64_t epoch = kEpoch) {
  const auto repeats = kept.beginConnection(epoch);
  return repeats.size() == 1 ? repeats[0].revision : 12345678;
}

TEST(KeptRegistrationsTest, ARegistrationMadeAfterAReadIsRepeatedWithTheReadsRevision) {
  KeptRegistrations kept;
  kept.keep("k", 0x1A0210, "payload", kEpoch, 3);
  const auto repeats = kept.beginConnection(kEpoch);
  ASSERT_EQ(repeats.size(), 1U);
  EXPECT_EQ(repeats[0].messageId, 0x1A0210U);
  EXPECT_EQ(repeats[0].payload, "payload");
  EXPECT_EQ(repeats[0].revision, 3U);
}

TEST(KeptRegistrationsTest, ARegistrationMadeWithoutKnowledgeAsksForChangesFromItsAnswerOn) {
  KeptRegistrations kept;
  kept.keep("k", 0x1A0210, "p", 0, kRevisionNow);
  EXPECT_EQ(repeatedWith(kept), kRevisionNow);
  kept.acknowledge("k", kEpoch, 9);
  EXPECT_EQ(repeatedWith(kept), 9U);
}

TEST(KeptRegistrationsTest, TheRevisionOfAStoreThatNothingWasCommittedToIsOneLikeAnyOther) {
  KeptRegistrations kept;
  kept.keep("k", 0x1A0210, "p", 0, kRevisionNow);
  kept.beginConnection(kEpoch);
  kept.acknowledge("k", kEpoch, 0);
  EXPECT_EQ(repeatedWith(kept), 0U);
}

TEST(KeptRegistrationsTest, ANoticeYoungerThanTheAnswerProvesThatAllOwedWasDelivered) {
  KeptRegistrations kept;
  kept.keep("k", 0x1A0210, "p", kEpoch, 3);
  kept.beginConnection(kEpoch);
  kept.acknowledge("k", kEpoch, 9);
  kept.delivered(10);
  EXPECT_EQ(repeatedWith(kept), 10U);
}

TEST(KeptRegistrationsTest, ANoticeOfTheAnswersOwnRevisionProvesNothing) {
  KeptRegistrations kept;
  kept.keep("k", 0x1A0210, "p", kEpoch, 3);
  kept.beginConnection(kEpoch);
  kept.acknowledge("k", kEpoch, 9);
  kept.delivered(9);
  EXPECT_EQ(repeatedWith(kept), 3U);
}

TEST(KeptRegistrationsTest, NoticesForOthersDoNotHideWhatAnUnansweredRepeatIsOwed) {
  KeptRegistrations kept;
  kept.keep("k", 0x1A0210, "p", kEpoch, 3);
  kept.beginConnection(kEpoch);
  kept.delivered(11);
  EXPECT_EQ(repeatedWith(kept), 3U);
}

TEST(KeptRegistrationsTest, AnotherEpochMakesEveryRegistrationAskForEverything) {
  KeptRegistrations kept;
  kept.keep("k", 0x1A0210, "p", kEpoch, 3);
  kept.beginConnection(kEpoch);
  kept.acknowledge("k", kEpoch, 9);
  kept.delivered(10);
  EXPECT_EQ(repeatedWith(kept, kEpoch + 1), kRevisionNone);
}

TEST(KeptRegistrationsTest, MakingARegistrationAgainForgetsNothingOwed) {
  KeptRegistrations kept;
  kept.keep("k", 0x1A0210, "p", kEpoch, 3);
  kept.beginConnection(kEpoch);
  kept.keep("k", 0x1A0210, "p", kEpoch, 8);
  EXPECT_EQ(repeatedWith(kept), 3U);
}

TEST(KeptRegistrationsTest, WithdrawnRegistrationsAreNotRepeated) {
  KeptRegistrations kept;
  for (const char* key : {"a1", "a2", "b1"}) kept.keep(key, 0x1A0210, key, kEpoch, 1);
  kept.withdraw("b1");
  EXPECT_EQ(kept.size(), 2U);
  kept.withdrawAll("a");
  EXPECT_EQ(kept.size(), 0U);
}

}  // namespace
}  // namespace PbUtility
