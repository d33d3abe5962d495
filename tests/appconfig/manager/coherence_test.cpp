// What the facade promises when a request, a notice and another request about one variable meet.
// The scripted service answers in the middle of what the tests let happen, so each meeting is
// exactly the one that the test names.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "appconfig/manager/internal/in_flight.h"
#include "tests/appconfig/manager/manager_fixture.h"
#include "tests/support/stride.h"

namespace {

using TestSupport::answerReadsWith;
using TestSupport::ScriptedPbUtils;
using TestSupport::Value;
using Options = std::vector<std::string>;

class CoherenceTest : public TestSupport::ManagerTest {
 protected:
  using Action = std::function<void()>;

  // The next read has its answer settled, then the action happens, then the answer arrives. Reads
  // that the action makes, and later ones, are answered with afterwards.
  void duringTheNextRead(const Value& answer, Action action, const Value& afterwards) {
    pb.answer<ConfigIF::ReadReq, ConfigIF::ReadRsp>(
        [this, answer, action, afterwards](const auto&, auto& response) {
          answerReadsWith(pb, afterwards);
          action();
          for (const std::string& text : answer) response.add_values(text);
          response.set_is_default(true);
        });
  }

  void duringTheNextWrite(Action action) {
    pb.answer<ConfigIF::WriteReq, ConfigIF::WriteRsp>([this, action](const auto&, auto&) {
      pb.answer<ConfigIF::WriteReq, ConfigIF::WriteRsp>([](const auto&, auto&) {});
      action();
    });
  }

  static void onAnotherThread(const Action& action) { std::thread(action).join(); }

