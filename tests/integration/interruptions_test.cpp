// Signals, and a service that stands still: every call ends with its answer, or at its deadline with
// the value that stands for failure.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "appconfig/service/platform_cfg_service.h"
#include "platform/schema/config_if.pb.h"
#include "tests/integration/application.h"
#include "tests/integration/fixture.h"
#include "tests/support/watchdog.h"

namespace TestSupport {
namespace {

using AppConfig::AppCfgManager;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using Strings = std::list<std::string>;

std::atomic<int> interruptions{0};

// A signal every millisecond, of the sort that ends system calls early.
class Interruptions {
 public:
  Interruptions() {
    interruptions = 0;
    struct sigaction action {};
    action.sa_handler = [](int) { ++interruptions; };
    ::sigaction(SIGALRM, &action, nullptr);
    set(1000);
  }
  ~Interruptions() {
    // The handler stays: a signal may still be on its way.
    set(0);
  }
  Interruptions(const Interruptions&) = delete;
  Interruptions& operator=(const Interruptions&) = delete;

 private:
  static void set(suseconds_t microseconds) {
    const itimerval timer{{0, microseconds}, {0, microseconds}};
    ::setitimer(ITIMER_REAL, &timer, nullptr);
  }
};

class InterruptionsTest : public IntegrationTest {
 protected:
  InterruptionsTest() { config_->setPbInterface(&endpoint_); }

  static PbUtility::EndpointOptions waiting(const std::string& directory, milliseconds deadline) {
    PbUtility::EndpointOptions options = inDirectory(directory);
    options.deadline = deadline;
    return options;
  }

