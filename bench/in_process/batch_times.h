// BatchTimes: how long operations took that are too short for a clock around each of them.
//
// Operations are timed in batches of kBatch, and one sample is a batch's mean. So p99 tells of
// stalls (a lock that was held, a core that was taken away), not of single slow operations. The
// first batches, which fill the processor's caches, are left out when there are enough others.
//
//   BatchTimes times(state);
//   while (times.nextBatch()) {
//     for (int i = 0; i < BatchTimes::kBatch; ++i) benchmark::DoNotOptimize(operation(i));
//   }
//   times.report();  // counters p50 and p99, in ns
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <vector>

class BatchTimes {
 public:
  static constexpr int kBatch = 64;

  explicit BatchTimes(benchmark::State& state) : state_(state) { samples_.reserve(kMaxSamples); }

  bool nextBatch() {
    const Clock::time_point now = Clock::now();
    if (started_ && samples_.size() < kMaxSamples) samples_.push_back(now - start_);
    const bool more = state_.KeepRunningBatch(kBatch);
    started_ = true;
    start_ = Clock::now();
    return more;
  }

  void report() {
    using benchmark::Counter;
    if (samples_.size() > 2 * kWarmUpBatches)
      samples_.erase(samples_.begin(), samples_.begin() + kWarmUpBatches);
    state_.counters["p50"] = Counter(percentile(0.50), Counter::kAvgThreads);
    state_.counters["p99"] = Counter(percentile(0.99), Counter::kAvgThreads);
  }

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr int kWarmUpBatches = 32;
  // Room is taken beforehand, so that no batch pays for its growth.
  static constexpr std::size_t kMaxSamples = 100'000;

  // In ns for one operation.
  double percentile(double part) {
    if (samples_.empty()) return 0;
    const auto rank = static_cast<std::size_t>(part * static_cast<double>(samples_.size() - 1));
    const auto nth = samples_.begin() + static_cast<std::ptrdiff_t>(rank);
    std::nth_element(samples_.begin(), nth, samples_.end());
    return std::chrono::duration<double, std::nano>(*nth).count() / kBatch;
  }

  benchmark::State& state_;
  std::vector<Clock::duration> samples_;
  Clock::time_point start_;
  bool started_ = false;
};
