// Why there is no value, and where one comes from, as the running service tells it.
#include "appconfig/manager/reading.h"

#include "tests/integration/application.h"
#include "tests/integration/fixture.h"

namespace TestSupport {
namespace {

using AppConfig::Absence;
using AppConfig::AppCfgManager;
using AppConfig::Origin;
using AppConfig::Reading;

class ReadingWithServiceTest : public IntegrationTest {
 protected:
  ReadingWithServiceTest() { config_->setPbInterface(&endpoint_); }

  static Reading read(const std::string& name) {
    return AppConfig::readWithReason(ConfigVar("net", 0, name, 0));
  }

  PbUtility::Endpoint endpoint_{"application", inDirectory(service_.runtimeDir())};
  AppCfgManager* config_ = AppCfgManager::getInstance();
};

TEST_F(ReadingWithServiceTest, ADefaultIsToldFromWhatWasWrittenAndBackAgain) {
  EXPECT_EQ(read("mtu").text(), "1500");
  EXPECT_EQ(read("mtu").origin, Origin::Default);
  ASSERT_TRUE(other_.write("net.mtu", "1400").ok());
  EXPECT_EQ(read("mtu").text(), "1400");
  EXPECT_EQ(read("mtu").origin, Origin::Stored);
  ASSERT_TRUE(config_->resetValue("net", 0, "mtu", 0));
  EXPECT_EQ(read("mtu").origin, Origin::Default);
}

TEST_F(ReadingWithServiceTest, AnUnknownVariableIsNotADeniedOne) {
  const Reading unknown = read("unknown");
  EXPECT_FALSE(unknown);
  EXPECT_EQ(unknown.absence, Absence::Unknown);
  EXPECT_THAT(unknown.reason, testing::HasSubstr("net.unknown"));
  const Reading denied = read("secret");
  EXPECT_FALSE(denied);
  EXPECT_EQ(denied.absence, Absence::Denied);
  EXPECT_THAT(denied.reason, testing::HasSubstr("net.secret"));
  EXPECT_THAT(denied.reason, testing::Not(testing::HasSubstr("hidden"))) << "its value";
}

TEST_F(ReadingWithServiceTest, AnEmptyListIsAValue) {
  ConfigResult result;
  ASSERT_TRUE(config_->setConfigVar("net", 0, "servers", 0, std::list<std::string>(), &result));
  const Reading servers = read("servers");
  EXPECT_TRUE(servers);
  EXPECT_TRUE(servers.value.empty());
  EXPECT_EQ(servers.origin, Origin::Stored);
}

TEST_F(ReadingWithServiceTest, WhileTheServiceIsAwayWhatWasReadIsLastKnownAndTheRestIsAbsent) {
  EXPECT_EQ(read("mtu").text(), "1500");
  service_.kill();
  const Reading known = read("mtu");
  EXPECT_EQ(known.text(), "1500");
  EXPECT_EQ(known.origin, Origin::LastKnown);
  EXPECT_EQ(known.absence, Absence::ServiceAway);
  const Reading absent = read("name");
  EXPECT_FALSE(absent);
  EXPECT_EQ(absent.absence, Absence::ServiceAway);
  EXPECT_EQ(absent.callStatus, PbUtility::kCallNoService);
  EXPECT_EQ(absent.reason, "net.name: the service does not answer");
  service_.start();
  EXPECT_EQ(read("name").origin, Origin::Default);
}

}  // namespace
}  // namespace TestSupport
