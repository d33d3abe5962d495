// What an application should not do, at each entry of the library, against the running service: it
// ends in a clear error, or works; nothing is lost or cut silently.
#include "tests/integration/application.h"
#include "tests/integration/fixture.h"

namespace TestSupport {
namespace {

using AppConfig::AppCfgManager;
using testing::ElementsAre;

const std::string kLongName(std::size_t{64} * 1024, 'n');

class BadInputTest : public IntegrationTest {
 protected:
  BadInputTest() {
    config_->setPbInterface(&endpoint_);
    config_->setSecurityRole(AppConfig::eRoleFactory);
  }

  PbUtility::Endpoint endpoint_{"application", inDirectory(service_.runtimeDir())};
  AppCfgManager* config_ = AppCfgManager::getInstance();
  ConfigResult result_;
};

TEST_F(BadInputTest, AValueOfAnyBytesComesBackUnchangedAlsoAfterARestart) {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) bytes.push_back(static_cast<char>(byte));
  const std::list<std::string> value = {bytes, "", "\xC0\xAF", std::string(1, '\0')};
  ASSERT_TRUE(config_->setConfigVar("net", 0, "servers", 0, value, &result_));
  std::list<std::string> read;
  EXPECT_EQ(config_->getConfigVar("net", 0, "servers", 0, read), value);
  config_->removeVars("net");
  service_.kill();
  service_.start();
  EXPECT_EQ(config_->getConfigVar("net", 0, "servers", 0, read), value);
}

TEST_F(BadInputTest, AKeyWithANameOf64KibibytesIsUnknownAndNothingElseSuffers) {
  EXPECT_EQ(config_->getConfigVar("net", 0, kLongName, 0), "");
  EXPECT_EQ(config_->getConfigVar(kLongName, 0, "mtu", 0), "");
  EXPECT_FALSE(config_->setConfigVar("net", 0, kLongName, 0, "1", &result_));
  EXPECT_EQ(result_.error(), eErrNotFound);
  EXPECT_EQ(config_->getConfigVarInt("net", 0, "mtu", 0), 1500);
}

TEST_F(BadInputTest, AHandlerForANameOf64KibibytesIsHarmless) {
  NotingConsumer consumer;
  registerHandler("net", kLongName, &consumer);
  registerHandler(kLongName, &consumer);
  EXPECT_EQ(config_->getConfigVarInt("net", 0, "mtu", 0), 1500);
  unregisterHandler("net", kLongName, &consumer);
  unregisterHandler(kLongName, &consumer);
}

TEST_F(BadInputTest, TenThousandOptionsAreKeptOrRefusedWithALimitAndNeverCut) {
  std::vector<std::string> options = {"auto"};
  for (int i = 1; i < 10000; ++i) options.push_back("option " + std::to_string(i));
  std::vector<std::string> before;
  config_->getConfigOptions("net", 0, "mode", 0, before);
  const bool kept = config_->setConfigOptions("net", 0, "mode", 0, options);
  config_->removeVars("net");
  std::vector<std::string> after;
  EXPECT_EQ(config_->getConfigOptions("net", 0, "mode", 0, after), kept ? options : before);
}

TEST_F(BadInputTest, ADefaultIndexPastTheOptionsIsRefused) {
  EXPECT_FALSE(config_->setConfigOptions("net", 0, "mode", 0, {"auto", "off"}, 2U));
  std::vector<std::string> options;
  EXPECT_THAT(config_->getConfigOptions("net", 0, "mode", 0, options),
              ElementsAre("auto", "manual"));
}

TEST_F(BadInputTest, OptionsWithoutThePresentValueAreRefused) {
  EXPECT_FALSE(config_->setConfigOptions("net", 0, "mode", 0, {"off"}));
  EXPECT_EQ(config_->getConfigVar("net", 0, "mode", 0), "auto");
}

TEST_F(BadInputTest, ARoleThatDoesNotExistIsTheLowestOne) {
  config_->setSecurityRole(static_cast<AppConfig::SecurityRole>(9));
  EXPECT_EQ(config_->getConfigVar("net", 0, "secret", 0), "");
  EXPECT_FALSE(config_->setConfigVar("net", 0, "mtu", 0, 1400, &result_));
  EXPECT_EQ(result_.error(), eErrDenied);
}

TEST_F(BadInputTest, AccessLevelsOfUnknownAndKnownVariablesHaveARecordEach) {
  const AppConfig::SecurityRole role = AppConfig::eRoleService;
  std::list<std::pair<ConfigVar, eErrorT>> errors;
  EXPECT_FALSE(config_->setAccessLevels(
      {ConfigVar("net", 0, "mtu", 0), ConfigVar("net", 0, kLongName, 0)}, &role, nullptr, errors));
  ASSERT_EQ(errors.size(), 2U);
  EXPECT_EQ(errors.front().second, eErrNone);
  EXPECT_EQ(errors.back().second, eErrNotFound);
  EXPECT_EQ(errors.back().first.name(), kLongName);
}

TEST_F(BadInputTest, AHiddenVariableIsDeniedAtOnceAndItsValueToldNoMore) {
  NotingConsumer consumer;
  config_->setSecurityRole(AppConfig::eRoleUser);
  registerHandler("net", "mtu", &consumer);
  other_.actAs(CommonIF::SECURITY_ROLE_FACTORY);
  ConfigIF::SetAccessLevelsReq hide;
  ConfigIF::Inst* inst = hide.add_inst();
  inst->add_path()->set_name("net");
  inst->add_path()->set_name("mtu");
  hide.set_read_role(CommonIF::SECURITY_ROLE_SERVICE);
  ConfigIF::SetAccessLevelsRsp response;
  ASSERT_TRUE(other_.request(hide, &response).ok());
  EXPECT_EQ(config_->getConfigVar("net", 0, "mtu", 0), "");
  ASSERT_TRUE(consumer.waitFor("access net.mtu = 3/1"));
  ASSERT_TRUE(other_.write("net.mtu", "1400").ok());
  // What comes behind it shows that nothing came before.
  registerHandler("test", "marker", &consumer);
  ASSERT_TRUE(other_.write("test.marker", "1").ok());
  ASSERT_TRUE(consumer.waitFor("value test.marker = 1"));
  for (const std::string& note : consumer.notes()) {
    EXPECT_EQ(note.find("value net.mtu"), std::string::npos) << note;
  }
  unregisterHandler("net", "mtu", &consumer);
  unregisterHandler("test", "marker", &consumer);
}

TEST_F(BadInputTest, AValueLargerThanAMessageIsNotSentAndASmallerOneThanThatIsToldItsLimit) {
  EXPECT_FALSE(config_->setConfigVar("net", 0, "name", 0,
                                     std::string(std::size_t{17} * 1024 * 1024, 'x'), &result_));
  EXPECT_EQ(result_.error(), eErrNone) << "nothing was sent, so nobody answered";
  EXPECT_FALSE(config_->setConfigVar("net", 0, "name", 0,
                                     std::string(std::size_t{2} * 1024 * 1024, 'x'), &result_));
  EXPECT_NE(result_.error(), eErrNone);
  ASSERT_FALSE(result_.resultMessages().empty());
  EXPECT_EQ(config_->getConfigVar("net", 0, "name", 0), "gateway");
}

}  // namespace
}  // namespace TestSupport
