#include "appconfig/registry/registration.h"

#include <gtest/gtest.h>

#include "appconfig/manager/app_cfg_manager.h"
#include "appconfig/service/platform_cfg_service.h"
#include "tests/support/recording_handlers.h"
#include "tests/support/scripted_service.h"

// Whether AppCfgManager::getInstance() has been needed yet. Nothing public tells without creating
// it; naming a private member is allowed in an explicit instantiation.
bool hasPrimaryFacade();
template <std::atomic<AppConfig::AppCfgManager*>* kInstance>
struct PrimaryFacadePeer {
  friend bool hasPrimaryFacade() { return *kInstance != nullptr; }
};
template struct PrimaryFacadePeer<&AppConfig::AppCfgManager::ms_instance>;

namespace {

using AppConfig::AppCfgManager;
using AppConfig::PlatformCfgService;
using TestSupport::RecordingConsumer;
using TestSupport::RecordingProvider;
using TestSupport::ScriptedPbUtils;
using Consumers = std::list<ConsumerConfigHandler*>;
using Providers = std::list<ProviderConfigHandler*>;

constexpr ConsumerConfigHandler* kNoConsumer = nullptr;
constexpr ProviderConfigHandler* kNoProvider = nullptr;

class RegistrationTest : public ::testing::Test {
 protected:
  RegistrationTest() { link.setPbInterface(&pb); }

  static Consumers consumersOf(PlatformCfgService& link, const std::string& group,
                               const std::string& name) {
    return link.getHandlers(group, name, ConfigRegistrar::eValueChanged);
  }

