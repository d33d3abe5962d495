// BatchTimes: how long operations took that are too short for a clock around each of them. What each
// took in instructions is read from outside: scripts/bench runs the program below callgrind and looks
// for the calls of countedOperation.
//
// Operations are timed in batches of kBatch, and one sample is a batch's mean. So p99 tells of
// stalls (a lock that was held, a core that was taken away), not of single slow operations. The
// first batches, which fill the processor's caches, are left out when there are enough others. One
// batch before all of them is neither timed nor counted, so that what happens once in a process (the
// first use of a symbol, the allocator's first block of a size) is in no figure.
//
//   BatchTimes times(state);
//   times.measure([&] { benchmark::DoNotOptimize(operation(next++)); });  // counters p50, p99, in ns
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <vector>

class BatchTimes {
 public:
  explicit BatchTimes(benchmark::State& state) : state_(state) { samples_.reserve(kMaxSamples); }

  template <typename Operation>
  void measure(Operation operation) {
    for (int i = 0; i < kBatch; ++i) operation();
    while (nextBatch()) {
      for (int i = 0; i < kBatch; ++i) countedOperation(operation);
    }
    report();
  }

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr int kBatch = 64;
  static constexpr int kWarmUpBatches = 32;
  // Reserves its memory beforehand, so that no batch pays for growth.
  static constexpr std::size_t kMaxSamples = 100'000;

  // Not inlined, so that callgrind sees each operation as one call. bench/report/instructions.py knows
  // the name. The call itself costs every benchmark and every floor the same.
  template <typename Operation>
  [[gnu::noinline]] static void countedOperation(Operation& operation) {
    operation();
  }

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
