// RetryPace: how many refused registrations are asked for again, and when.
//
// One of them tries whether there is room: after kShortest, then after delays that double up to
// kLongest. When it is accepted the others follow at once, in batches that double as long as all of
// a batch is accepted; so a thousand that stay refused cost one request each time, and a thousand
// that find room a few round trips.
//
//   RetryPace pace;
//   pace.refused(now);              // some are refused: dueAt() is in a while
//   pace.sent(atMost);              // it has passed: at most pace.batch() were asked for again
//   pace.answered(accepted, now);   // one of these was answered; with the last, dueAt() is set anew
//
// Threads:  one.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <optional>

namespace PbUtility {

class RetryPace {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::milliseconds kShortest{100};
  static constexpr std::chrono::milliseconds kLongest{10'000};

  // When to ask again; nothing while answers are awaited, and when nothing is refused.
  std::optional<Clock::time_point> dueAt() const { return due_; }
  std::size_t batch() const { return batch_; }

  // Some are refused: changes nothing when that is known.
  void refused(Clock::time_point now) {
    if (!due_ && awaited_ == 0) due_ = now + delay_;
  }
  void sent(std::size_t count) {
    due_.reset();
    awaited_ = count;
    anyAccepted_ = anyRefused_ = false;
  }
  void answered(bool accepted, Clock::time_point now) {
    (accepted ? anyAccepted_ : anyRefused_) = true;
    if (--awaited_ > 0) return;
    delay_ = anyAccepted_ ? kShortest : std::min(delay_ * 2, kLongest);
    batch_ = anyRefused_ ? 1 : batch_ * 2;
    due_ = anyRefused_ ? now + delay_ : now;
  }

 private:
  std::chrono::milliseconds delay_ = kShortest;
  std::size_t batch_ = 1;
  std::optional<Clock::time_point> due_;
  std::size_t awaited_ = 0;
  bool anyAccepted_ = false;
  bool anyRefused_ = false;
};

}  // namespace PbUtility
