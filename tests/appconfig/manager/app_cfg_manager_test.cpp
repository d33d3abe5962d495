#include "appconfig/manager/app_cfg_manager.h"

#include <thread>
#include <type_traits>

#include "tests/appconfig/manager/manager_fixture.h"

namespace {

using AppConfig::AppCfgManager;
using AppConfig::PlatformCfgService;
using TestSupport::ScriptedPbUtils;
using TestSupport::Value;

static_assert(std::has_virtual_destructor_v<AppCfgManager>);

using FacadeTest = TestSupport::ManagerTest;

TEST_F(FacadeTest, ConstructionContactsNobodyAndKeepsTheLink) {
  EXPECT_TRUE(pb.sent().empty());
  EXPECT_EQ(manager->getPlatformCfgService(), link.get());
}

TEST_F(FacadeTest, DestructionLeavesTheLinkAlone) {
  manager.reset();
  EXPECT_TRUE(link->resetValue(mtu));
}

TEST_F(FacadeTest, RoleAndEndpointGoToTheLink) {
  EXPECT_EQ(manager->setSecurityRole(AppConfig::eRoleService), AppConfig::eRoleUser);
  EXPECT_EQ(link->setSecurityRole(AppConfig::eRoleUser), AppConfig::eRoleService);
  ScriptedPbUtils second;
  manager->setPbInterface(&second);
  EXPECT_EQ(second.tables().size(), 1U);
}

TEST_F(FacadeTest, RemovingVariablesMatchesAnywhereInTheGroupAndAsksNobody) {
  for (const char* group : {"x", "ax", "y"})
    manager->updateConfigVar(ConfigVar(group, 0, "v", 0), {"1"});
  EXPECT_EQ(manager->removeVars("X"), 0U);
  EXPECT_EQ(manager->removeVars("x"), 2U);
  EXPECT_TRUE(isCached(ConfigVar("y", 0, "v", 0)));
  EXPECT_EQ(manager->removeVars(""), 1U);
  EXPECT_TRUE(pb.sent().empty());
}

TEST_F(FacadeTest, ARemovedVariableIsAskedForAgain) {
  TestSupport::answerReadsWith(pb, {"1500"});
  manager->getConfigVar(mtu);
  manager->removeVars("net");
  manager->getConfigVar(mtu);
  EXPECT_EQ(reads(), 2U);
}

// The process-wide facades. Each case needs a process of its own, which ctest gives it.

TEST(FacadeInstancesTest, ThePrimaryFacadeIsTheLocalOneOverTheLocalLink) {
  AppCfgManager* const local = AppCfgManager::getLocalCfgManager();
  EXPECT_EQ(AppCfgManager::getInstance(), local);
  EXPECT_EQ(local->getPlatformCfgService(), PlatformCfgService::getLocalCfgService());
}

TEST(FacadeInstancesTest, FirstUsesOnAnyThreadsMakeOneFacade) {
  std::vector<AppCfgManager*> facades(8);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < facades.size(); ++i) {
    threads.emplace_back([&facades, i] {
      facades[i] = i % 2 == 0 ? AppCfgManager::getInstance() : AppCfgManager::getLocalCfgManager();
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (AppCfgManager* made : facades) EXPECT_EQ(made, AppCfgManager::getInstance());
}

TEST(FacadeInstancesTest, ThePrimaryServiceIsChangedOnceAndASecondTimeTheLinkIsNotCalled) {
  ScriptedPbUtils pb;
  AppCfgManager* const local = AppCfgManager::getInstance();
  local->updateConfigVar(ConfigVar("net", 0, "mtu", 0), {"1500"});
  ASSERT_TRUE(AppCfgManager::changePrimaryConfigService(4, "/engine", "/ui", &pb));
  AppCfgManager* const primary = AppCfgManager::getInstance();
  EXPECT_NE(primary, local);
  EXPECT_EQ(AppCfgManager::getLocalCfgManager(), local);
  EXPECT_EQ(primary->getPlatformCfgService(), PlatformCfgService::getInstance());
  EXPECT_EQ(primary->getPlatformCfgService()->getNamespace(), 4);
  EXPECT_EQ(primary->getPlatformCfgService()->getConfigFQName(), "/engine/ConfigSrvc");
  EXPECT_EQ(primary->getPlatformCfgService()->getSelfFQName(), "/ui/thermostat-ui");
  EXPECT_EQ(primary->removeVars(""), 0U);
  EXPECT_EQ(local->removeVars(""), 1U);
  EXPECT_FALSE(AppCfgManager::changePrimaryConfigService(5, "", "", &pb));
  EXPECT_EQ(AppCfgManager::getInstance(), primary);
  EXPECT_EQ(pb.tables().size(), 1U);
}

TEST(FacadeInstancesTest, ThePrimaryServiceMayBeChangedBeforeTheFirstUse) {
  ASSERT_TRUE(AppCfgManager::changePrimaryConfigService(4, "", "", nullptr));
  EXPECT_EQ(AppCfgManager::getInstance()->getPlatformCfgService()->getNamespace(), 4);
  EXPECT_NE(AppCfgManager::getLocalCfgManager(), AppCfgManager::getInstance());
}

TEST(FacadeInstancesTest, APrimaryFacadeThatWasMadeBeforeAnyOtherIsNotReplacedEither) {
  ASSERT_TRUE(AppCfgManager::changePrimaryConfigService(4, "", "", nullptr));
  EXPECT_FALSE(AppCfgManager::changePrimaryConfigService(5, "", "", nullptr));
  EXPECT_EQ(AppCfgManager::getInstance()->getPlatformCfgService()->getNamespace(), 4);
}

TEST(FacadeInstancesTest, WhereTheLinkRefusesTheFacadeStays) {
  AppCfgManager* const local = AppCfgManager::getInstance();
  ASSERT_NE(PlatformCfgService::changePrimaryConfigService(4, "", "", nullptr), nullptr);
  EXPECT_FALSE(AppCfgManager::changePrimaryConfigService(5, "", "", nullptr));
  EXPECT_EQ(AppCfgManager::getInstance(), local);
}

TEST(FacadeInstancesTest, OfManyThreadsThatChangeThePrimaryServiceOneSucceeds) {
  std::atomic<int> successes{0};
  std::vector<std::thread> threads;
  for (int i = 1; i <= 8; ++i) {
    threads.emplace_back([i, &successes] {
      AppCfgManager::getInstance();
      if (AppCfgManager::changePrimaryConfigService(i, "", "", nullptr)) ++successes;
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(successes, 1);
  EXPECT_EQ(AppCfgManager::getInstance()->getPlatformCfgService(),
            PlatformCfgService::getInstance());
}

}  // namespace
