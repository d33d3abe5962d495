// The library as an application uses it, against the running service.
#include <atomic>
#include <mutex>

#include "appconfig/manager/fresh_read.h"
#include "tests/integration/application.h"
#include "tests/integration/fixture.h"
#include "tests/support/cut_connections.h"

namespace TestSupport {
namespace {

using AppConfig::AppCfgManager;
using testing::ElementsAre;

class LibraryTest : public IntegrationTest {
 protected:
  LibraryTest() { config_->setPbInterface(&endpoint_); }
  // Handlers outlive nobody: nothing is dispatched once the endpoint is gone.
  NotingConsumer consumer_;
  NotingProvider provider_{"1300"};
  PbUtility::Endpoint endpoint_{"application", inDirectory(service_.runtimeDir())};
  AppCfgManager* config_ = AppCfgManager::getInstance();
};

TEST_F(LibraryTest, AValueIsReadAsTextNumberListAndDefault) {
  EXPECT_EQ(config_->getConfigVar("Net", 0, "NAME", 0), "gateway");
  EXPECT_EQ(config_->getConfigVarInt("net", 0, "mtu", 0), 1500);
  std::list<std::string> servers;
  config_->getConfigVar("net", 0, "servers", 0, servers);
  EXPECT_THAT(servers, ElementsAre("a", "b"));
  EXPECT_TRUE(config_->isDefault("net", 0, "mtu", 0));
  EXPECT_EQ(config_->getConfigVar("net", 0, "unknown", 0), "");
}

TEST_F(LibraryTest, ACachedValueFollowsTheWritesOfOthers) {
  EXPECT_EQ(config_->getConfigVarInt("net", 0, "mtu", 0), 1500);
  ASSERT_TRUE(other_.write("net.mtu", "1400").ok());
  EXPECT_TRUE(eventually([&] { return config_->getConfigVarInt("net", 0, "mtu", 0) == 1400; }));
  EXPECT_FALSE(config_->isDefault("net", 0, "mtu", 0));
}

TEST_F(LibraryTest, ARepeatedReadAsksTheServiceOnce) {
  ConfigIF::StatusRsp before;
  ConfigIF::StatusRsp after;
  ASSERT_TRUE(client_.request(ConfigIF::StatusReq(), &before).ok());
  for (int i = 0; i < 100; ++i) EXPECT_EQ(config_->getConfigVarInt("net", 0, "mtu", 0), 1500);
  ASSERT_TRUE(client_.request(ConfigIF::StatusReq(), &after).ok());
  EXPECT_EQ(after.reads() - before.reads(), 1U);
}

TEST_F(LibraryTest, AWriteThatWaitsIsReadBackAtOnceAndARefusedOneTellsWhy) {
  ConfigResult result;
  EXPECT_TRUE(config_->setConfigVar("net", 0, "mtu", 0, 1400, &result));
  EXPECT_EQ(config_->getConfigVarInt("net", 0, "mtu", 0), 1400);
  EXPECT_FALSE(config_->setConfigVar("net", 0, "mtu", 0, 9999, &result));
  EXPECT_EQ(result.error(), eErrInvalidValue);
  ASSERT_FALSE(result.resultMessages().empty());
  EXPECT_THAT(result.resultMessages().front(), testing::HasSubstr("9000"));
  EXPECT_EQ(config_->getConfigVarInt("net", 0, "mtu", 0), 1400);
}

TEST_F(LibraryTest, AConsumerIsToldOfAChangeByAnotherProcess) {
  registerHandler("net", &consumer_);
  ASSERT_TRUE(other_.write("net.mtu", "1400").ok());
  EXPECT_TRUE(consumer_.waitFor("value net.mtu = 1400"));
}

TEST_F(LibraryTest, AProviderVetoesWithItsReasonAndHearsOfWhatItAccepted) {
  registerHandler("net", "mtu", &provider_);
  const Outcome vetoed = other_.write("net.mtu", "1300");
  EXPECT_EQ(vetoed.error, CommonIF::ERROR_VETOED);
  EXPECT_THAT(vetoed.text, testing::HasSubstr("1300 is bad"));
  EXPECT_TRUE(other_.write("net.mtu", "1400").ok());
  EXPECT_THAT(provider_.notes(),
              ElementsAre("may net.mtu = 1300", "may net.mtu = 1400", "change net.mtu = 1400"));
}

TEST_F(LibraryTest, AfterARestartOfTheServiceTheCacheAndTheHandlersGoOn) {
  registerHandler("net", "mtu", &consumer_);
  EXPECT_EQ(config_->getConfigVarInt("net", 0, "mtu", 0), 1500);
  service_.kill();
  service_.start();
  ASSERT_TRUE(other_.write("net.mtu", "1400").ok());
  EXPECT_TRUE(consumer_.waitFor("value net.mtu = 1400"));
  EXPECT_EQ(config_->getConfigVarInt("net", 0, "mtu", 0), 1400);
}

TEST_F(LibraryTest, AChangedDefaultReachesCachesAcrossARestartOfTheService) {
  EXPECT_EQ(config_->getConfigVar("net", 0, "name", 0), "gateway");
  service_.kill();
  service_.redefine("[variable.\"net.name\"]\ntype = \"string\"\ndefault = \"renamed\"\n");
  service_.start();
  EXPECT_TRUE(eventually([&] { return config_->getConfigVar("net", 0, "name", 0) == "renamed"; }));
}

TEST_F(LibraryTest, AReadWhileTheServiceIsAwayFailsAtOnceAndTheNextOneWorks) {
  service_.kill();
  EXPECT_EQ(config_->getConfigVar("net", 0, "name", 0), "");
  service_.start();
  EXPECT_EQ(config_->getConfigVar("net", 0, "name", 0), "gateway");
}

TEST_F(LibraryTest, AHandlerMayReadAndWriteOtherVariables) {
  class Busy final : public ConsumerConfigHandler {
   public:
    explicit Busy(AppCfgManager* config) : config_(config) {}
    void configChanged(const std::string&, int, const std::string&, int,
                       const std::list<std::string>& value, const std::string&) override {
      ConfigResult result;
      written = config_->setConfigVar("net", 0, "name", 0, value.front(), &result);
    }
    void submit(const std::string&, int, const std::string&, int, int,
                const std::string&) override {}
    void optionsChanged(const std::string&, int, const std::string&, int,
                        const std::list<std::string>&, std::string) override {}
    void accessLevelsChanged(const std::string&, int, const std::string&, int,
                             AppConfig::SecurityRole, AppConfig::SecurityRole,
                             std::string) override {}
    std::atomic<bool> written{false};

   private:
    AppCfgManager* const config_;
  };
  // Never ends before the delivery thread, which the fixture's endpoint stops later.
  static Busy busy(config_);
  registerHandler("net", "mtu", &busy);
  ASSERT_TRUE(other_.write("net.mtu", "1400").ok());
  EXPECT_TRUE(eventually([&] { return busy.written.load(); }));
  EXPECT_EQ(other_.read("net.name").values.at(0), "1400");
}

// Does something when it is told of a change, before it has answered.
class InterruptedProvider final : public ProviderConfigHandler {
 public:
  bool dynamicValidate(const std::string&, int, const std::string&, int,
                       const std::list<std::string>&, AppConfig::SecurityRole,
                       ConfigResult*) override {
    return true;
  }
  bool onChange(const std::string&, int, const std::string&, int, const std::list<std::string>&,
                AppConfig::SecurityRole, ConfigResult*) override {
    interruption();
    return true;
  }
  std::function<void()> interruption;
};

TEST_F(LibraryTest, AValueOnItsWayWhenTheServiceDiedIsNotLeftInAProvidersCache) {
  static InterruptedProvider provider;
  static std::atomic<bool> killed{false};
  provider.interruption = [this] {
    service_.kill();
    killed = true;
  };
  registerHandler("net", "mtu", &provider);
  EXPECT_EQ(config_->getConfigVarInt("net", 0, "mtu", 0), 1500);
  EXPECT_FALSE(other_.write("net.mtu", "1400").ok());
  ASSERT_TRUE(eventually([] { return killed.load(); }));
  service_.start();
  EXPECT_TRUE(eventually([&] { return config_->getConfigVarInt("net", 0, "mtu", 0) == 1500; }));
}

TEST_F(LibraryTest, AValueOnItsWayWhenTheConnectionWasCutIsNotLeftInAProvidersCache) {
  static InterruptedProvider provider;
  provider.interruption = [] { cutConnectionsToServices(); };
  registerHandler("net", "mtu", &provider);
  EXPECT_EQ(config_->getConfigVarInt("net", 0, "mtu", 0), 1500);
  EXPECT_FALSE(other_.write("net.mtu", "1400").ok());
  EXPECT_TRUE(eventually([&] { return config_->getConfigVarInt("net", 0, "mtu", 0) == 1500; }));
}

TEST_F(LibraryTest, AHandlerMadeBeforeTheServiceCameHearsWhatItMissed) {
  service_.kill();
  registerHandler("net", "mtu", &consumer_);
  service_.start();
  EXPECT_TRUE(consumer_.waitFor("value net.mtu = 1500"));
}

// Holds up all notices behind the one about test.marker, and notes what the cache holds when it is
// told of a change of net.name.
class SlowConsumer final : public ConsumerConfigHandler {
 public:
  explicit SlowConsumer(AppCfgManager* config) : config_(config) {}

