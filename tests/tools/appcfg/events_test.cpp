#include "tools/appcfg/events.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

namespace AppCfgTool {
namespace {

using std::chrono::steady_clock;

Deadline soon() { return steady_clock::now() + std::chrono::milliseconds(5); }

TEST(EventsTest, ADeadlineEndsAWait) {
  const auto before = steady_clock::now();
  EXPECT_EQ(waitForEvent({-1, -1, -1, soon()}), Event::Deadline);
  EXPECT_GE(steady_clock::now() - before, std::chrono::milliseconds(5));
}

TEST(EventsTest, AnEventThatIsThereCountsMoreThanADeadlineThatHasPassed) {
  ChangeQueue queue(0);
  queue.configChanged("a", 0, "b", 0, {"1"}, "");
  EXPECT_EQ(waitForEvent({-1, queue.wakeFd(), -1, steady_clock::now()}), Event::Changes);
}

TEST(EventsTest, InterruptAndTerminationAreEventsAndDoNotKill) {
  for (const int number : {SIGINT, SIGTERM}) {
    const StopSignals stop;
    ::raise(number);
    EXPECT_EQ(waitForEvent({stop.fd(), -1, -1, soon()}), Event::Stop);
  }
}

TEST(EventsTest, APipeWithoutAReaderIsNoticedWithoutWriting) {
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  EXPECT_EQ(waitForEvent({-1, -1, fds[1], soon()}), Event::Deadline);
  ::close(fds[0]);
  EXPECT_EQ(waitForEvent({-1, -1, fds[1], {}}), Event::ReaderGone);
  ::close(fds[1]);
}

}  // namespace
}  // namespace AppCfgTool
