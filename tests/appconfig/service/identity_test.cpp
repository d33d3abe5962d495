#include <thread>
#include <vector>

#include "appconfig/manager/app_cfg_manager.h"
#include "tests/appconfig/service/link_fixture.h"

namespace {

using AppConfig::AppCfgManager;
using AppConfig::PlatformCfgService;
using TestSupport::ScriptedPbUtils;

using LinkIdentityTest = TestSupport::LinkTest;

std::string identitySentBy(PlatformCfgService& link, ScriptedPbUtils& pb) {
  link.registerCallback(ConfigVar("net", 0, "mtu", 0), ConfigIF::CALLBACK_SUBMIT);
  return pb.takeSent().back().as<ConfigIF::RegisterClientCallbackReq>().endpoint_name();
}

TEST_F(LinkIdentityTest, TheLinkNameIsPlatCfgSvcNamespaceProcessIdNamespace) {
  const std::string pid = std::to_string(getpid());
  EXPECT_EQ(identitySentBy(*link, pb), "PlatCfgSvc0-" + pid + "-0");
  useLink(2);
  EXPECT_EQ(identitySentBy(*link, pb), "PlatCfgSvc2-" + pid + "-2");
  useLink(-3);
  EXPECT_EQ(identitySentBy(*link, pb), "PlatCfgSvc-3-" + pid + "--3");
}

TEST_F(LinkIdentityTest, TheServicesNameIsPrefixSlashConfigSrvc) {
  const struct {
    const char* prefix;
    const char* name;
  } cases[] = {
      {"/a/b", "/a/b/ConfigSrvc"}, {"/a/b/", "/a/b/ConfigSrvc"}, {"", "ConfigSrvc"},
      {"/", "/ConfigSrvc"},        {"a//", "a//ConfigSrvc"},
  };
  for (const auto& c : cases) {
    const PlatformCfgService tested(0, c.prefix, "");
    EXPECT_EQ(tested.getConfigFQName(), c.name);
    EXPECT_EQ(tested.getLinkToConfig(), c.prefix);
  }
}

TEST_F(LinkIdentityTest, TheClientsNameIsPrefixSlashLocalEndpoint) {
  const struct {
    const char* prefix;
    const char* name;
  } cases[] = {
      {"/a/b", "/a/b/thermostat-ui"}, {"/a/b/", "/a/b/thermostat-ui"}, {"", "thermostat-ui"}};
  for (const auto& c : cases) {
    PlatformCfgService tested(0, "", c.prefix);
    tested.setPbInterface(&pb);
    EXPECT_EQ(tested.getSelfFQName(), c.name);
    EXPECT_EQ(tested.getLinkToSelf(), c.prefix);
  }
}

TEST_F(LinkIdentityTest, WithoutAnEndpointTheClientHasNoName) {
  EXPECT_EQ(PlatformCfgService(0, "/engine", "/engine").getSelfFQName(), "");
}

TEST_F(LinkIdentityTest, SettingRole2OnANewLinkReturns1AndStoresWireRole40) {
  EXPECT_EQ(link->setSecurityRole(AppConfig::eRoleInstaller), AppConfig::eRoleUser);
  link->resetValue(mtu);
  EXPECT_EQ(pb.takeSent().back().as<ConfigIF::ResetValueReq>().role(), 40);
  EXPECT_EQ(link->setSecurityRole(AppConfig::eRolePublic), AppConfig::eRoleInstaller);
}

TEST_F(LinkIdentityTest, EveryRequestIsMadeInTheRoleInForce) {
  const CommonIF::eSecurityRole inForce = CommonIF::SECURITY_ROLE_FACTORY;
  const TestSupport::Value value{"a"};
  TestSupport::Value options;
  bool isDefault = false;
  unsigned int index = 0;
  std::list<std::pair<ConfigVar, eErrorT>> errors;
  link->setSecurityRole(AppConfig::eRoleFactory);
  const auto expectFirst = [this](const google::protobuf::MessageLite& expected) {
    expectRequest(pb.takeSent().front(), expected);
  };
  link->getConfigVar(mtu, isDefault);
  expectFirst(Helper::getReadRequest(self, inForce, mtu));
  link->setConfigVar(mtu, value);
  expectFirst(Helper::getWriteRequest(self, inForce, mtu, value));
  link->setConfigVar(mtu, value, nullptr);
  expectFirst(Helper::getWriteRequest(self, inForce, mtu, value));
  link->isValid(mtu, value, nullptr);
  expectFirst(Helper::getValidateRequest(self, inForce, mtu, value));
  link->resetValue(mtu);
  expectFirst(Helper::getResetValueRequest(self, inForce, mtu));
  link->getConfigOptions(mtu, options, index);
  expectFirst(Helper::getGetOptionsRequest(self, inForce, mtu));
  link->getConfigDefaultOptions(mtu, options, index);
  expectFirst(Helper::getGetDefaultOptionsRequest(self, inForce, "net.mtu"));
  link->setConfigOptions(mtu, value, nullptr);
  expectFirst(Helper::getSetOptionsRequest(self, inForce, mtu, value, nullptr));
  link->getAccessLevels(mtu, nullptr, nullptr);
  expectFirst(Helper::getGetAccessLevelsReq(self, inForce, mtu));
  link->setAccessLevels({mtu}, nullptr, nullptr);
  expectFirst(Helper::getSetAccessLevelsReq(self, inForce, {mtu}, nullptr, nullptr));
  link->setAccessLevels({mtu}, nullptr, nullptr, errors);
  expectFirst(Helper::getSetAccessLevelsReq(self, inForce, {mtu}, nullptr, nullptr));
  const std::string identity = TestSupport::linkName(0);
  const ConfigIF::CallbackType submit = ConfigIF::CALLBACK_SUBMIT;
  link->registerCallback(mtu, submit);
  expectFirst(Helper::getRegClientCallbackRequest(self, inForce, "net.mtu", submit, identity));
  link->unregisterCallback(mtu, submit);
  expectFirst(Helper::getUnregClientCallbackRequest(self, inForce, "net.mtu", submit, identity));
}

TEST_F(LinkIdentityTest, ARoleOutsideTheFiveBecomesThePublicOne) {
  link->setSecurityRole(static_cast<AppConfig::SecurityRole>(9));
  EXPECT_EQ(link->setSecurityRole(AppConfig::eRoleUser), AppConfig::eRolePublic);
}

TEST_F(LinkIdentityTest, OnlyScopeTwoIsMatchedOnTheNamespace) {
  const PlatformCfgService five(5, "", "");
  const PlatformCfgService zero(0, "", "");
  EXPECT_TRUE(five.isMatchingNamespace(5, ConfigIF::SCOPE_DEVICE));
  EXPECT_TRUE(zero.isMatchingNamespace(5, ConfigIF::SCOPE_DEVICE));
  EXPECT_TRUE(zero.isMatchingNamespace(5, ConfigIF::SCOPE_ALL));
  EXPECT_TRUE(five.isMatchingNamespace(5, ConfigIF::SCOPE_NAMESPACE));
  EXPECT_FALSE(zero.isMatchingNamespace(5, ConfigIF::SCOPE_NAMESPACE));
  EXPECT_FALSE(five.isMatchingNamespace(0, ConfigIF::SCOPE_NAMESPACE));
}

TEST_F(LinkIdentityTest, ALinkOfNamespace0TakesTheVariablesNamespaceAndAnyOtherItsOwn) {
  const ConfigVar plain("net", 0, "mtu", 0);
  const ConfigVar ofSeven(7, "net", 0, "mtu", 0);
  const PlatformCfgService zero(0, "", "");
  EXPECT_EQ(zero.determineNamespace(plain), 0);
  EXPECT_EQ(zero.determineNamespace(ofSeven), 7);
  const PlatformCfgService three(3, "", "");
  EXPECT_EQ(three.determineNamespace(plain), 3);
  EXPECT_EQ(three.determineNamespace(ofSeven), 3);
  EXPECT_EQ(three.getNamespace(), 3);
}

TEST_F(LinkIdentityTest, AttachingAnEndpointMakesTheServiceKnownAndInstallsSevenReceivers) {
  ScriptedPbUtils fresh;
  PlatformCfgService tested(0, "/engine", "");
  tested.setPbInterface(&fresh);
  ASSERT_EQ(fresh.remoteEndpoints().size(), 1U);
  EXPECT_EQ(fresh.remoteEndpoints().front().name, "/engine/ConfigSrvc");
  EXPECT_EQ(fresh.remoteEndpoints().front().instance, -1);
  ASSERT_EQ(fresh.tables().size(), 1U);
  const std::vector<MSG_Callback> table = fresh.tables().front();
  const std::uintptr_t ids[] = {0x1A0150, 0x1A0100, 0x1A0143, 0x1A01A3,
                                0x1A0253, 0x1A0273, 0x1A0333};
  ASSERT_EQ(table.size(), std::size(ids));
  for (std::size_t i = 0; i < table.size(); ++i) {
    EXPECT_EQ(table[i].firstId, ids[i]);
    EXPECT_EQ(table[i].lastId, ids[i]);
    EXPECT_EQ(table[i].userData, &tested);
    EXPECT_EQ(table[i].reserved, 0U);
  }
}

TEST_F(LinkIdentityTest, EachLinkInstallsItsOwnAddress) {
  ScriptedPbUtils fresh;
  PlatformCfgService a(0, "", "");
  PlatformCfgService b(1, "", "");
  a.setPbInterface(&fresh);
  b.setPbInterface(&fresh);
  ASSERT_EQ(fresh.tables().size(), 2U);
  EXPECT_EQ(fresh.tables()[0].front().userData, &a);
  EXPECT_EQ(fresh.tables()[1].front().userData, &b);
}

TEST_F(LinkIdentityTest, NullAndTheAttachedEndpointAreIgnored) {
  link->setPbInterface(&pb);
  link->setPbInterface(nullptr);
  EXPECT_EQ(pb.tables().size(), 1U);
  EXPECT_EQ(pb.remoteEndpoints().size(), 1U);
  EXPECT_EQ(link->getSelfFQName(), self);
}

TEST_F(LinkIdentityTest, ASecondEndpointIsSetUpTooAndTakesTheRequests) {
  ScriptedPbUtils second("second");
  link->setPbInterface(&second);
  EXPECT_EQ(second.tables().size(), 1U);
  link->resetValue(mtu);
  EXPECT_EQ(second.sent().size(), 1U);
  EXPECT_TRUE(pb.sent().empty());
  EXPECT_EQ(pb.tables().size(), 1U);
}

TEST_F(LinkIdentityTest, ASecondEndpointHearsOfTheServiceByItsFullNameToo) {
  PlatformCfgService tested(0, "/engine", "");
  ScriptedPbUtils first;
  ScriptedPbUtils second("second");
  tested.setPbInterface(&first);
  tested.setPbInterface(&second);
  ASSERT_EQ(second.remoteEndpoints().size(), 1U);
  EXPECT_EQ(second.remoteEndpoints().front().name, "/engine/ConfigSrvc");
  EXPECT_EQ(second.remoteEndpoints().front().instance, -1);
}

TEST_F(LinkIdentityTest, AFormerEndpointTakesTheRequestsAgainAndItsReceiversStayTheOnesItHas) {
  ScriptedPbUtils second("second");
  link->setPbInterface(&second);
  link->setPbInterface(&pb);
  EXPECT_EQ(pb.tables().size(), 1U);
  link->resetValue(mtu);
  EXPECT_EQ(pb.sent().size(), 1U);
  EXPECT_TRUE(second.sent().empty());
  link->setPbInterface(&second);
  EXPECT_EQ(second.tables().size(), 1U);
}

TEST_F(LinkIdentityTest, AnEndpointThatStandsWhereAnotherStoodIsSetUpLikeAnyOther) {
  alignas(ScriptedPbUtils) unsigned char place[sizeof(ScriptedPbUtils)];
  for (const bool isStillAttached : {true, false}) {
    auto* const before = new (place) ScriptedPbUtils;
    link->setPbInterface(before);
    if (!isStillAttached) link->setPbInterface(&pb);
    before->~ScriptedPbUtils();
    auto* const after = new (place) ScriptedPbUtils;
    link->setPbInterface(after);
    EXPECT_EQ(after->tables().size(), 1U);
    EXPECT_EQ(after->remoteEndpoints().size(), 1U);
    link->setPbInterface(&pb);
    after->~ScriptedPbUtils();
  }
}

TEST_F(LinkIdentityTest, TheRoleAndTheEndpointMayBeSetWhileRequestsRun) {
  ScriptedPbUtils second("second");
  std::thread setter([&] {
    for (int i = 0; i < 200; ++i) {
      link->setSecurityRole(AppConfig::eRoleService);
      link->setPbInterface(i % 2 == 0 ? &second : &pb);
    }
  });
  for (int i = 0; i < 200; ++i) EXPECT_TRUE(link->resetValue(mtu));
  setter.join();
  EXPECT_EQ(pb.sent().size() + second.sent().size(), 200U);
}

// The process-wide links. Each case needs a process of its own, which ctest gives it.

TEST(LinkInstancesTest, ThePrimaryLinkIsTheLocalOneAndHasNoEndpoint) {
  PlatformCfgService* const local = PlatformCfgService::getLocalCfgService();
  EXPECT_EQ(PlatformCfgService::getInstance(), local);
  EXPECT_EQ(local->getNamespace(), 0);
  EXPECT_EQ(local->getLinkToConfig(), "");
  EXPECT_EQ(local->getLinkToSelf(), "");
  EXPECT_EQ(local->getSelfFQName(), "");
}

TEST(LinkInstancesTest, FirstUsesOnAnyThreadsMakeOneLink) {
  std::vector<PlatformCfgService*> links(8);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < links.size(); ++i) {
    threads.emplace_back([&links, i] {
      links[i] =
          i % 2 == 0 ? PlatformCfgService::getInstance() : PlatformCfgService::getLocalCfgService();
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (PlatformCfgService* made : links) EXPECT_EQ(made, PlatformCfgService::getInstance());
}

TEST(LinkInstancesTest, ThePrimaryLinkIsReplacedOnceAndASecondTimeReturnsNull) {
  ScriptedPbUtils pb;
  PlatformCfgService* const local = PlatformCfgService::getInstance();
  PlatformCfgService* const primary =
      PlatformCfgService::changePrimaryConfigService(4, "/engine", "/ui", &pb);
  ASSERT_NE(primary, nullptr);
  EXPECT_NE(primary, local);
  EXPECT_EQ(primary->getNamespace(), 4);
  EXPECT_EQ(primary->getConfigFQName(), "/engine/ConfigSrvc");
  EXPECT_EQ(primary->getSelfFQName(), "/ui/thermostat-ui");
  EXPECT_EQ(pb.tables().size(), 1U);
  EXPECT_EQ(PlatformCfgService::changePrimaryConfigService(5, "", "", &pb), nullptr);
  EXPECT_EQ(PlatformCfgService::getInstance(), primary);
  EXPECT_EQ(PlatformCfgService::getLocalCfgService(), local);
  EXPECT_EQ(pb.tables().size(), 1U);
}

TEST(LinkInstancesTest, ThePrimaryLinkMayBeReplacedBeforeItsFirstUseAndWithoutAnEndpoint) {
  PlatformCfgService* const primary =
      PlatformCfgService::changePrimaryConfigService(4, "", "", nullptr);
  ASSERT_NE(primary, nullptr);
  EXPECT_EQ(PlatformCfgService::getInstance(), primary);
  EXPECT_EQ(primary->getSelfFQName(), "");
  EXPECT_NE(PlatformCfgService::getLocalCfgService(), primary);
}

TEST(LinkInstancesTest, APrimaryLinkThatWasMadeBeforeAnyOtherIsNotReplacedEither) {
  PlatformCfgService* const primary =
      PlatformCfgService::changePrimaryConfigService(4, "", "", nullptr);
  ASSERT_NE(primary, nullptr);
  EXPECT_EQ(PlatformCfgService::changePrimaryConfigService(5, "", "", nullptr), nullptr);
  EXPECT_EQ(PlatformCfgService::getInstance(), primary);
}

TEST(LinkInstancesTest, UserDataFindsThePrimaryTheLocalOrNoLink) {
  PlatformCfgService* const local = PlatformCfgService::getLocalCfgService();
  EXPECT_EQ(PlatformCfgService::findMatchingCfgService(local), local);
  PlatformCfgService* const primary =
      PlatformCfgService::changePrimaryConfigService(4, "", "", nullptr);
  PlatformCfgService other(0, "", "");
  EXPECT_EQ(PlatformCfgService::findMatchingCfgService(primary), primary);
  EXPECT_EQ(PlatformCfgService::findMatchingCfgService(local), local);
  EXPECT_EQ(PlatformCfgService::findMatchingCfgService(&other), nullptr);
  EXPECT_EQ(PlatformCfgService::findMatchingCfgService(nullptr), nullptr);
}

TEST(LinkInstancesTest, AnInstanceOfAnotherNamespaceFindsNoLinkUnderScopeTwoAlone) {
  PlatformCfgService* const local = PlatformCfgService::getLocalCfgService();
  PlatformCfgService* const primary =
      PlatformCfgService::changePrimaryConfigService(4, "", "", nullptr);
  ConfigIF::Inst inst;
  AppConfig::ProtobufMessageHelper::addVarName(&inst, ConfigVar(4, "net", 0, "mtu", 0));
  EXPECT_EQ(PlatformCfgService::findMatchingCfgService(local, inst), local);
  inst.set_scope(ConfigIF::SCOPE_NAMESPACE);
  EXPECT_EQ(PlatformCfgService::findMatchingCfgService(local, inst), nullptr);
  EXPECT_EQ(PlatformCfgService::findMatchingCfgService(primary, inst), primary);
}

TEST(LinkInstancesTest, UserDataFindsTheFacadeOverItsLink) {
  AppCfgManager* const local = AppCfgManager::getLocalCfgManager();
  ASSERT_TRUE(AppCfgManager::changePrimaryConfigService(4, "", "", nullptr));
  EXPECT_EQ(PlatformCfgService::findMatchingCfgManager(local->getPlatformCfgService()), local);
  EXPECT_EQ(PlatformCfgService::findMatchingCfgManager(PlatformCfgService::getInstance()),
            AppCfgManager::getInstance());
  EXPECT_EQ(PlatformCfgService::findMatchingCfgManager(nullptr), nullptr);
}

}  // namespace
