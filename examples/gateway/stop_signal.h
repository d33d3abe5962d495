// StopSignal: lets main wait until somebody wants the program to end (SIGTERM, SIGINT).
//
// Threads:  made in main before any other thread starts: threads inherit the blocked signals, and
//           one that did not block them would be ended by them.
//
//   const Gateway::StopSignal stop;
//   PbUtility::Endpoint endpoint("gateway-app");
//   ...
//   stop.wait();
#pragma once

#include <csignal>

namespace Gateway {

class StopSignal {
 public:
  StopSignal();
  void wait() const;

 private:
  sigset_t signals_;
};

}  // namespace Gateway
