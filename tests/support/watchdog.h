// Watchdog: ends the program when a step of a test takes longer than it may, and tells which step,
// and where the threads stand. For what would otherwise hang until the test runner gives up.
//
//   Watchdog watchdog;
//   watchdog.step("a write inside a value notice");   // the bound starts anew
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "tests/support/eventually.h"

namespace TestSupport {

class Watchdog {
 public:
  explicit Watchdog(std::chrono::milliseconds bound = kPatience);
  ~Watchdog();
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;

  void step(const std::string& what);

 private:
  void watch();

  const std::chrono::milliseconds bound_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::string step_ = "the first step";
  std::chrono::steady_clock::time_point deadline_;
  bool over_ = false;
  std::thread thread_;
};

// Prints the stacks of all threads of a process, by gdb where there is one, else what the kernel
// says each waits for.
void printStacks(int pid);

}  // namespace TestSupport
