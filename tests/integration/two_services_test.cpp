// A process with two services: the device's own, without a namespace, and an engine's, which serves
// namespace 3. Both links share one endpoint.
#include "appconfig/service/platform_cfg_service.h"
#include "tests/integration/application.h"
#include "tests/integration/fixture.h"

namespace TestSupport {
namespace {

using AppConfig::AppCfgManager;

const char* const kEngineDefinitions = R"(
[variable."3:net.mtu"]
type = "int"
default = 600

[variable."3:engine.speed"]
type = "int"
default = 10
)";

class TwoServicesTest : public IntegrationTest {
 protected:
  TwoServicesTest() {
    engine_.serveBeside(service_, "engine");
    engine_.start();
    local_->setPbInterface(&endpoint_);
    EXPECT_TRUE(AppCfgManager::changePrimaryConfigService(3, "engine", "", &endpoint_));
    primary_ = AppCfgManager::getInstance();
  }

  // Writes at the engine's service as another process would.
  bool writeAtEngine(const std::string& key, const std::string& value) {
    ConfigIF::WriteReq request;
    ConfigIF::Inst* inst = request.mutable_value()->mutable_inst();
    const std::size_t dot = key.find('.');
    for (const std::string& step : {std::string("cfg"), key.substr(0, dot), key.substr(dot + 1)}) {
      inst->add_path()->set_name(step);
    }
    inst->mutable_path(0)->set_instance(3);
    request.mutable_value()->add_values(value);
    request.set_client_name("elsewhere");
    request.set_role(CommonIF::SECURITY_ROLE_USER);
    ConfigIF::WriteRsp response;
    return elsewhere_.sendWaitResponse(request, &response, "engine/ConfigSrvc") == 0 &&
           response.result().error() == CommonIF::ERROR_NONE;
  }

  ServiceProcess engine_{kEngineDefinitions};
  NotingConsumer localConsumer_;
  NotingConsumer engineConsumer_;
  NotingProvider localProvider_{"1300"};
  NotingProvider engineProvider_{"1300"};
  PbUtility::Endpoint endpoint_{"application", inDirectory(service_.runtimeDir())};
  PbUtility::Endpoint elsewhere_{"elsewhere", inDirectory(service_.runtimeDir())};
  AppCfgManager* local_ = AppCfgManager::getLocalCfgManager();
  AppCfgManager* primary_ = nullptr;
};

TEST_F(TwoServicesTest, AByPartsReadGoesToTheNamespaceOfItsLink) {
  EXPECT_EQ(primary_->getConfigVarInt("net", 0, "mtu", 0), 600);
  EXPECT_EQ(local_->getConfigVarInt("net", 0, "mtu", 0), 1500);
  EXPECT_EQ(primary_->getConfigVarInt("engine", 0, "speed", 0), 10);
  EXPECT_EQ(local_->getConfigVar("engine", 0, "speed", 0), "");
}

TEST_F(TwoServicesTest, ANoticeOfOneServiceReachesItsLinksCacheAndHandlersAlone) {
  registerHandler("net", "mtu", &localConsumer_, local_);
  registerHandler("net", "mtu", &engineConsumer_, primary_);
  EXPECT_EQ(primary_->getConfigVarInt("net", 0, "mtu", 0), 600);
  EXPECT_EQ(local_->getConfigVarInt("net", 0, "mtu", 0), 1500);
  ASSERT_TRUE(other_.write("net.mtu", "1400").ok());
  EXPECT_TRUE(localConsumer_.waitFor("value net.mtu = 1400"));
  ASSERT_TRUE(writeAtEngine("net.mtu", "700"));
  EXPECT_TRUE(engineConsumer_.waitFor("value net.mtu = 700"));
  EXPECT_EQ(localConsumer_.notes().size(), 1U);
  EXPECT_EQ(engineConsumer_.notes().size(), 1U);
  EXPECT_EQ(local_->getConfigVarInt("net", 0, "mtu", 0), 1400);
  EXPECT_EQ(primary_->getConfigVarInt("net", 0, "mtu", 0), 700);
}

TEST_F(TwoServicesTest, AVerdictOfOneLinkIsNotLostBehindTheOthersLackOfInterest) {
  registerHandler("net", "mtu", &localProvider_, local_);
  registerHandler("net", "mtu", &engineProvider_, primary_);
  EXPECT_EQ(other_.write("net.mtu", "1300").error, CommonIF::ERROR_VETOED);
  EXPECT_FALSE(writeAtEngine("net.mtu", "1300"));
  EXPECT_TRUE(other_.write("net.mtu", "1400").ok());
  EXPECT_TRUE(writeAtEngine("net.mtu", "1400"));
  const auto both =
      testing::ElementsAre("may net.mtu = 1300", "may net.mtu = 1400", "change net.mtu = 1400");
  EXPECT_THAT(localProvider_.notes(), both);
  EXPECT_THAT(engineProvider_.notes(), both);
}

TEST_F(TwoServicesTest, AChangeAskedOfOneLinksProviderLeavesTheOtherLinksCacheAlone) {
  registerHandler("net", "mtu", &localProvider_, local_);
  EXPECT_EQ(primary_->getConfigVarInt("net", 0, "mtu", 0), 600);
  ASSERT_TRUE(other_.write("net.mtu", "1400").ok());
  EXPECT_EQ(local_->getConfigVarInt("net", 0, "mtu", 0), 1400);
  EXPECT_EQ(primary_->getConfigVarInt("net", 0, "mtu", 0), 600);
}

TEST_F(TwoServicesTest, OneServiceMayDieAndTheOthersLinkDoesNotNotice) {
  EXPECT_EQ(primary_->getConfigVarInt("net", 0, "mtu", 0), 600);
  service_.kill();
  ASSERT_TRUE(writeAtEngine("net.mtu", "700"));
  EXPECT_TRUE(eventually([&] { return primary_->getConfigVarInt("net", 0, "mtu", 0) == 700; }));
  EXPECT_EQ(local_->getConfigVar("net", 0, "name", 0), "");
  service_.start();
  EXPECT_EQ(local_->getConfigVar("net", 0, "name", 0), "gateway");
}

}  // namespace
}  // namespace TestSupport
