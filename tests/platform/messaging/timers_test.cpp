#include "platform/messaging/serving/internal/timers.h"

#include <gtest/gtest.h>

#include <vector>

namespace PbUtility {
namespace {

using std::chrono::seconds;

TEST(TimersTest, ATaskMayAddOneThatIsDueBeforeItself) {
  Timers timers;
  std::vector<int> order;
  const Timers::Clock::time_point now = Timers::Clock::now();
  timers.add(now - seconds(1), [&] {
    order.push_back(1);
    timers.add(now - seconds(2), [&] { order.push_back(2); });
  });
  timers.runDue(10);
  EXPECT_EQ(order, (std::vector<int>{1, 2}));
  EXPECT_EQ(timers.next(), Timers::kNever);
}

TEST(TimersTest, ATaskMayCancelItselfAndOneThatIsDueWithIt) {
  Timers timers;
  std::vector<int> order;
  const Timers::Clock::time_point now = Timers::Clock::now();
  std::uint64_t first = 0;
  std::uint64_t second = 0;
  first = timers.add(now - seconds(2), [&] {
    order.push_back(1);
    timers.cancel(first);
    timers.cancel(second);
  });
  second = timers.add(now - seconds(1), [&] { order.push_back(2); });
  timers.runDue(10);
  EXPECT_EQ(order, (std::vector<int>{1}));
  EXPECT_EQ(timers.next(), Timers::kNever);
}

TEST(TimersTest, NoMoreRunAtOnceThanAskedForAndTheRestStaysDue) {
  Timers timers;
  int ran = 0;
  const Timers::Clock::time_point past = Timers::Clock::now() - seconds(1);
  for (int i = 0; i < 3; ++i) timers.add(past, [&] { ++ran; });
  timers.runDue(2);
  EXPECT_EQ(ran, 2);
  EXPECT_EQ(timers.next(), past);
  timers.runDue(2);
  EXPECT_EQ(ran, 3);
}

}  // namespace
}  // namespace PbUtility
