#include "platform/messaging/serving/internal/turn.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "tests/support/eventually.h"

namespace PbUtility {
namespace {

const auto kNothing = [] {};

TEST(TurnTest, ATaskRunsAtOnceOnTheThreadThatPostsItWhenNobodyHasTheTurn) {
  Turn turn(kNothing);
  std::thread::id ranOn;
  turn.post([&] { ranOn = std::this_thread::get_id(); });
  EXPECT_EQ(ranOn, std::this_thread::get_id());
}

TEST(TurnTest, ATaskThatWasPostedByTheHolderRunsWhenTheTurnIsGivenBack) {
  Turn turn(kNothing);
  bool ran = false;
  turn.lock();
  turn.post([&] { ran = true; });
  EXPECT_FALSE(ran);
  turn.unlock();
  EXPECT_TRUE(ran);
}

TEST(TurnTest, AThreadThatPostsWhileAnotherHasTheTurnDoesNotWaitForIt) {
  Turn turn(kNothing);
  std::thread::id ranOn;
  turn.lock();
  std::thread([&] { turn.post([&] { ranOn = std::this_thread::get_id(); }); }).join();
  EXPECT_EQ(ranOn, std::thread::id());
  turn.unlock();
  EXPECT_EQ(ranOn, std::this_thread::get_id());
}

TEST(TurnTest, ATaskMayPostAnother) {
  Turn turn(kNothing);
  int ran = 0;
  turn.post([&] { turn.post([&] { ++ran; }); });
  EXPECT_EQ(ran, 1);
}

TEST(TurnTest, WhatComesBeforeGivingBackSeesWhatTheTasksDid) {
  bool ran = false;
  bool seen = false;
  Turn turn([&] { seen = ran; });
  turn.post([&] { ran = true; });
  EXPECT_TRUE(seen);
}

TEST(TurnTest, NoPostIsLostAndNoTwoTasksRunAtOnce) {
  constexpr int kThreads = 4;
  constexpr int kEach = 5000;
  Turn turn(kNothing);
  // Guarded by the turn alone, so that the thread sanitizer sees a task that runs without it.
  int ran = 0;
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kEach; ++i) turn.post([&] { ++ran; });
    });
  }
  for (int i = 0; i < kEach; ++i) {
    turn.lock();
    turn.unlock();
  }
  for (std::thread& thread : threads) thread.join();
  turn.lock();
  EXPECT_EQ(ran, kThreads * kEach);
  turn.unlock();
}

}  // namespace
}  // namespace PbUtility
