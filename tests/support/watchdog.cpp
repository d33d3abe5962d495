#include "tests/support/watchdog.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace TestSupport {

void printStacks(int pid) {
  prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);
  const std::string number = std::to_string(pid);
  const std::string command = "gdb -p " + number +
                              " -batch -ex 'thread apply all backtrace 24' 1>&2 2>/dev/null || "
                              "for task in /proc/" +
                              number +
                              "/task/*; do echo \"$task: $(cat $task/comm) waits in "
                              "$(cat $task/wchan)\" 1>&2; done";
  if (std::system(command.c_str()) != 0) std::fprintf(stderr, "no stacks to be had\n");
}

Watchdog::Watchdog(std::chrono::milliseconds bound)
    : bound_(bound), deadline_(std::chrono::steady_clock::now() + bound) {
  thread_ = std::thread([this] { watch(); });
}

Watchdog::~Watchdog() {
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    over_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void Watchdog::step(const std::string& what) {
  const std::lock_guard<std::mutex> guard(mutex_);
  step_ = what;
  deadline_ = std::chrono::steady_clock::now() + bound_;
}

void Watchdog::watch() {
  std::unique_lock<std::mutex> guard(mutex_);
  while (!over_ && std::chrono::steady_clock::now() < deadline_) {
    // A copy: the deadline moves with each step.
    const auto until = deadline_;
    changed_.wait_until(guard, until);
  }
  if (over_) return;
  std::fprintf(stderr, "hangs: %s\n", step_.c_str());
  printStacks(getpid());
  std::abort();
}

}  // namespace TestSupport
