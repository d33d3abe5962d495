// kill_under_load: writers write without pause, the service is killed in the middle of it and
// started again, and after each start every acknowledged write has to be there.
//
//   kill_under_load --kills 1000 [--seed S] [--writers W]
//
// Exit codes: 0 nothing lost and nothing mixed; 1 something was, or the service did not start; 2 usage.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "tests/kill/writer.h"
#include "tests/support/service_process.h"
#include "tests/support/threads.h"

namespace TestSupport {
namespace {

struct Plan {
  long kills = 0;
  unsigned seed = 1;
  int writers = 6;
};

struct Tally {
  long kills = 0;
  long acknowledged = 0;
  long lost = 0;
  long mixed = 0;
  long setAside = 0;

  bool isGood() const { return lost == 0 && mixed == 0 && setAside == 0; }
};

class KillRun {
 public:
  explicit KillRun(const Plan& plan)
      : random_(plan.seed), service_(Writer::definitions(plan.writers)) {
    for (int i = 0; i < plan.writers; ++i)
      writers_.push_back(std::make_unique<Writer>(i, service_.runtimeDir()));
  }

  Tally run(long kills) {
    service_.start();
    while (tally_.kills < kills && tally_.isGood() && service_.pid() > 0) oneKill();
    count();
    return tally_;
  }

 private:
  void oneKill() {
    Threads threads;
    for (auto& writer : writers_) threads.run([&writer] { writer->writeUntilFailure(); });
    // The moment is the point here, not a wait for anything.
    std::this_thread::sleep_for(moment());
    service_.kill();
    threads.join();
    ++tally_.kills;
    service_.start();
    for (auto& writer : writers_) writer->verify(&tally_.lost, &tally_.mixed);
  }

  // From the first snapshot after the start to well into the writing.
  std::chrono::microseconds moment() {
    return std::chrono::microseconds(random_() % (random_() % 4 == 0 ? 5'000 : 120'000));
  }

  void count() {
    tally_.acknowledged = 0;
    for (const auto& writer : writers_) tally_.acknowledged += writer->acknowledged();
    tally_.setAside = service_.linesWith("cannot be used") + service_.linesWith("damaged");
  }

  std::mt19937 random_;
  ServiceProcess service_;
  std::vector<std::unique_ptr<Writer>> writers_;
  Tally tally_;
};

// Wide enough for a seed wherever the program runs: a device's long has no room for every unsigned.
std::int64_t numberBehind(int argc, char** argv, const char* option, std::int64_t otherwise) {
  for (int i = 1; i + 1 < argc; i += 2) {
    if (std::strcmp(argv[i], option) == 0) return std::strtoll(argv[i + 1], nullptr, 10);
  }
  return otherwise;
}

bool isUsage(int argc, char** argv) {
  for (int i = 1; i < argc; i += 2) {
    const std::string option = argv[i];
    if (option != "--kills" && option != "--seed" && option != "--writers") return false;
  }
  return argc % 2 == 1;
}

int report(const Plan& plan, const Tally& tally) {
  std::printf("%ld kills (seed %u, %d writers), %ld writes acknowledged, %ld lost, %ld mixed\n",
              tally.kills, plan.seed, plan.writers, tally.acknowledged, tally.lost, tally.mixed);
  if (tally.setAside > 0) std::printf("%ld times the store was set aside\n", tally.setAside);
  const bool complete = tally.kills == plan.kills && tally.acknowledged > 0;
  if (!complete) std::printf("the run did not get to its end\n");
  const bool failed = testing::UnitTest::GetInstance()->Failed();
  return tally.isGood() && complete && !failed ? 0 : 1;
}

}  // namespace
}  // namespace TestSupport

int main(int argc, char** argv) {
  TestSupport::Plan plan;
  plan.kills = static_cast<long>(TestSupport::numberBehind(argc, argv, "--kills", 0));
  plan.seed = static_cast<unsigned>(TestSupport::numberBehind(argc, argv, "--seed", plan.seed));
  plan.writers = static_cast<int>(TestSupport::numberBehind(argc, argv, "--writers", plan.writers));
  if (!TestSupport::isUsage(argc, argv) || plan.kills < 1 || plan.writers < 1) {
    std::fprintf(stderr, "usage: kill_under_load --kills N [--seed S] [--writers W]\n");
    return 2;
  }
  int noArguments = 1;
  testing::InitGoogleTest(&noArguments, argv);
  TestSupport::KillRun run(plan);
  return report(plan, run.run(plan.kills));
}
