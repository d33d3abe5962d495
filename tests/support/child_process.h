// ChildProcess: a part of a test in a process of its own, made by fork: to be ended by any means, or
// to end by any.
//
//   ChildProcess provider([](ChildProcess::Side& self) { ...; self.tell(); pause(); return 0; });
//   ASSERT_TRUE(provider.waitUntilTold());
//   provider.kill(SIGKILL);
//
// The child ends with what its part returns, by _exit, unless the part ends it otherwise. It dies
// with the test.
#pragma once

#include <sys/types.h>

#include <functional>

#include "tests/support/eventually.h"

namespace TestSupport {

class ChildProcess {
 public:
  // The child's end.
  class Side {
   public:
    explicit Side(int fd) : fd_(fd) {}
    // Wakes the parent's waitUntilTold.
    void tell();

   private:
    int fd_;
  };

  explicit ChildProcess(const std::function<int(Side&)>& part);
  // Kills it when it is still there.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  bool waitUntilTold();
  void kill(int signal) const;
  // The exit code, or minus the signal that killed it. One that does not end in time shows its
  // stacks, is killed and fails the test.
  int waitForEnd(std::chrono::milliseconds atMost = kPatience);

 private:
  pid_t pid_ = -1;
  int fd_ = -1;
};

}  // namespace TestSupport
