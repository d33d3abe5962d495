// CommitClock: when the service's last commit was over, told by the service's own process.
//
// configsrvd is started with sync_clock.cpp loaded before everything else, which notes the time
// whenever fdatasync returns: the last step of a commit. The service itself is the real one.
#pragma once

#include "bench/processes/processes.h"
#include "bench/processes/settings.h"

namespace Bench {

class CommitClock {
 public:
  // While it lives, programs that this process starts note their commits.
  explicit CommitClock(const Settings& settings);
  ~CommitClock();
  CommitClock(const CommitClock&) = delete;
  CommitClock& operator=(const CommitClock&) = delete;

  // As nowMicroseconds() tells time; 0 before the first commit.
  double lastCommitAt() const { return *place_; }

 private:
  TempDir dir_;
  const double* place_ = nullptr;
};

}  // namespace Bench
