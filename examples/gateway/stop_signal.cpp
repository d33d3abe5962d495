#include "examples/gateway/stop_signal.h"

#include <pthread.h>

namespace Gateway {

StopSignal::StopSignal() : signals_() {
  sigemptyset(&signals_);
  sigaddset(&signals_, SIGTERM);
  sigaddset(&signals_, SIGINT);
  pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
}

void StopSignal::wait() const {
  int received = 0;
  sigwait(&signals_, &received);
}

}  // namespace Gateway
