// process_bench: runs one side of one case once and prints what it found as one line of JSON.
//
//   process_bench --list
//   process_bench CASE ours|floor [--pin] [--ms N | --operations N] [--configsrvd FILE] [--disk DIR]
//                                 [--memory DIR]
//
// bench/report/run.py runs all of it in rounds; by hand it is for a profiler. Ends with 1 and a
// line on standard error when a run could not be made: figures of a failed run are worth nothing.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "bench/processes/cases.h"
#include "bench/processes/machine.h"

namespace {

using Bench::Case;
using Bench::Outcome;
using Bench::Settings;

std::vector<Case> allCases() {
  std::vector<Case> all;
  for (const auto cases : {Bench::roundTripCases, Bench::durableWriteCases, Bench::noticeCases,
                           Bench::parallelRequestCases, Bench::startCases, Bench::memoryCases,
                           Bench::countedRequestCases, Bench::countedWriteCases}) {
    for (const Case& one : cases()) all.push_back(one);
  }
  return all;
}

// Where this program was built.
std::filesystem::path buildDir() {
  std::error_code ignored;
  return std::filesystem::read_symlink("/proc/self/exe", ignored).parent_path().parent_path();
}

int usage() {
  std::fprintf(stderr,
               "usage: process_bench --list | CASE ours|floor [--pin] [--ms N | --operations N] "
               "[--configsrvd FILE] [--disk DIR] [--memory DIR]\n");
  return 2;
}

int list() {
  for (const Case& one : allCases())
    std::printf("%s%s\n", one.name, one.floor == nullptr ? "" : " floor");
  return 0;
}

bool readOptions(int argc, char** argv, Settings& settings) {
  for (int i = 3; i < argc; ++i) {
    const std::string option = argv[i];
    if (option == "--pin") {
      Bench::pinToOneCpu();
      continue;
    }
    if (++i == argc) return false;
    if (option == "--ms")
      settings.duration = std::chrono::milliseconds(std::atoi(argv[i]));
    else if (option == "--operations")
      settings.operations = std::atoi(argv[i]);
    else if (option == "--configsrvd")
      settings.configsrvd = argv[i];
    else if (option == "--disk")
      settings.diskDir = argv[i];
    else if (option == "--memory")
      settings.memoryDir = argv[i];
    else
      return false;
  }
  return true;
}

int print(const std::string& name, const Outcome& outcome) {
  if (!outcome.failure.empty()) {
    std::fprintf(stderr, "process_bench: %s: %s\n", name.c_str(), outcome.failure.c_str());
    return 1;
  }
  std::printf("{\"p50\": %.6g, \"p99\": %.6g, \"samples\": %zu, \"switches\": %.4g}\n", outcome.p50,
              outcome.p99, outcome.samples, outcome.switches);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], "--list") == 0) return list();
  if (argc < 3) return usage();
  Settings settings;
  settings.configsrvd = buildDir() / "bin/configsrvd";
  settings.syncClock = buildDir() / "lib/libbench_sync_clock.so";
  settings.diskDir = settings.memoryDir = "/tmp";
  if (!readOptions(argc, argv, settings)) return usage();
  const std::string side = argv[2];
  for (const Case& one : allCases()) {
    if (std::strcmp(one.name, argv[1]) != 0) continue;
    const auto run = side == "ours" ? one.ours : side == "floor" ? one.floor : nullptr;
    return run == nullptr ? usage() : print(one.name, run(settings));
  }
  return usage();
}
