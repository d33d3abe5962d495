// A provider that is gone is missed at once, however it went: the service's deadline for providers
// is an hour here, so what waits for it does not get by.
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <future>
#include <iostream>

#include "tests/integration/fixture.h"
#include "tests/support/child_process.h"

namespace TestSupport {
namespace {

using std::chrono::hours;
using std::chrono::steady_clock;
using Milliseconds = std::chrono::duration<double, std::milli>;

constexpr int kTimes = 11;

void shutDownAllSockets() {
  DIR* directory = ::opendir("/proc/self/fd");
  while (const dirent* entry = ::readdir(directory))
    ::shutdown(std::atoi(entry->d_name), SHUT_RDWR);
  ::closedir(directory);
}

struct End {
  const char* name;
  // In the provider, inside its handler, after it has told that it is being asked and has been let
  // go on; null: it waits to be killed.
  void (*go)();
  // It lives on and connects again, until it is killed.
  bool comesBack = false;

  friend std::ostream& operator<<(std::ostream& out, const End& end) { return out << end.name; }
};

const End kEnds[] = {
    {"Killed", nullptr},
    {"Exits", [] { ::_exit(0); }},
    {"Crashes",
     [] {
       const rlimit none{0, 0};
       ::setrlimit(RLIMIT_CORE, &none);
       std::abort();
     }},
    {"BecomesAnotherProgram",
     [] { ::execlp("sleep", "sleep", "3600", static_cast<char*>(nullptr)); }},
    {"ClosesItsConnections",
     [] {
       shutDownAllSockets();
       for (;;) ::pause();
     },
     true},
};

class ProviderDeathTest : public testing::TestWithParam<End> {
 protected:
  ProviderDeathTest() { service_.start(); }

  // From the moment the provider goes to the writer's answer.
  Milliseconds missedAfter(const End& end, bool onChange) {
    int letGo[2] = {-1, -1};
    EXPECT_EQ(::pipe(letGo), 0);
    ChildProcess provider([&](ChildProcess::Side& self) {
      TestClient client("provider", service_.runtimeDir());
      client.provide("net.mtu", [&](const ProviderQuestion& question) {
        if (question.onChange != onChange) return consent();
        self.tell();
        char byte = 0;
        while (::read(letGo[0], &byte, 1) != 1) continue;
        end.go();
        return consent();
      });
      self.tell();
      for (;;) ::pause();
      return 1;
    });
    EXPECT_TRUE(provider.waitUntilTold());
    auto written =
        std::async(std::launch::async, [this] { return writer_.write("net.mtu", "1400"); });
    EXPECT_TRUE(provider.waitUntilTold());
    const auto before = steady_clock::now();
    if (end.go == nullptr) {
      provider.kill(SIGKILL);
    } else {
      EXPECT_EQ(::write(letGo[1], "x", 1), 1);
    }
    EXPECT_EQ(written.wait_for(kPatience), std::future_status::ready);
    const Milliseconds taken = steady_clock::now() - before;
    provider.kill(SIGKILL);
    const Outcome outcome = written.get();
    EXPECT_EQ(outcome.error, CommonIF::ERROR_UNAVAILABLE);
    EXPECT_THAT(outcome.text, testing::HasSubstr("provider"));
    ::close(letGo[0]);
    ::close(letGo[1]);
    return taken;
  }

  ServiceProcess service_{kDefinitions, {"--provider-deadline", "3600000"}};
  TestClient writer_{"writer", service_.runtimeDir(), hours(1)};
};

TEST_P(ProviderDeathTest, TheChangeItIsAskedAboutFailsLongBeforeTheDeadline) {
  std::vector<double> taken;
  for (int time = 0; time < kTimes; ++time) {
    taken.push_back(missedAfter(GetParam(), time % 2 == 1).count());
  }
  std::sort(taken.begin(), taken.end());
  std::cout << "missed after " << taken[kTimes / 2] << " ms (median of " << kTimes << ", longest "
            << taken.back() << " ms)\n";
  // Whoever comes next does not wait for it. One that had just come back when it was killed may be
  // asked once more, if the service reads its registration and the write before its end.
  const auto written = [this] { return writer_.write("net.mtu", "1400").ok(); };
  EXPECT_TRUE(GetParam().comesBack ? eventually(written) : written());
}

INSTANTIATE_TEST_SUITE_P(Provider, ProviderDeathTest, testing::ValuesIn(kEnds),
                         [](const auto& end) { return end.param.name; });

}  // namespace
}  // namespace TestSupport
