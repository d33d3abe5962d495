#include "configsrv/providers/internal/process.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace ConfigSrv {
namespace {

pid_t sleeper() {
  const pid_t pid = fork();
  if (pid == 0) {
    for (;;) pause();
  }
  return pid;
}

TEST(ProcessTest, AProcessThatRunsIsNotGone) {
  EXPECT_GT(startOfProcess(getpid()), 0u);
  EXPECT_FALSE(isProcessGone(getpid(), startOfProcess(getpid())));
  EXPECT_FALSE(isProcessGone(getpid(), 0)) << "an unknown start proves nothing";
}

TEST(ProcessTest, AProcessThatHasEndedIsGoneBeforeAndAfterItWasCollected) {
  const pid_t pid = sleeper();
  const std::uint64_t start = startOfProcess(pid);
  EXPECT_FALSE(isProcessGone(pid, start));
  kill(pid, SIGKILL);
  siginfo_t ended{};
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOWAIT), 0);
  EXPECT_TRUE(isProcessGone(pid, start));
  ASSERT_EQ(waitpid(pid, nullptr, 0), pid);
  EXPECT_TRUE(isProcessGone(pid, start));
  EXPECT_EQ(startOfProcess(pid), 0u);
}

TEST(ProcessTest, AStoppedProcessIsNotGone) {
  const pid_t pid = sleeper();
  kill(pid, SIGSTOP);
  EXPECT_FALSE(isProcessGone(pid, startOfProcess(pid)));
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
}

TEST(ProcessTest, AnotherProcessOfTheSameNumberIsAnother) {
  EXPECT_TRUE(isProcessGone(getpid(), startOfProcess(getpid()) + 1));
}

TEST(ProcessTest, AProcessWithoutANumberHereIsNotKnownToBeGone) {
  EXPECT_FALSE(isProcessGone(0, 7));
}

}  // namespace
}  // namespace ConfigSrv