  void expectReadWithoutAsking(const std::string& expected) {
    const std::size_t before = reads();
    EXPECT_EQ(manager->getConfigVar(mtu), expected);
    EXPECT_EQ(reads(), before);
  }
  void expectReadByAsking(const std::string& expected) {
    const std::size_t before = reads();
    EXPECT_EQ(manager->getConfigVar(mtu), expected);
    EXPECT_EQ(reads(), before + 1);
  }
};

TEST_F(CoherenceTest, AValueThatANoticeStoredDuringAReadStays) {
  duringTheNextRead({"old"}, [this] { manager->updateConfigVar(mtu, {"new"}); }, {"old"});
  EXPECT_EQ(manager->getConfigVar(mtu), "old");
  expectReadWithoutAsking("new");
  EXPECT_FALSE(manager->isDefault("net", 0, "mtu", 1));
}

TEST_F(CoherenceTest, WhenANoticeWithAnotherValueCameDuringAWriteTheNextReadAsksWhichIsTheNewer) {
  duringTheNextWrite(
      [this] { onAnotherThread([this] { manager->updateConfigVar(mtu, {"before"}); }); });
  EXPECT_TRUE(manager->setConfigVar(mtu, "ours", nullptr));
  answerReadsWith(pb, {"ours"});
  expectReadByAsking("ours");
  expectReadWithoutAsking("ours");
}

TEST_F(CoherenceTest, ANoticeOfTheWriteItselfDuringItIsNoMatter) {
  duringTheNextWrite(
      [this] { onAnotherThread([this] { manager->updateConfigVar(mtu, {"ours"}); }); });
  EXPECT_TRUE(manager->setConfigVar(mtu, "ours", nullptr));
  expectReadWithoutAsking("ours");
}

TEST_F(CoherenceTest, ANoticeDuringAReadUnderTheLinksNamespaceCountsToo) {
  useNamespace(3);
  duringTheNextRead({"old"}, [this] { manager->updateConfigVar(mtu, {"new"}); }, {"old"});
  EXPECT_EQ(manager->getConfigVar(ConfigVar(3, "net", 0, "mtu", 1)), "old");
  expectReadWithoutAsking("new");
}

TEST_F(CoherenceTest, ANoticeAboutAnotherVariableDoesNotKeepAReadFromStoring) {
  duringTheNextRead({"1500"}, [this] { manager->updateConfigVar(name, {"eth"}); }, {});
  EXPECT_EQ(manager->getConfigVar(mtu), "1500");
  expectReadWithoutAsking("1500");
}

TEST_F(CoherenceTest, ANoticeAboutOptionsOrRolesDoesNotKeepAReadFromStoring) {
  AppConfig::ConfigAccessLevels levels;
  levels.readRoleSet = levels.writeRoleSet = true;
  duringTheNextRead({"1500"},
                    [&] {
                      manager->updateConfigVarOptions("net", 0, "mtu", 1, {"a"});
                      manager->updateConfigVarAccessLevels("net", 0, "mtu", 1, levels);
                    },
                    {});
  manager->getConfigVar(mtu);
  expectReadWithoutAsking("1500");
}

TEST_F(CoherenceTest, ANoticeAboutEitherRoleDoesNotKeepAReadFromStoring) {
  AppConfig::ConfigAccessLevels read;
  AppConfig::ConfigAccessLevels write;
  read.readRoleSet = write.writeRoleSet = true;
  for (const AppConfig::ConfigAccessLevels& levels : {read, write}) {
    duringTheNextRead(
        {"1500"}, [&] { manager->updateConfigVarAccessLevels("net", 0, "mtu", 1, levels); }, {});
    manager->getConfigVar(mtu);
    expectReadWithoutAsking("1500");
    manager->removeVars("net");
  }
}

TEST_F(CoherenceTest, ANoticeOfAnotherFacadeDoesNotKeepAReadFromStoring) {
  AppCfgManager other(link.get());
  duringTheNextRead({"1500"}, [&] { other.updateConfigVar(mtu, {"x"}); }, {});
  manager->getConfigVar(mtu);
  expectReadWithoutAsking("1500");
}

TEST_F(CoherenceTest, OfTwoReadsThatAgreeTheValueIsCached) {
  duringTheNextRead({"a"}, [this] { onAnotherThread([this] { manager->getConfigVar(mtu); }); },
                    {"a"});
  EXPECT_EQ(manager->getConfigVar(mtu), "a");
  expectReadWithoutAsking("a");
}

TEST_F(CoherenceTest, OfTwoReadsThatDisagreeNeitherIsCachedAndTheNextReadAsks) {
  duringTheNextRead({"a"}, [this] { onAnotherThread([this] { manager->getConfigVar(mtu); }); },
                    {"b"});
  EXPECT_EQ(manager->getConfigVar(mtu), "a");
  expectReadByAsking("b");
  expectReadWithoutAsking("b");
}

TEST_F(CoherenceTest, AReadThatAWriteOvertookDoesNotBringTheOldValueBack) {
  duringTheNextRead(
      {"old"},
      [this] {
        onAnotherThread([this] { EXPECT_TRUE(manager->setConfigVar(mtu, "mine", nullptr)); });
      },
      {"mine"});
  EXPECT_EQ(manager->getConfigVar(mtu), "old");
  expectReadByAsking("mine");
}

TEST_F(CoherenceTest, OfTwoWritesThatOverlapTheNextReadAsksWhichWon) {
  duringTheNextWrite([this] {
    onAnotherThread([this] { EXPECT_TRUE(manager->setConfigVar(mtu, "second", nullptr)); });
  });
  EXPECT_TRUE(manager->setConfigVar(mtu, "first", nullptr));
  answerReadsWith(pb, {"second"});
  expectReadByAsking("second");
}

TEST_F(CoherenceTest, ARejectedWriteDuringAReadDoesNotMatter) {
  refuseAll<ConfigIF::WriteReq, ConfigIF::WriteRsp>();
  duringTheNextRead({"a"}, [this] { manager->setConfigVar(mtu, "x", nullptr); }, {});
  manager->getConfigVar(mtu);
  expectReadWithoutAsking("a");
}

TEST_F(CoherenceTest, AFailedReadDuringAReadDoesNotMatter) {
  duringTheNextRead({"a"}, [this] { EXPECT_EQ(manager->getConfigVar(mtu), ""); }, {});
  manager->getConfigVar(mtu);
  expectReadWithoutAsking("a");
}

TEST_F(CoherenceTest, AnythingMayBeCalledFromWithinARequestOnTheSameThread) {
  duringTheNextRead({"a"},
                    [this] {
                      manager->getConfigVar(mtu);
                      manager->setConfigVar(mtu, "a", nullptr);
                      manager->updateIsDefault(mtu, false);
                      manager->getConfigValue("net", 0, "mtu", 1);
                      manager->removeVars("other");
                    },
                    {"a"});
  EXPECT_EQ(manager->getConfigVar(mtu), "a");
  expectReadWithoutAsking("a");
}

TEST_F(CoherenceTest, AVariableRemovedDuringAReadIsFilledByIt) {
  manager->updateIsDefault(mtu, false);
  duringTheNextRead({"a"}, [this] { EXPECT_EQ(manager->removeVars(""), 1U); }, {});
  manager->getConfigVar(mtu);
  expectReadWithoutAsking("a");
}

TEST_F(CoherenceTest, OptionsThatANoticeStoredDuringAReadOfThemStay) {
  pb.answer<ConfigIF::GetAttributeOptionsReq, ConfigIF::GetAttributeOptionsRsp>(
      [this](const auto&, auto& response) {
        manager->updateConfigVarOptions("net", 0, "mtu", 1, {"new"});
        response.add_options("old");
        response.set_default_index(3);
      });
  Options out;
  EXPECT_EQ(manager->getConfigOptions(mtu, out), Options{"old"});
  EXPECT_EQ(manager->getConfigOptions(mtu, out), Options{"new"});
  unsigned int index = 0;
  EXPECT_TRUE(manager->getConfigOptionDefaultIndex(mtu, index));
  EXPECT_EQ(index, 3U);
}

TEST_F(CoherenceTest, AValueThatIsAnnouncedDuringAReadOfOptionsDoesNotKeepThemOut) {
  answerReadsWith(pb, {"a"});
  pb.answer<ConfigIF::GetAttributeOptionsReq, ConfigIF::GetAttributeOptionsRsp>(
      [this](const auto&, auto& response) {
        manager->updateConfigVar(mtu, {"b"});
        response.add_options("a");
      });
  Options out;
  manager->getConfigOptions(mtu, out);
  EXPECT_TRUE(manager->retrieveConfigVar(mtu)->second.hasOptions());
  expectReadWithoutAsking("b");
}

TEST_F(CoherenceTest, ARoleThatANoticeStoredDuringAReadOfRolesStays) {
  manager->updateConfigVar(mtu, {"a"});
  pb.answer<ConfigIF::GetAccessLevelsReq, ConfigIF::GetAccessLevelsRsp>(
      [this](const auto&, auto& response) {
        AppConfig::ConfigAccessLevels levels;
        levels.writeRole = AppConfig::eRoleFactory;
        levels.writeRoleSet = true;
        manager->updateConfigVarAccessLevels("net", 0, "mtu", 1, levels);
        response.set_read_role(CommonIF::SECURITY_ROLE_USER);
        response.set_write_role(CommonIF::SECURITY_ROLE_USER);
      });
  SecurityRole read = AppConfig::eRolePublic;
  SecurityRole write = AppConfig::eRolePublic;
  EXPECT_TRUE(manager->getAccessLevels(mtu, &read, &write));
  EXPECT_EQ(write, AppConfig::eRoleUser);
  EXPECT_TRUE(manager->getAccessLevels(mtu, &read, &write));
  EXPECT_EQ(read, AppConfig::eRoleUser);
  EXPECT_EQ(write, AppConfig::eRoleFactory);
}

// Whoever holds a NoticeStore holds the mutex of the flights: a hit would wait for it forever.
TEST_F(CoherenceTest, AHitDoesNotWaitForStores) {
  manager->updateConfigVar(mtu, {"1500"});
  AppConfig::ConfigCache unrelated;
  const AppConfig::NoticeStore guard(unrelated, mtu, AppConfig::kValuePart);
  Value out;
  EXPECT_EQ(manager->getConfigVar(mtu, out), Value{"1500"});
  EXPECT_EQ(manager->getConfigVarInt(mtu), 1500);
  EXPECT_FALSE(manager->isDefault("net", 0, "mtu", 1));
}

// The same through the receivers of the process-wide link, which needs a process of its own.
TEST(CoherenceDispatchTest, ANoticeThatIsDispatchedDuringAReadStays) {
  ScriptedPbUtils pb;
  AppConfig::AppCfgManager* const manager = AppConfig::AppCfgManager::getLocalCfgManager();
  manager->setPbInterface(&pb);
  const ConfigVar mtu("net", 0, "mtu", 1);
  pb.answer<ConfigIF::ReadReq, ConfigIF::ReadRsp>([&](const auto&, auto& response) {
    std::thread([&] {
      pb.deliver(TestSupport::kConfigChangedId, TestSupport::changeNotice(mtu, {"new"}));
    }).join();
    response.add_values("old");
  });
  EXPECT_EQ(manager->getConfigVar(mtu), "old");
  EXPECT_EQ(manager->getConfigVar(mtu), "new");
}

// --- Many threads ---

// A service that lives in the test: values, options, and a queue of notices that one delivery
// thread empties. As a real one does, it answers and announces in the order of its changes, and
// follows a registration with the newest state.
class LivingService {
 public:
  LivingService() {
    pb.answer<ConfigIF::ReadReq, ConfigIF::ReadRsp>([this](const auto& request, auto& response) {
      {
        const std::lock_guard<std::mutex> guard(mutex_);
        response.add_values(values_[nameIn(request.inst())]);
      }
      linger();
    });
    pb.answer<ConfigIF::WriteReq, ConfigIF::WriteRsp>([this](const auto& request, auto&) {
      change(nameIn(request.value().inst()), request.value().values(0));
      linger();
    });
    pb.answer<ConfigIF::GetAttributeOptionsReq, ConfigIF::GetAttributeOptionsRsp>(
        [this](const auto& request, auto& response) {
          {
            const std::lock_guard<std::mutex> guard(mutex_);
            response.add_options(options_[nameIn(request.inst())]);
          }
          linger();
        });
    pb.answer<ConfigIF::RegisterClientCallbackReq, ConfigIF::RegisterClientCallbackRsp>(
        [this](const auto& request, auto&) { subscribe(request); });
    delivery_ = std::thread([this] { deliverAll(); });
  }

