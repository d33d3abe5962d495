#include "tools/appcfg/change_queue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "appconfig/core/key_notation.h"
#include "tools/appcfg/events.h"

namespace AppCfgTool {
namespace {

using testing::ElementsAre;

void notice(ChangeQueue& queue, int instance, const std::string& value) {
  queue.configChanged("net", 0, "mtu", instance, {value}, "link");
}

std::vector<std::string> taken(ChangeQueue& queue) {
  std::vector<std::string> all;
  for (const Change& change : queue.take()) {
    all.push_back(AppConfig::formatKey(change.var) + '=' + change.value.at(0));
  }
  return all;
}

bool isReadable(const ChangeQueue& queue) {
  return waitForEvent({-1, queue.wakeFd(), -1, std::chrono::steady_clock::now()}) == Event::Changes;
}

TEST(ChangeQueueTest, ChangesComeOutInTheOrderInWhichTheyCame) {
  ChangeQueue queue(0);
  notice(queue, 0, "1");
  notice(queue, 1, "2");
  notice(queue, 0, "3");
  EXPECT_THAT(taken(queue), ElementsAre("net.mtu=1", "net.mtu[1]=2", "net.mtu=3"));
  EXPECT_THAT(taken(queue), ElementsAre());
}

TEST(ChangeQueueTest, AKeyCarriesTheNamespaceOfTheLink) {
  ChangeQueue queue(3);
  notice(queue, 0, "1");
  EXPECT_THAT(taken(queue), ElementsAre("3:net.mtu=1"));
}

TEST(ChangeQueueTest, IsReadableWhileChangesWait) {
  ChangeQueue queue(0);
  EXPECT_FALSE(isReadable(queue));
  notice(queue, 0, "1");
  EXPECT_TRUE(isReadable(queue));
  taken(queue);
  EXPECT_FALSE(isReadable(queue));
}

TEST(ChangeQueueTest, AFullQueueKeepsTheNewestOfEachVariable) {
  ChangeQueue queue(0);
  notice(queue, 1, "kept");
  for (std::size_t i = 0; i < ChangeQueue::kMaxWaiting + 10; ++i) {
    notice(queue, 0, std::to_string(i));
  }
  const std::vector<std::string> all = taken(queue);
  EXPECT_EQ(all.size(), ChangeQueue::kMaxWaiting);
  EXPECT_EQ(all.front(), "net.mtu[1]=kept");
  EXPECT_EQ(all.back(), "net.mtu=" + std::to_string(ChangeQueue::kMaxWaiting + 9));
}

TEST(ChangeQueueTest, NoChangeIsLostBetweenThreads) {
  ChangeQueue queue(0);
  constexpr int kChanges = 10000;
  std::thread handler([&queue] {
    for (int i = 0; i < kChanges; ++i) notice(queue, 0, std::to_string(i));
  });
  int next = 0;
  while (next < kChanges) {
    ASSERT_EQ(waitForEvent({-1, queue.wakeFd(), -1, {}}), Event::Changes);
    for (const std::string& change : taken(queue)) {
      ASSERT_EQ(change, "net.mtu=" + std::to_string(next++));
    }
  }
  handler.join();
}

}  // namespace
}  // namespace AppCfgTool