  Watchdog watchdog_{5 * kPatience};
  NotingConsumer consumer_;
  PbUtility::Endpoint endpoint_{"application", inDirectory(service_.runtimeDir())};
  AppCfgManager* config_ = AppCfgManager::getInstance();
};

TEST_F(InterruptionsTest, AProgramWithATimerEveryMillisecondDoesEverything) {
  const Interruptions signals;
  config_->setSecurityRole(AppConfig::eRoleFactory);
  registerHandler("net", &consumer_);
  for (int round = 0; interruptions < 300; ++round) {
    const std::string text = std::string(100'000, 'x') + std::to_string(round);
    ConfigResult result;
    ASSERT_TRUE(config_->setConfigVar("net", 0, "name", 0, text, &result));
    config_->removeVars("net");
    ASSERT_EQ(config_->getConfigVar("net", 0, "name", 0), text);
    ASSERT_TRUE(config_->isValid("net", 0, "mtu", 0, Strings{"1400"}, nullptr));
    std::vector<std::string> options;
    ASSERT_EQ(config_->getConfigOptions("net", 0, "mode", 0, options).size(), 2U);
    eErrorT error = eErrFailed;
    const AppConfig::SecurityRole user = AppConfig::eRoleUser;
    ASSERT_TRUE(config_->setAccessLevels("net", 0, "mtu", 0, nullptr, &user, error));
    ASSERT_TRUE(config_->setConfigVar("net", 0, "mtu", 0, 1000 + round % 2));
    ASSERT_TRUE(config_->resetValue("net", 0, "mode", 0));
    if (round == 0) {
      ASSERT_TRUE(consumer_.waitFor("value net.name = " + text));
    }
  }
}

TEST_F(InterruptionsTest, ADeadlineHoldsUnderSignals) {
  const Interruptions signals;
  constexpr milliseconds kDeadline(300);
  PbUtility::Endpoint hasty("hasty", waiting(service_.runtimeDir(), kDeadline));
  ConfigIF::ReadReq request;
  ConfigIF::ReadRsp response;
  EXPECT_EQ(hasty.sendWaitResponse(request, &response, TestClient::kService), 0);
  ASSERT_EQ(::kill(service_.pid(), SIGSTOP), 0);
  const auto before = steady_clock::now();
  EXPECT_EQ(hasty.sendWaitResponse(request, &response, TestClient::kService),
            PbUtility::kCallTimedOut);
  EXPECT_GE(steady_clock::now() - before, kDeadline);
  EXPECT_GT(interruptions, 10);
  ASSERT_EQ(::kill(service_.pid(), SIGCONT), 0);
  EXPECT_EQ(hasty.sendWaitResponse(request, &response, TestClient::kService), 0);
}

// What handlers run on takes no signal: the application's signal handlers find themselves on the
// application's own threads.
TEST_F(InterruptionsTest, EverySignalIsBlockedWhereHandlersRun) {
  class Looking final : public ProviderConfigHandler {
   public:
    bool dynamicValidate(const std::string&, int, const std::string&, int, const Strings&,
                         AppConfig::SecurityRole, ConfigResult*) override {
      ::pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
      return true;
    }
    bool onChange(const std::string&, int, const std::string&, int, const Strings&,
                  AppConfig::SecurityRole, ConfigResult*) override {
      return true;
    }
    sigset_t blocked{};
  };
  Looking looking;
  registerHandler("net", "name", &looking);
  ASSERT_TRUE(client_.write("net.name", "x").ok());
  for (int signal = 1; signal <= SIGRTMAX; ++signal) {
    // Two cannot be blocked, and the C library keeps those before SIGRTMIN to itself.
    if (signal == SIGKILL || signal == SIGSTOP || (signal >= 32 && signal < SIGRTMIN)) continue;
    EXPECT_EQ(::sigismember(&looking.blocked, signal), 1) << "signal " << signal;
  }
  sigset_t own;
  ::pthread_sigmask(SIG_BLOCK, nullptr, &own);
  EXPECT_EQ(::sigismember(&own, SIGTERM), 0) << "the application's own threads take them still";
}

// One operation of the facade at a service that answers nothing: what it returns, and how many
// requests it makes, each of which may take the endpoint's deadline.
struct Standing {
  const char* name;
  bool (*failsAsItShould)(AppCfgManager& config);
  int requests;

  friend std::ostream& operator<<(std::ostream& out, const Standing& standing) {
    return out << standing.name;
  }
};

const Standing kStanding[] = {
    {"GetText", [](AppCfgManager& c) { return c.getConfigVar("net", 0, "name", 0).empty(); }, 1},
    {"GetList",
     [](AppCfgManager& c) {
       Strings out{"before"};
       return c.getConfigVar("net", 0, "name", 0, out) == Strings{""} && out == Strings{""};
     },
     1},
    {"GetInt", [](AppCfgManager& c) { return c.getConfigVarInt("net", 0, "mtu", 0) == 0; }, 1},
    {"GetBool", [](AppCfgManager& c) { return !c.getConfigVarBool("net", 0, "mtu", 0); }, 1},
    {"IsDefault", [](AppCfgManager& c) { return c.isDefault("net", 0, "mtu", 0); }, 1},
    {"GetRecord", [](AppCfgManager& c) { return !c.getConfigValue("net", 0, "mtu", 0).hasValue(); },
     1},
    {"SetAndWait",
     [](AppCfgManager& c) {
       ConfigResult result;
       result.addResultMessage("untouched");
       return !c.setConfigVar("net", 0, "mtu", 0, 1400, &result) &&
              result.resultMessages().size() == 1;
     },
     1},
    {"SetOneWay", [](AppCfgManager& c) { return !c.setConfigVar("net", 0, "mtu", 0, 1400); }, 2},
    {"IsValid",
     [](AppCfgManager& c) { return !c.isValid("net", 0, "mtu", 0, Strings{"1400"}, nullptr); }, 1},
    {"Reset", [](AppCfgManager& c) { return !c.resetValue("net", 0, "mtu", 0); }, 1},
    {"GetOptions",
     [](AppCfgManager& c) {
       std::vector<std::string> out{"before"};
       return c.getConfigOptions("net", 0, "mode", 0, out).empty();
     },
     2},
    {"SetOptions",
     [](AppCfgManager& c) { return !c.setConfigOptions("net", 0, "mode", 0, {"auto"}, 0U); }, 1},
    {"GetDefaultOptions",
     [](AppCfgManager& c) {
       std::vector<std::string> out;
       return c.getConfigDefaultOptions("net", 0, "mode", 0, out).empty();
     },
     1},
    {"GetDefaultIndex",
     [](AppCfgManager& c) {
       unsigned int index = 9;
       c.getConfigOptionDefaultIndex("net", 0, "mode", 0, index);
       return index == 0;
     },
     3},
    {"GetAccess",
     [](AppCfgManager& c) {
       AppConfig::SecurityRole role = AppConfig::eRoleService;
       return !c.getAccessLevels("net", 0, "mtu", 0, &role, nullptr) &&
              role == AppConfig::eRoleService;
     },
     1},
    {"SetAccessAndWait",
     [](AppCfgManager& c) {
       eErrorT error = eErrNone;
       return !c.setAccessHidden("net", 0, "mtu", 0, error);
     },
     1},
    {"RegisterConsumer",
     [](AppCfgManager& c) {
       static NotingConsumer consumer;
       registerHandler("net", "mtu", &consumer, &c);
       return c.getPlatformCfgService()->isHandlerRegistered(ConfigVar("net", 0, "mtu", 0),
                                                             ConfigRegistrar::eValueChanged);
     },
     5},
    {"RegisterProvider",
     [](AppCfgManager& c) {
       static NotingProvider provider("");
       registerHandler("net", "mtu", &provider, &c);
       return c.getPlatformCfgService()->isProviderHandlerRegistered(ConfigVar("net", 0, "mtu", 0));
     },
     2},
};

class StandingServiceTest : public IntegrationTest, public testing::WithParamInterface<Standing> {};

// Counted rather than timed: the longest that an operation may take is its requests times the
// deadline of each.
class CountingPbUtils final : public PbUtility::PbUtils {
 public:
  explicit CountingPbUtils(PbUtility::PbUtils& endpoint) : endpoint_(endpoint) {}
  void addRemoteEndpoint(const std::string& name, int instance) override {
    endpoint_.addRemoteEndpoint(name, instance);
  }
  void addHandlers(const MSG_Callback* table) override { endpoint_.addHandlers(table); }
  std::string localEndpoint() const override { return endpoint_.localEndpoint(); }
  int send(const google::protobuf::MessageLite& request, const std::string& name,
           unsigned int* sequence) override {
    ++requests;
    return endpoint_.send(request, name, sequence);
  }
  int sendWaitResponse(const google::protobuf::MessageLite& request,
                       google::protobuf::MessageLite* response, const std::string& name) override {
    ++requests;
    const int status = endpoint_.sendWaitResponse(request, response, name);
    EXPECT_EQ(status, PbUtility::kCallTimedOut);
    return status;
  }
  std::atomic<int> requests{0};

 private:
  PbUtility::PbUtils& endpoint_;
};

TEST_P(StandingServiceTest, AnOperationFailsAsDocumentedAfterSoManyDeadlinesAtMost) {
  constexpr milliseconds kDeadline(100);
  Watchdog watchdog;
  watchdog.step(GetParam().name);
  PbUtility::EndpointOptions options = inDirectory(service_.runtimeDir());
  options.deadline = kDeadline;
  ASSERT_EQ(::kill(service_.pid(), SIGSTOP), 0);
  PbUtility::Endpoint endpoint("application", options);
  CountingPbUtils counting(endpoint);
  AppCfgManager* const config = AppCfgManager::getInstance();
  config->setPbInterface(&counting);
  const auto before = steady_clock::now();
  EXPECT_TRUE(GetParam().failsAsItShould(*config));
  EXPECT_EQ(counting.requests, GetParam().requests);
  EXPECT_GE(steady_clock::now() - before, kDeadline);
  ASSERT_EQ(::kill(service_.pid(), SIGCONT), 0);
}

INSTANTIATE_TEST_SUITE_P(Service, StandingServiceTest, testing::ValuesIn(kStanding),
                         [](const auto& standing) { return standing.param.name; });

}  // namespace
}  // namespace TestSupport