  ~LivingService() {
    {
      const std::lock_guard<std::mutex> guard(mutex_);
      stopped_ = true;
    }
    changed_.notify_all();
    delivery_.join();
  }

  void change(const std::string& name, const std::string& value) {
    const std::lock_guard<std::mutex> guard(mutex_);
    values_[name] = value;
    announceValue(name);
  }

  void changeOptions(const std::string& name, const std::string& option) {
    const std::lock_guard<std::mutex> guard(mutex_);
    options_[name] = option;
    announceOptions(name);
  }

  // Everything that was announced has been delivered when this returns.
  void drain() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return notices_.empty() && !delivering_; });
  }

  std::string value(const std::string& name) {
    const std::lock_guard<std::mutex> guard(mutex_);
    return values_[name];
  }
  std::string option(const std::string& name) {
    const std::lock_guard<std::mutex> guard(mutex_);
    return options_[name];
  }

  // How many turns an answer that is settled waits before it arrives.
  std::atomic<int> delay{0};
  ScriptedPbUtils pb;

 private:
  using Notice = std::function<void()>;

  static std::string nameIn(const ConfigIF::Inst& inst) { return inst.path(1).name(); }
  static ConfigVar keyOf(const std::string& name) { return ConfigVar("net", 0, name, 0); }

  void subscribe(const ConfigIF::RegisterClientCallbackReq& request) {
    const std::lock_guard<std::mutex> guard(mutex_);
    const std::string name = request.name().substr(request.name().find('.') + 1);
    subscriptions_.insert({name, request.type()});
    if (request.type() == ConfigIF::CALLBACK_VALUE_CHANGED) announceValue(name);
    if (request.type() == ConfigIF::CALLBACK_OPTIONS_CHANGED) announceOptions(name);
  }

  // Spins, since a thread that gave way would be gone for as long as others have work to do.
  void linger() {
    const auto end =
        std::chrono::steady_clock::now() + std::chrono::nanoseconds(300) * delay.load();
    while (std::chrono::steady_clock::now() < end) {
    }
  }

  // The mutex is held.
  void announceValue(const std::string& name) {
    if (subscriptions_.count({name, ConfigIF::CALLBACK_VALUE_CHANGED}) == 0) return;
    const auto notice = TestSupport::changeNotice(keyOf(name), {values_[name]});
    enqueue([this, notice] { pb.deliver(TestSupport::kConfigChangedId, notice); });
  }
  void announceOptions(const std::string& name) {
    if (subscriptions_.count({name, ConfigIF::CALLBACK_OPTIONS_CHANGED}) == 0) return;
    const auto notice = TestSupport::optionsNotice(keyOf(name), {options_[name]});
    enqueue([this, notice] { pb.deliver(TestSupport::kOptionsChangedId, notice); });
  }
  void enqueue(Notice notice) {
    notices_.push_back(std::move(notice));
    changed_.notify_all();
  }

  void deliverAll() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      changed_.wait(lock, [this] { return stopped_ || !notices_.empty(); });
      if (notices_.empty()) return;
      const Notice notice = std::move(notices_.front());
      notices_.pop_front();
      delivering_ = true;
      lock.unlock();
      notice();
      lock.lock();
      delivering_ = false;
      changed_.notify_all();
    }
  }

  std::mutex mutex_;  // guards all below; not held while a notice is delivered
  std::condition_variable changed_;
  std::map<std::string, std::string> values_;
  std::map<std::string, std::string> options_;
  std::set<std::pair<std::string, int>> subscriptions_;
  std::deque<Notice> notices_;
  bool delivering_ = false;
  bool stopped_ = false;
  std::thread delivery_;
};

