// StopSignals: SIGTERM and SIGINT as a function call on an ordinary thread.
//
// A signal handler may do next to nothing; a thread that waits for the signals may do anything.
// Make one before any other thread, which then leaves the signals to it.
#pragma once

#include <signal.h>

#include <atomic>
#include <functional>
#include <thread>

class StopSignals {
 public:
  // Blocks the signals in this thread and in those that it starts from now on.
  StopSignals();
  ~StopSignals();  // stopWaiting()
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

  // Calls onStop, from a thread of its own, for the first of the signals.
  void waitInBackground(std::function<void()> onStop);
  // Afterwards onStop is not running and will not be called: what it uses may be destroyed.
  void stopWaiting();

 private:
  sigset_t signals_;
  std::atomic<bool> waiting_{false};
  std::thread thread_;
};
