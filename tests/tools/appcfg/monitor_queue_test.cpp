#include "tools/appcfg/monitor_queue.h"

#include <gtest/gtest.h>
#include <poll.h>

namespace AppCfgTool {
namespace {

ConfigIF::MonitorNtfy eventAt(std::uint64_t time) {
  ConfigIF::MonitorNtfy event;
  event.set_time_us(time);
  return event;
}

bool isReadable(int fd) {
  pollfd wait{fd, POLLIN, 0};
  return ::poll(&wait, 1, 0) == 1;
}

TEST(MonitorQueueTest, GivesEventsInTheirOrderAndWakesWhileTheyWait) {
  MonitorQueue queue;
  EXPECT_FALSE(isReadable(queue.wakeFd()));
  queue.add(eventAt(1));
  queue.add(eventAt(2));
  EXPECT_TRUE(isReadable(queue.wakeFd()));
  const MonitorQueue::Taken taken = queue.take();
  ASSERT_EQ(taken.events.size(), 2U);
  EXPECT_EQ(taken.events[1].time_us(), 2U);
  EXPECT_EQ(taken.dropped, 0U);
  EXPECT_FALSE(isReadable(queue.wakeFd()));
}

TEST(MonitorQueueTest, DropsAndCountsWhatComesWhileItIsFull) {
  MonitorQueue queue;
  for (std::size_t i = 0; i < MonitorQueue::kMaxWaiting + 3; ++i) queue.add(eventAt(i));
  const MonitorQueue::Taken taken = queue.take();
  EXPECT_EQ(taken.events.size(), MonitorQueue::kMaxWaiting);
  EXPECT_EQ(taken.events.front().time_us(), 0U);
  EXPECT_EQ(taken.dropped, 3U);
  queue.add(eventAt(7));
  EXPECT_EQ(queue.take().dropped, 0U);
}

}  // namespace
}  // namespace AppCfgTool
