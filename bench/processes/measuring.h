// measure: calls an operation over and over and times each call.
#pragma once

#include <unistd.h>

#include <vector>

#include "bench/processes/machine.h"
#include "bench/processes/settings.h"

namespace Bench {

constexpr int kWarmUpCalls = 20;

// prepare() comes before each call and is not timed, but its context switches count. The operation
// says whether it worked; `others` are the processes that it involves beside this one.
template <typename Prepare, typename Operation>
Outcome measure(const Settings& settings, std::vector<pid_t> others, const Prepare& prepare,
                const Operation& operation) {
  std::vector<double> samples;
  samples.reserve(1'000'000);
  others.push_back(getpid());
  for (int i = 0; i < kWarmUpCalls; ++i) {
    prepare();
    if (!operation()) return failed("the operation failed");
  }
  const double switchesBefore = contextSwitches(others);
  const double end = nowMicroseconds() + static_cast<double>(settings.duration.count()) * 1000;
  double after = 0;
  while (after < end) {
    prepare();
    const double before = nowMicroseconds();
    const bool worked = operation();
    after = nowMicroseconds();
    if (!worked) return failed("the operation failed");
    samples.push_back(after - before);
  }
  const double switches = contextSwitches(others) - switchesBefore;
  Outcome outcome = summarize(std::move(samples));
  outcome.switches = switches / static_cast<double>(outcome.samples);
  return outcome;
}

}  // namespace Bench