  void configChanged(const std::string&, int, const std::string& name, int,
                     const std::list<std::string>& value, const std::string&) override {
    if (name == "marker") return wait();
    if (name != "name") return;
    const std::string cached = config_->getConfigVar("net", 0, "name", 0);
    const std::lock_guard<std::mutex> guard(mutex_);
    told_.push_back(value.front());
    cached_.push_back(cached);
  }
  void submit(const std::string&, int, const std::string&, int, int, const std::string&) override {}
  void attributeChanged(const std::string&, int, const std::string&, int) override {}
  void optionsChanged(const std::string&, int, const std::string&, int,
                      const std::list<std::string>&, std::string) override {}
  void accessLevelsChanged(const std::string&, int, const std::string&, int,
                           AppConfig::SecurityRole, AppConfig::SecurityRole, std::string) override {
  }

  bool isWaiting() const { return waiting_; }
  void goOn() { mayGoOn_ = true; }
  std::vector<std::string> told() const { return copyOf(told_); }
  std::vector<std::string> cached() const { return copyOf(cached_); }

 private:
  void wait() {
    waiting_ = true;
    EXPECT_TRUE(eventually([this] { return mayGoOn_.load(); }));
  }
  std::vector<std::string> copyOf(const std::vector<std::string>& lines) const {
    const std::lock_guard<std::mutex> guard(mutex_);
    return lines;
  }

