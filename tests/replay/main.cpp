// replay_device: lives the life of one device, of a seed, and says in one line what came of it.
//
//   replay_device [--seed S] [--days D] [--pause SECONDS] [--lying-disk] [--log] [--trace]
//
// The line ends with the digest of all that was done: the same seed has the same, on every run of
// the same build. Fails when anything went wrong: 1 for what the device's rules forbid, 3 when all
// threads wait.
#include <linux/close_range.h>
#include <malloc.h>
#include <sched.h>
#include <sys/personality.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "tests/replay/device.h"

namespace {

struct Arguments {
  std::uint64_t seed = 1;
  bool isTraced = false;
  Replay::DeviceOptions device;
};

[[noreturn]] void refuse(const std::string& argument) {
  std::fprintf(stderr,
               "replay_device: %s: usage: replay_device [--seed S] [--days D] [--pause SECONDS] "
               "[--lying-disk] [--log] [--trace]\n",
               argument.c_str());
  std::_Exit(2);
}

std::uint64_t numberAt(char** text) {
  char* end = nullptr;
  const std::uint64_t number = *text == nullptr ? 0 : std::strtoull(*text, &end, 10);
  if (end == nullptr || *end != '\0') refuse(*text == nullptr ? "a number is missing" : *text);
  return number;
}

Arguments read(char** text) {
  Arguments arguments;
  while (*++text != nullptr) {
    const std::string option = *text;
    if (option == "--seed") {
      arguments.seed = numberAt(++text);
    } else if (option == "--days") {
      arguments.device.days = numberAt(++text);
    } else if (option == "--pause") {
      arguments.device.pauseSeconds = numberAt(++text);
    } else if (option == "--lying-disk") {
      arguments.device.diskLies = true;
    } else if (option == "--log") {
      arguments.device.isLogged = true;
    } else if (option == "--trace") {
      arguments.isTraced = true;
    } else {
      refuse(option);
    }
  }
  return arguments;
}

// The same addresses and descriptors each time, for whatever goes by their order: no environment,
// which takes room before all else, and nothing open that was inherited.
void beginAnew(char** texts) {
  char* nothing[] = {nullptr};
  const int before = ::personality(0xffffffff);
  const auto fixed = static_cast<unsigned long>(before) | ADDR_NO_RANDOMIZE;
  if (before >= 0 && (before & ADDR_NO_RANDOMIZE) == 0 && ::personality(fixed) >= 0)
    ::execve("/proc/self/exe", texts, nothing);
  ::close_range(3, ~0U, 0);
  ::mallopt(M_ARENA_MAX, 1);
}

// The baton passes quickest between threads of one processor.
void stayOnOneProcessor() {
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(static_cast<unsigned>(::sched_getcpu()), &one);
  ::sched_setaffinity(0, sizeof one, &one);
}

std::string hexadecimal(std::uint64_t number) {
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(number));
  return text;
}

std::string told(const Arguments& arguments, const std::string& problem,
                 const Replay::Counts& counts, const Replay::Scheduler& scheduler) {
  const auto some = [](std::uint64_t number, const char* what) {
    return std::to_string(number) + " " + what;
  };
  return "seed " + std::to_string(arguments.seed) + ": " + (problem.empty() ? "well" : problem) +
         "; " + some(counts.accepted, "writes accepted of ") + some(counts.written, "writes, ") +
         some(counts.met, "values met, ") + some(counts.kills, "kills, ") +
         some(counts.stops, "stops, ") + some(counts.powerCuts, "power cuts, ") +
         some(counts.rests, "rests, ") + some(scheduler.cuts(), "connections cut, ") +
         some(scheduler.calls(), "calls, ") + some(scheduler.switches(), "switches; digest ") +
         hexadecimal(scheduler.digest());
}

}  // namespace

int main(int /*count*/, char** texts) {
  Arguments arguments = read(texts);
  beginAnew(texts);
  stayOnOneProcessor();
  char directory[] = "/tmp/replay-XXXXXX";
  if (::mkdtemp(directory) == nullptr) refuse("no directory in /tmp");
  arguments.device.directory = directory;
  const auto programs = std::filesystem::read_symlink("/proc/self/exe").parent_path();
  for (const char* client : {"provider", "one", "two"})
    arguments.device.modules.push_back(programs / "replay" / (std::string(client) + ".so"));

  Replay::Scheduler& scheduler = Replay::Scheduler::begin(arguments.seed, arguments.isTraced);
  Replay::Device device(scheduler, arguments.device);
  const std::string problem = device.run();
  std::filesystem::remove_all(directory);
  std::puts(told(arguments, problem, device.counts(), scheduler).c_str());
  std::fflush(stdout);
  // Its threads go on waiting.
  std::_Exit(problem.empty() ? 0 : 1);
}
