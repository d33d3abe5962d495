// A fork with a pipe: the child tells by a byte, and the parent waits for it with a deadline. A
// child that does not end when it should is killed, after the stacks of its threads were printed.
#include "tests/support/child_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "tests/support/watchdog.h"

namespace TestSupport {

void ChildProcess::Side::tell() {
  if (::write(fd_, "x", 1) != 1) std::abort();
}

ChildProcess::ChildProcess(const std::function<int(Side&)>& part) {
  int ends[2] = {-1, -1};
  EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  const pid_t parent = ::getpid();
  pid_ = ::fork();
  if (pid_ == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(1);
    Side side(ends[1]);
    ::_exit(part(side));
  }
  EXPECT_GT(pid_, 0);
  ::close(ends[1]);
  fd_ = ends[0];
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  ::close(fd_);
}

bool ChildProcess::waitUntilTold() {
  pollfd readable{fd_, POLLIN, 0};
  const auto patience = std::chrono::milliseconds(kPatience).count();
  char byte = 0;
  return ::poll(&readable, 1, static_cast<int>(patience)) == 1 && ::read(fd_, &byte, 1) == 1;
}

void ChildProcess::kill(int signal) const { EXPECT_EQ(::kill(pid_, signal), 0); }

int ChildProcess::waitForEnd(std::chrono::milliseconds atMost) {
  int status = 0;
  const bool ended = eventually([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; }, atMost);
  if (!ended) {
    ADD_FAILURE() << "the child does not end";
    printStacks(pid_);
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, &status, 0);
  }
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

}  // namespace TestSupport