void runAtOnce(const std::vector<std::function<void()>>& actions) {
  std::mutex mutex;
  std::condition_variable allReady;
  std::size_t ready = 0;
  std::vector<std::thread> threads;
  for (const auto& action : actions) {
    threads.emplace_back([&, action] {
      {
        std::unique_lock<std::mutex> guard(mutex);
        if (++ready == actions.size()) allReady.notify_all();
        allReady.wait(guard, [&] { return ready == actions.size(); });
      }
      action();
    });
  }
  for (std::thread& thread : threads) thread.join();
}

// Through the process-wide facade, with one service for all cases, as the link keeps pointing to
// its endpoint. Each round is one race, at the end of which nothing is on its way and the cache has
// to be right.
class CoherenceStressTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    living = new LivingService;
    AppConfig::AppCfgManager* const manager = AppConfig::AppCfgManager::getLocalCfgManager();
    manager->setPbInterface(&living->pb);
    // This service knows of no registration that an earlier case made with another.
    ConfigRegistrar& registry = *manager->getPlatformCfgService();
    constexpr ConsumerConfigHandler* kMarker = nullptr;
    registry.unregisterHandler(ConfigVar("net", 0, "mtu", 0), kMarker,
                               ConfigRegistrar::eValueChanged);
  }
  static void TearDownTestSuite() { delete living; }

  void race(int round, const std::vector<std::function<void()>>& actions) {
    service.delay = round % 12 * 40;
    if (round % 2 == 0) manager->removeVars("");
    runAtOnce(actions);
    service.drain();
    EXPECT_EQ(manager->getConfigVar(key), service.value("mtu")) << round;
    Options options;
    EXPECT_EQ(manager->getConfigOptions(key, options), Options{service.option("mtu")}) << round;
  }

  static constexpr int kRounds = 1500 / TestSupport::kStride;
  static LivingService* living;
  LivingService& service = *living;
  const ConfigVar key{"net", 0, "mtu", 0};
  AppConfig::AppCfgManager* const manager = AppConfig::AppCfgManager::getLocalCfgManager();
};

