// Settings of one run of one case, and what the run found out.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace Bench {

struct Settings {
  std::chrono::milliseconds duration{300};
  // Of the cases that are counted: exactly so many operations, however long they take.
  int operations = 100;
  // The service's program.
  std::string configsrvd;
  // The library that tells when its commits are over: commit_clock.h.
  std::string syncClock;
  // Below it, stores are made: its file system decides what a commit costs.
  std::string diskDir;
  // The same on a file system in memory, for figures that the disk's scatter would hide.
  std::string memoryDir;
};

struct Outcome {
  // Empty, or why there are no figures.
  std::string failure;
  // In the unit of the case. For a rate, p99 is 0.
  double p50 = 0;
  double p99 = 0;
  std::size_t samples = 0;
  // Context switches of all processes that took part, for one operation; -1: not counted.
  double switches = -1;
};

inline Outcome failed(std::string why) {
  Outcome outcome;
  outcome.failure = std::move(why);
  return outcome;
}

// The samples' middle and 99th percentile.
Outcome summarize(std::vector<double> samples);

struct Case {
  const char* name;
  Outcome (*ours)(const Settings& settings);
  Outcome (*floor)(const Settings& settings);
};

}  // namespace Bench
