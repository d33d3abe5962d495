#include "platform/messaging/client/internal/retry_pace.h"

#include <gtest/gtest.h>

namespace PbUtility {
namespace {

using std::chrono::milliseconds;
using Clock = RetryPace::Clock;

// A service with so much room, asked at the pace's times.
struct Asked {
  RetryPace pace;
  Clock::time_point now;

  // All that were sent are answered: the first `room` of them are accepted.
  void round(std::size_t refused, std::size_t room) {
    pace.refused(now);
    now = *pace.dueAt();
    const std::size_t count = std::min(refused, pace.batch());
    pace.sent(count);
    for (std::size_t i = 0; i < count; ++i) pace.answered(i < room, now);
  }
  milliseconds wait() const {
    return std::chrono::duration_cast<milliseconds>(*pace.dueAt() - now);
  }
};

TEST(RetryPaceTest, NothingIsDueWhileNothingIsRefused) { EXPECT_FALSE(RetryPace().dueAt()); }

TEST(RetryPaceTest, WhatStaysRefusedIsAskedForOneAtATimeAfterDelaysThatDoubleUpToTheLongest) {
  Asked asked;
  for (const int expected : {100, 200, 400, 800, 1600, 3200, 6400, 10000, 10000}) {
    asked.pace.refused(asked.now);
    EXPECT_EQ(asked.wait(), milliseconds(expected));
    EXPECT_EQ(asked.pace.batch(), 1U);
    asked.round(1000, 0);
  }
}

TEST(RetryPaceTest, OnceOneIsAcceptedTheOthersFollowInGrowingBatchesWithoutWaiting) {
  Asked asked;
  asked.round(1000, 0);
  asked.round(1000, 1);
  for (const std::size_t batch : {2U, 4U, 8U, 16U}) {
    EXPECT_EQ(asked.wait(), milliseconds(0));
    EXPECT_EQ(asked.pace.batch(), batch);
    asked.round(1000, batch);
  }
}

TEST(RetryPaceTest, WhenRoomEndsWithinABatchOneTriesAgainAfterTheShortestDelay) {
  Asked asked;
  for (int i = 0; i < 5; ++i) asked.round(1000, 0);
  asked.round(1000, 1);
  asked.round(1000, 1);
  EXPECT_EQ(asked.pace.batch(), 1U);
  EXPECT_EQ(asked.wait(), RetryPace::kShortest);
}

TEST(RetryPaceTest, NothingIsDueWhileAnswersAreAwaited) {
  RetryPace pace;
  pace.refused(Clock::time_point());
  pace.sent(2);
  pace.refused(Clock::time_point());
  EXPECT_FALSE(pace.dueAt());
  pace.answered(true, Clock::time_point());
  EXPECT_FALSE(pace.dueAt());
  pace.answered(true, Clock::time_point());
  EXPECT_TRUE(pace.dueAt());
}

}  // namespace
}  // namespace PbUtility
