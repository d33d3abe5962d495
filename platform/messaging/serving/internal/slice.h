// Slice: how much of one user's work is done before it is the others' turn: some frames, or as many as
// fit into some time, whichever ends first. A frame that was begun is always ended, so a slice may be
// longer than that by one frame.
//
// Reading the clock costs, so it counts only from begin() on: one frame that comes alone, while nobody
// else waits, is served without it.
#pragma once

#include <chrono>

namespace PbUtility {

class Slice {
 public:
  using Clock = std::chrono::steady_clock;

  Slice(unsigned frames, std::chrono::microseconds time) : frames_(frames), time_(time) {}

  // From here on the time counts.
  void begin() {
    if (begun_ == Clock::time_point()) begun_ = Clock::now();
  }
  // One more frame is taken, or one more connection looked at.
  void take() { ++taken_; }
  unsigned taken() const { return taken_; }
  bool isOver() const {
    if (taken_ >= frames_) return true;
    return begun_ != Clock::time_point() && taken_ > 0 && Clock::now() - begun_ >= time_;
  }

 private:
  const unsigned frames_;
  const std::chrono::microseconds time_;
  unsigned taken_ = 0;
  Clock::time_point begun_;
};

}  // namespace PbUtility
