#include "configsrv/configsrvd/stop_signals.h"

#include <pthread.h>

#include <utility>

StopSignals::StopSignals() {
  sigemptyset(&signals_);
  sigaddset(&signals_, SIGTERM);
  sigaddset(&signals_, SIGINT);
  // Ends the waiting when none of the others came.
  sigaddset(&signals_, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
}

StopSignals::~StopSignals() { stopWaiting(); }

void StopSignals::stopWaiting() {
  if (!thread_.joinable()) return;
  waiting_ = false;
  pthread_kill(thread_.native_handle(), SIGUSR1);
  thread_.join();
}

// Somebody else's SIGUSR1 means nothing here.
void StopSignals::waitInBackground(std::function<void()> onStop) {
  waiting_ = true;
  thread_ = std::thread([this, onStop = std::move(onStop)] {
    int signal = SIGUSR1;
    while (waiting_ && signal == SIGUSR1) sigwait(&signals_, &signal);
    if (signal != SIGUSR1) onStop();
  });
}