  ScriptedPbUtils pb;
  PlatformCfgService link{0, "", ""};
  AppCfgManager manager{&link};
  RecordingConsumer consumer;
  RecordingProvider provider;
};

TEST_F(RegistrationTest, AGivenFacadesLinkHoldsTheHandlerAndRegistersWithTheService) {
  registerHandler("Net", "MTU", &consumer, &manager);
  registerHandler("Net", "MTU", &provider, &manager);
  EXPECT_EQ(consumersOf(link, "net", "mtu"), Consumers{&consumer});
  EXPECT_EQ(link.getProviderHandlers("net", "mtu"), Providers{&provider});
  EXPECT_EQ(pb.sentOf<ConfigIF::RegisterClientCallbackReq>().size(), 7U);
  unregisterHandler("NET", "mtu", &consumer, &manager);
  unregisterHandler("NET", "mtu", &provider, &manager);
  EXPECT_TRUE(consumersOf(link, "net", "mtu").empty());
  EXPECT_TRUE(link.getProviderHandlers("net", "mtu").empty());
}

TEST_F(RegistrationTest, ANullHandlerIsNotRegistered) {
  registerHandler("net", "mtu", kNoConsumer, &manager);
  registerHandler("net", "mtu", kNoProvider, &manager);
  registerHandler("net", kNoConsumer, &manager);
  registerHandler("net", kNoProvider, &manager);
  EXPECT_TRUE(pb.sent().empty());
  const ConfigVar mtu("net", 0, "mtu", 0);
  EXPECT_FALSE(link.isHandlerRegistered(mtu, ConfigRegistrar::eValueChanged));
  EXPECT_FALSE(link.isProviderHandlerRegistered(mtu));
}

TEST_F(RegistrationTest, UnregisteringANullHandlerRemovesTheLibrarysOwnInterest) {
  const ConfigVar mtu("net", 0, "mtu", 0);
  manager.getConfigVar(mtu);
  EXPECT_TRUE(link.isHandlerRegistered(mtu, ConfigRegistrar::eValueChanged));
  unregisterHandler("net", "mtu", kNoConsumer, &manager);
  EXPECT_FALSE(link.isHandlerRegistered(mtu, ConfigRegistrar::eValueChanged));
  unregisterHandler("net", "mtu", kNoProvider, &manager);
}

// A program with a link of its own can put a provider's marker there; the functions never do.
TEST_F(RegistrationTest, UnregisteringANullProviderReachesTheLinkAsWell) {
  const ConfigVar mtu("net", 0, "mtu", 0);
  const ConfigVar group("net", 0, "", 0);
  link.registerHandler("net", "mtu", kNoProvider);
  EXPECT_TRUE(link.isProviderHandlerRegistered(mtu));
  unregisterHandler("net", "mtu", kNoProvider, &manager);
  EXPECT_FALSE(link.isProviderHandlerRegistered(mtu));
  link.registerHandler("net", "", kNoProvider);
  EXPECT_TRUE(link.isProviderHandlerRegistered(group));
  unregisterHandler("net", kNoProvider, &manager);
  EXPECT_FALSE(link.isProviderHandlerRegistered(group));
}

TEST_F(RegistrationTest, TheOneStringFormsAreTheTwoStringFormsWithAnEmptyName) {
  registerHandler("net", &consumer, &manager);
  registerHandler("net", &provider, &manager);
  for (const auto& request : pb.sentOf<ConfigIF::RegisterClientCallbackReq>())
    EXPECT_EQ(request.name(), "net");
  EXPECT_EQ(consumersOf(link, "net.eth0", "mtu"), Consumers{&consumer});
  EXPECT_EQ(link.getProviderHandlers("net", "mtu"), Providers{&provider});
  unregisterHandler("net", "", &consumer, &manager);
  EXPECT_TRUE(consumersOf(link, "net", "").empty());
  registerHandler("net", "", &consumer, &manager);
  unregisterHandler("net", &consumer, &manager);
  unregisterHandler("net", &provider, &manager);
  EXPECT_TRUE(consumersOf(link, "net", "mtu").empty());
  EXPECT_TRUE(link.getProviderHandlers("net", "mtu").empty());
}

TEST_F(RegistrationTest, UnregisteringAGroupLeavesTheHandlersOfItsVariables) {
  registerHandler("net", "mtu", &consumer, &manager);
  unregisterHandler("net", &consumer, &manager);
  EXPECT_EQ(consumersOf(link, "net", "mtu"), Consumers{&consumer});
}

TEST_F(RegistrationTest, UnregisteringAllTellsTheServiceAndKeepsTheHandlers) {
  registerHandler("net", "mtu", &consumer, &manager);
  pb.takeSent();
  unregisterAllHandlers(&manager);
  const auto sent = pb.takeSent();
  ASSERT_EQ(sent.size(), 1U);
  expectRequest(sent[0], AppConfig::ProtobufMessageHelper::getUnregAllClientCallbacksRequest(
                             "thermostat-ui"));
  EXPECT_TRUE(sent[0].isOneWay);
  EXPECT_EQ(consumersOf(link, "net", "mtu"), Consumers{&consumer});
}

// Each of the following needs a process of its own, which ctest gives it.

TEST(RegistrationInstancesTest, ANullHandlerDoesNotEvenCreateThePrimaryFacade) {
  registerHandler("net", "mtu", kNoConsumer);
  registerHandler("net", kNoProvider, nullptr);
  EXPECT_FALSE(hasPrimaryFacade());
  unregisterHandler("net", "mtu", kNoConsumer);
  EXPECT_TRUE(hasPrimaryFacade());
}

TEST(RegistrationInstancesTest, UnregisteringANullProviderAsksThePrimaryFacadeForItsLink) {
  unregisterHandler("net", "mtu", kNoProvider);
  EXPECT_TRUE(hasPrimaryFacade());
}

TEST(RegistrationInstancesTest, ANullFacadeIsThePrimaryOneAndDoesNotSeeTheLocalOnesHandlers) {
  ASSERT_TRUE(AppCfgManager::changePrimaryConfigService(4, "", "", nullptr));
  RecordingConsumer ofPrimary;
  RecordingConsumer ofLocal;
  RecordingProvider provider;
  registerHandler("net", "mtu", &ofPrimary);
  registerHandler("net", &provider, nullptr);
  registerHandler("net", "mtu", &ofLocal, AppCfgManager::getLocalCfgManager());
  PlatformCfgService* const primary = PlatformCfgService::getInstance();
  PlatformCfgService* const local = PlatformCfgService::getLocalCfgService();
  EXPECT_EQ(primary->getHandlers("net", "mtu", ConfigRegistrar::eSubmit), Consumers{&ofPrimary});
  EXPECT_EQ(primary->getProviderHandlers("net", "mtu"), Providers{&provider});
  EXPECT_EQ(local->getHandlers("net", "mtu", ConfigRegistrar::eSubmit), Consumers{&ofLocal});
  unregisterHandler("net", "mtu", &ofLocal);  // the primary's, which does not know it
  EXPECT_EQ(local->getHandlers("net", "mtu", ConfigRegistrar::eSubmit), Consumers{&ofLocal});
  unregisterAllHandlers();  // without an endpoint: nothing
}

TEST(RegistrationInstancesTest, UnregisteringAllWithoutAFacadeIsAskedOfThePrimaryOnesServiceAlone) {
  static ScriptedPbUtils ofPrimary;  // the links keep pointing to them
  static ScriptedPbUtils ofLocal;
  AppCfgManager::getLocalCfgManager()->setPbInterface(&ofLocal);
  ASSERT_TRUE(AppCfgManager::changePrimaryConfigService(4, "", "", &ofPrimary));
  unregisterAllHandlers();
  EXPECT_EQ(ofPrimary.sentOf<ConfigIF::UnregisterAllClientCallbacksReq>().size(), 1U);
  EXPECT_TRUE(ofLocal.sent().empty());
}

}  // namespace