LivingService* CoherenceStressTest::living = nullptr;

TEST_F(CoherenceStressTest, AfterAReadRacedAChangeTheCacheIsTheServices) {
  for (int round = 0; round < kRounds; ++round) {
    const std::string next = std::to_string(round);
    race(round, {[&] { manager->getConfigVar(key); }, [&] { service.change("mtu", next); }});
  }
}

TEST_F(CoherenceStressTest, AfterAReadOfOptionsRacedAChangeTheCacheIsTheServices) {
  for (int round = 0; round < kRounds; ++round) {
    const std::string next = std::to_string(round);
    Options unused;
    race(round, {[&] { manager->getConfigOptions(key, unused); },
                 [&] { service.changeOptions("mtu", next); }});
  }
}

TEST_F(CoherenceStressTest, AfterWritesReadsAndChangesRacedTheCacheIsTheServices) {
  for (int round = 0; round < kRounds; ++round) {
    const std::string next = std::to_string(round);
    race(round, {[&] { EXPECT_TRUE(manager->setConfigVar(key, "mine " + next, nullptr)); },
                 [&] { EXPECT_TRUE(manager->setConfigVar(key, "ours " + next, nullptr)); },
                 [&] {
                   service.change("mtu", "theirs " + next);
                   service.changeOptions("mtu", next);
                 },
                 [&] {
                   manager->getConfigValue("net", 0, "mtu", 0);
                   manager->setSecurityRole(AppConfig::eRoleService);
                   manager->isDefault("net", 0, "mtu", 0);
                 },
                 [&] {
                   manager->getConfigVarInt(key);
                   if (round % 3 == 0) manager->removeVars("net");
                   manager->getConfigVarBool(key);
                 }});
  }
}

}  // namespace