  AppCfgManager* const config_;
  std::atomic<bool> waiting_{false};
  std::atomic<bool> mayGoOn_{false};
  mutable std::mutex mutex_;  // Guards told_ and cached_.
  std::vector<std::string> told_;
  std::vector<std::string> cached_;
};

TEST_F(LibraryTest, WhatWasWrittenIsNotFollowedByWhatLateNoticesTell) {
  // Never ends before the delivery thread, which the fixture's endpoint stops later.
  static SlowConsumer slow(config_);
  registerHandler("net", "name", &slow);
  registerHandler("test", "marker", &slow);
  ASSERT_TRUE(other_.write("test.marker", "7").ok());
  ASSERT_TRUE(eventually([] { return slow.isWaiting(); }));
  ASSERT_TRUE(other_.write("net.name", "theirs").ok());
  ConfigResult result;
  ASSERT_TRUE(config_->setConfigVar("net", 0, "name", 0, "mine", &result));
  EXPECT_EQ(config_->getConfigVar("net", 0, "name", 0), "mine");
  config_->removeVars("net");
  std::list<std::string> fresh;
  EXPECT_TRUE(AppConfig::readFresh(ConfigVar("net", 0, "name", 0), fresh));
  EXPECT_THAT(fresh, ElementsAre("mine"));
  slow.goOn();
  ASSERT_TRUE(eventually([] { return !slow.told().empty() && slow.told().back() == "mine"; }));
  EXPECT_THAT(slow.cached(), testing::Each("mine"));
  EXPECT_EQ(config_->getConfigVar("net", 0, "name", 0), "mine");
}

TEST_F(LibraryTest, AFreshReadWaitsForNoNotice) {
  static SlowConsumer slow(config_);
  registerHandler("test", "marker", &slow);
  EXPECT_EQ(config_->getConfigVar("net", 0, "name", 0), "gateway");
  ASSERT_TRUE(other_.write("test.marker", "7").ok());
  ASSERT_TRUE(eventually([] { return slow.isWaiting(); }));
  ASSERT_TRUE(other_.write("net.name", "renamed").ok());
  EXPECT_EQ(config_->getConfigVar("net", 0, "name", 0), "gateway") << "its notice waits";
  std::list<std::string> fresh;
  EXPECT_TRUE(AppConfig::readFresh(ConfigVar("net", 0, "name", 0), fresh));
  EXPECT_THAT(fresh, ElementsAre("renamed"));
  EXPECT_EQ(config_->getConfigVar("net", 0, "name", 0), "renamed");
  slow.goOn();
}

TEST_F(LibraryTest, OptionsAndAccessLevelsAreReadSetAndAnnounced) {
  registerHandler("net", "mode", &consumer_);
  config_->setSecurityRole(AppConfig::eRoleFactory);
  std::vector<std::string> options;
  EXPECT_THAT(config_->getConfigOptions("net", 0, "mode", 0, options),
              ElementsAre("auto", "manual"));
  EXPECT_TRUE(config_->setConfigOptions("net", 0, "mode", 0, {"auto", "off"}, 1U));
  EXPECT_TRUE(consumer_.waitFor("options net.mode = auto,off"));
  EXPECT_THAT(config_->getConfigOptions("net", 0, "mode", 0, options), ElementsAre("auto", "off"));
  eErrorT error = eErrFailed;
  EXPECT_TRUE(config_->setAccessHidden("net", 0, "mode", 0, error));
  EXPECT_EQ(error, eErrNone);
  EXPECT_TRUE(consumer_.waitFor("access net.mode = 3/1"));
  EXPECT_EQ(other_.read("net.mode").error, CommonIF::ERROR_DENIED);
}

}  // namespace
}  // namespace TestSupport
