// Between a restart of the service and the return of a provider: no change that the provider would
// have refused is accepted.
#include <signal.h>

#include <atomic>
#include <future>
#include <iostream>
#include <thread>

#include "tests/integration/access_fixture.h"
#include "tests/support/stride.h"

namespace TestSupport {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;

// A provider in a process of its own that refuses every change of what it covers.
class Refuser : public Child {
 public:
  Refuser(const std::string& runtimeDir, const std::string& covered,
          std::optional<uid_t> user = std::nullopt)
      : Child(user, [=](Child::Parent& test) {
          TestClient provider("refuser", runtimeDir);
          provider.provide(covered, [](const ProviderQuestion& question) {
            return veto(question.key + " stays");
          });
          test.say("provides");
          test.hear();
          ConfigIF::UnregisterAllClientCallbacksReq all;
          ConfigIF::UnregisterAllClientCallbacksRsp answer;
          all.set_client_name("refuser");
          test.say(provider.call(all, &answer).ok() ? "provides no more" : "failed");
          test.hear();
        }) {
    EXPECT_EQ(hear(), "provides");
  }
};

class ProviderReturnTest : public testing::Test {
 protected:
  ProviderReturnTest() {
    EXPECT_EQ(chmod(service_.directory().path().c_str(), 0711), 0);
    service_.start();
  }
  void restart() {
    service_.kill();
    service_.start();
  }
  std::future<Outcome> writing(const std::string& value) {
    return std::async(std::launch::async,
                      [this, value] { return writer_.write("net.mtu", value); });
  }
  // Whether the service has begun to hold a change back.
  bool waits() const { return service_.waitForLog("net.mtu: a change waits for the return"); }

