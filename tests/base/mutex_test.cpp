#include "base/mutex.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "tests/support/eventually.h"

namespace Base {
namespace {

using Clock = std::chrono::steady_clock;

// Asked on another thread, because to ask on the one that holds it has no meaning.
bool isHeld(Mutex& mutex) {
  bool isHeld = true;
  std::thread([&] {
    if (!mutex.tryLock()) return;
    isHeld = false;
    mutex.unlock();
  }).join();
  return isHeld;
}

class ConditionTest : public testing::Test {
 protected:
  void come() {
    const MutexLock lock(mutex);
    came = true;
    condition.notifyAll();
  }

  Mutex mutex;
  Condition condition;
  bool came APPCONFIG_GUARDED_BY(mutex) = false;
};

TEST(MutexTest, ALockHoldsItsMutexToTheEndOfTheBlock) {
  Mutex mutex;
  {
    const MutexLock lock(mutex);
    EXPECT_TRUE(isHeld(mutex));
  }
  EXPECT_FALSE(isHeld(mutex));
}

TEST_F(ConditionTest, AWaitLetsOthersHaveTheMutexAndHoldsItAgainAfterwards) {
  const auto wait = [this] {
    const MutexLock lock(mutex);
    while (!came) condition.wait(lock);
    EXPECT_TRUE(isHeld(mutex));
  };
  std::thread other([this] { come(); });
  wait();
  other.join();
  EXPECT_FALSE(isHeld(mutex));
}

TEST_F(ConditionTest, AWaitUntilATimeEndsWithWhatCameBefore) {
  std::thread other([this] { come(); });
  {
    const MutexLock lock(mutex);
    const auto deadline = Clock::now() + TestSupport::kPatience;
    while (!came && condition.waitUntil(lock, deadline)) continue;
    EXPECT_TRUE(came);
    EXPECT_TRUE(isHeld(mutex));
  }
  other.join();
}

TEST_F(ConditionTest, AWaitSaysThatItsTimeCameFirst) {
  {
    const MutexLock lock(mutex);
    const auto deadline = Clock::now() + std::chrono::milliseconds(1);
    while (condition.waitUntil(lock, deadline)) continue;
    EXPECT_GE(Clock::now(), deadline);
    EXPECT_TRUE(isHeld(mutex));
  }
  EXPECT_FALSE(isHeld(mutex));
}

}  // namespace
}  // namespace Base
