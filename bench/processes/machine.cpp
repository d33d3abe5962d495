// What the system tells about time and processes, from clock_gettime and /proc, and what a set of
// samples comes to.
#include "bench/processes/machine.h"

#include <sched.h>
#include <time.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

#include "bench/processes/settings.h"

namespace Bench {
namespace {

// The sum of the numbers behind names that end in the given text, in a file like /proc/1/status.
double sumOf(const std::string& file, const std::string& ending) {
  std::ifstream lines(file);
  double sum = 0;
  std::string line;
  while (std::getline(lines, line)) {
    const std::size_t end = line.find(ending);
    if (end != std::string::npos) sum += std::stod(line.substr(end + ending.size()));
  }
  return sum;
}

std::string procDir(pid_t process) { return "/proc/" + std::to_string(process); }

double percentile(const std::vector<double>& sorted, double part) {
  return sorted[static_cast<std::size_t>(part * static_cast<double>(sorted.size() - 1))];
}

}  // namespace

double nowMicroseconds() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

// The last one that is allowed: the first often has the machine's interrupts.
void pinToOneCpu() {
  cpu_set_t allowed;
  CPU_ZERO(&allowed);
  sched_getaffinity(0, sizeof allowed, &allowed);
  int last = CPU_SETSIZE - 1;
  while (last > 0 && !CPU_ISSET(static_cast<unsigned>(last), &allowed)) --last;
  CPU_ZERO(&allowed);
  CPU_SET(static_cast<unsigned>(last), &allowed);
  sched_setaffinity(0, sizeof allowed, &allowed);
}

double contextSwitches(const std::vector<pid_t>& processes) {
  double sum = 0;
  for (const pid_t process : processes) {
    std::error_code ignored;
    for (const auto& thread :
         std::filesystem::directory_iterator(procDir(process) + "/task", ignored))
      sum += sumOf(thread.path().string() + "/status", "voluntary_ctxt_switches:");
  }
  return sum;
}

double residentBytes(pid_t process) { return sumOf(procDir(process) + "/status", "VmRSS:") * 1024; }

Outcome summarize(std::vector<double> samples) {
  if (samples.empty()) return failed("there was no time for a single operation");
  std::sort(samples.begin(), samples.end());
  Outcome outcome;
  outcome.p50 = percentile(samples, 0.50);
  outcome.p99 = percentile(samples, 0.99);
  outcome.samples = samples.size();
  return outcome;
}

}  // namespace Bench