  // As good as for ever: what these tests do not wait for, they would fail for.
  ServiceProcess service_{kGuarded, {"--provider-grace", "60000", "--log-level", "debug"}};
  TestClient writer_{"writer", service_.runtimeDir()};
  TestClient other_{"other", service_.runtimeDir()};
};

TEST_F(ProviderReturnTest, AChangeWaitsForItsProviderAfterAKillAndIsThenRefused) {
  const Refuser provider(service_.runtimeDir(), "net.mtu");
  provider.signal(SIGSTOP);
  restart();
  auto written = writing("1400");
  ASSERT_TRUE(waits());
  EXPECT_THAT(other_.read("net.mtu").values, ElementsAre("1500")) << "reads do not wait";
  EXPECT_TRUE(other_.write("test.marker", "1").ok()) << "nor do other variables";
  EXPECT_EQ(written.wait_for(milliseconds(0)), std::future_status::timeout);
  provider.signal(SIGCONT);
  const Outcome outcome = written.get();
  EXPECT_EQ(outcome.error, CommonIF::ERROR_VETOED);
  EXPECT_EQ(outcome.text, "net.mtu stays\n");
}

TEST_F(ProviderReturnTest, TheSameHoldsAfterAProperStopAndForAValidation) {
  const Refuser provider(service_.runtimeDir(), "net");
  provider.signal(SIGSTOP);
  EXPECT_EQ(service_.terminate(), 0);
  service_.start();
  auto validated =
      std::async(std::launch::async, [&] { return writer_.validate("net.mtu", "1400"); });
  ASSERT_TRUE(waits());
  provider.signal(SIGCONT);
  EXPECT_EQ(validated.get().error, CommonIF::ERROR_VETOED);
}

TEST_F(ProviderReturnTest, ASecondKillWhileAChangeWaitsOpensNoGap) {
  const Refuser provider(service_.runtimeDir(), "net.mtu");
  provider.signal(SIGSTOP);
  restart();
  auto first = writing("1400");
  ASSERT_TRUE(waits());
  restart();
  EXPECT_EQ(first.get().call, PbUtility::kCallServiceDied);
  auto second = writing("1300");
  provider.signal(SIGCONT);
  EXPECT_EQ(second.get().error, CommonIF::ERROR_VETOED);
}

TEST_F(ProviderReturnTest, AProviderThatDiedMeanwhileIsNotWaitedFor) {
  Refuser provider(service_.runtimeDir(), "net.mtu");
  provider.signal(SIGSTOP);
  service_.kill();
  provider.kill();
  service_.start();
  EXPECT_TRUE(writer_.write("net.mtu", "1400").ok());
  EXPECT_EQ(service_.linesWith("waits for the return"), 0);
}

TEST_F(ProviderReturnTest, AProviderThatDiesWhileAChangeWaitsForItIsWaitedForNoLonger) {
  Refuser provider(service_.runtimeDir(), "net.mtu");
  provider.signal(SIGSTOP);
  restart();
  auto written = writing("1400");
  ASSERT_TRUE(waits());
  provider.kill();
  EXPECT_TRUE(written.get().ok());
}

TEST_F(ProviderReturnTest, WhoEndedOrWithdrewBeforeTheRestartIsNotWaitedFor) {
  Refuser ended(service_.runtimeDir(), "net.mtu");
  const Refuser withdrawn(service_.runtimeDir(), "net.mtu");
  withdrawn.say("withdraw");
  ASSERT_EQ(withdrawn.hear(), "provides no more");
  ended.kill();
  ASSERT_TRUE(eventually([&] { return writer_.write("net.mtu", "1300").ok(); }));
  restart();
  EXPECT_TRUE(writer_.write("net.mtu", "1400").ok());
  EXPECT_EQ(service_.linesWith("waits for the return"), 0);
}

TEST_F(ProviderReturnTest, WhoMayNotProvideAVariableHoldsUpNoChangeOfIt) {
  if (!canBecomeOthers()) GTEST_SKIP() << "only root can send clients of another user";
  const Refuser provider(service_.runtimeDir(), "net", kNobody);
  provider.signal(SIGSTOP);
  restart();
  writer_.actAs(CommonIF::SECURITY_ROLE_INSTALLER);
  EXPECT_TRUE(writer_.write("net.admin", "y").ok());
}

TEST(ProviderGraceTest, TheWaitEndsWithTheGrace) {
  ServiceProcess service(kGuarded, {"--provider-grace", "300"});
  service.start();
  const Refuser provider(service.runtimeDir(), "net.mtu");
  provider.signal(SIGSTOP);
  service.kill();
  service.start();
  TestClient writer("writer", service.runtimeDir());
  EXPECT_TRUE(writer.write("net.mtu", "1400").ok());
  EXPECT_EQ(service.linesWith("provider \"refuser\" (pid " + std::to_string(provider.pid()) +
                              ") has not come back; changes go on without it"),
            1);
}

TEST(ProviderGraceTest, WithoutAGraceNothingWaits) {
  ServiceProcess service(kGuarded, {"--provider-grace", "0"});
  service.start();
  const Refuser provider(service.runtimeDir(), "net.mtu");
  provider.signal(SIGSTOP);
  service.kill();
  service.start();
  TestClient writer("writer", service.runtimeDir());
  EXPECT_TRUE(writer.write("net.mtu", "1400").ok());
}

// The provider never agrees, so that one accepted write is one that it was not asked about.
TEST_F(ProviderReturnTest, UnderHammeringWritersAndKillsNoWriteIsEverAcceptedUnasked) {
  constexpr int kKills = 100 / kStride;
  constexpr int kWriters = 4;
  const Refuser provider(service_.runtimeDir(), "net.mtu");
  std::atomic<bool> stop{false};
  std::atomic<int> accepted{0};
  std::atomic<int> refused{0};
  std::vector<std::thread> writers;
  for (int i = 0; i < kWriters; ++i) {
    writers.emplace_back([&, i] {
      TestClient writer("writer " + std::to_string(i), service_.runtimeDir());
      for (int value = 100; !stop; ++value) {
        const Outcome outcome = writer.write("net.mtu", std::to_string(value % 1000 + 100));
        if (outcome.ok()) ++accepted;
        if (outcome.error == CommonIF::ERROR_VETOED) ++refused;
      }
    });
  }
  for (int kill = 0; kill < kKills; ++kill) {
    const int before = refused;
    restart();
    EXPECT_TRUE(eventually([&] { return refused > before + kWriters; }));
  }
  stop = true;
  for (std::thread& writer : writers) writer.join();
  std::cout << "[ refused  ] " << refused << " writes over " << kKills << " kills, accepted "
            << accepted << '\n';
  EXPECT_EQ(accepted, 0);
  EXPECT_THAT(other_.read("net.mtu").values, ElementsAre("1500"));
}

}  // namespace
}  // namespace TestSupport
