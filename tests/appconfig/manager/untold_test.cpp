// What the service has no room to tell changes of is handed over and asked for again, until it has.

#include "platform/messaging/registration_refusals.h"
#include "tests/appconfig/manager/manager_fixture.h"

namespace {

using TestSupport::answerReadsWith;
using Options = std::vector<std::string>;

class UntoldTest : public TestSupport::ManagerTest {
 protected:
  ConfigIF::RegisterClientCallbackReq registration(const std::string& dottedName,
                                                   ConfigIF::CallbackType type) const {
    return Helper::getRegClientCallbackRequest(self, role, dottedName, type,
                                               TestSupport::linkName(0));
  }
  void refuseRoomFor(const std::string& dottedName, ConfigIF::CallbackType type) {
    PbUtility::noteRegistrationRefused(&pb, "ConfigSrvc", registration(dottedName, type), "full");
  }
  void makeRoomFor(const std::string& dottedName, ConfigIF::CallbackType type) {
    PbUtility::noteRegistrationAccepted(&pb, "ConfigSrvc", registration(dottedName, type));
  }
};

TEST_F(UntoldTest, AValueIsAskedForEachTimeWhileItsRegistrationIsRefused) {
  answerReadsWith(pb, {"1500"});
  refuseRoomFor("net.mtu", ConfigIF::CALLBACK_VALUE_CHANGED);
  EXPECT_EQ(manager->getConfigVar(mtu), "1500");
  answerReadsWith(pb, {"1400"}, true);
  EXPECT_EQ(manager->getConfigVar(mtu), "1400");
  TestSupport::Value list;
  EXPECT_EQ(manager->getConfigVar(mtu, list), TestSupport::Value{"1400"});
  EXPECT_TRUE(manager->isDefault("net", 0, "mtu", 1));
  EXPECT_EQ(reads(), 4U);
  makeRoomFor("net.mtu", ConfigIF::CALLBACK_VALUE_CHANGED);
  EXPECT_EQ(manager->getConfigVar(mtu), "1400");
  EXPECT_EQ(reads(), 4U) << "told again";
}

TEST_F(UntoldTest, OneRegistrationRequestIsSentHoweverOftenItIsRead) {
  answerReadsWith(pb, {"1500"});
  refuseRoomFor("net.mtu", ConfigIF::CALLBACK_VALUE_CHANGED);
  for (int i = 0; i < 3; ++i) manager->getConfigVar(mtu);
  EXPECT_EQ(count<ConfigIF::RegisterClientCallbackReq>(), 1U) << "asking again is the endpoint's";
}

TEST_F(UntoldTest, ARefusedGroupIsARefusalOfAllThatIsInIt) {
  answerReadsWith(pb, {"1500"});
  refuseRoomFor("net", ConfigIF::CALLBACK_VALUE_CHANGED);
  manager->getConfigVar(mtu);
  manager->getConfigVar(mtu);
  EXPECT_EQ(reads(), 2U);
}

TEST_F(UntoldTest, OtherVariablesAndOtherTypesAreCachedAsEver) {
  answerReadsWith(pb, {"x"});
  refuseRoomFor("net.mtu", ConfigIF::CALLBACK_OPTIONS_CHANGED);
  refuseRoomFor("net.name", ConfigIF::CALLBACK_VALUE_CHANGED);
  manager->getConfigVar(mtu);
  manager->getConfigVar(mtu);
  EXPECT_EQ(reads(), 1U);
}

TEST_F(UntoldTest, OptionsAndRolesAreAskedForEachTimeWhileTheirRegistrationsAreRefused) {
  answerReadsWith(pb, {"1500"});
  answerOptionsWith({"a", "b"}, 1);
  answerRolesWith(CommonIF::SECURITY_ROLE_USER, CommonIF::SECURITY_ROLE_FACTORY);
  refuseRoomFor("net.mtu", ConfigIF::CALLBACK_OPTIONS_CHANGED);
  refuseRoomFor("net.mtu", ConfigIF::CALLBACK_ACCESS_LEVELS_CHANGED);
  for (int i = 0; i < 2; ++i) {
    Options options;
    EXPECT_EQ(manager->getConfigOptions(mtu, options), (Options{"a", "b"}));
    EXPECT_TRUE(manager->getAccessLevels(mtu, nullptr, nullptr));
  }
  EXPECT_EQ(count<ConfigIF::GetAttributeOptionsReq>(), 2U);
  EXPECT_EQ(count<ConfigIF::GetAccessLevelsReq>(), 2U);
  manager->getConfigValue("net", 0, "mtu", 1);
  EXPECT_EQ(count<ConfigIF::GetAttributeOptionsReq>(), 3U);
  EXPECT_EQ(count<ConfigIF::GetAccessLevelsReq>(), 3U);
  makeRoomFor("net.mtu", ConfigIF::CALLBACK_OPTIONS_CHANGED);
  makeRoomFor("net.mtu", ConfigIF::CALLBACK_ACCESS_LEVELS_CHANGED);
  manager->getConfigValue("net", 0, "mtu", 1);
  EXPECT_EQ(count<ConfigIF::GetAttributeOptionsReq>(), 3U);
  EXPECT_EQ(count<ConfigIF::GetAccessLevelsReq>(), 3U);
}

}  // namespace
