// Handlers that come and go beside a running service, as an application's objects do.
#include "appconfig/registry/subscription.h"

#include <atomic>
#include <memory>
#include <thread>

#include "tests/integration/application.h"
#include "tests/integration/fixture.h"
#include "tests/support/threads.h"

namespace TestSupport {
namespace {

using AppConfig::AppCfgManager;
using AppConfig::Subscription;

class SubscriptionWithServiceTest : public IntegrationTest {
 protected:
  SubscriptionWithServiceTest() { config_->setPbInterface(&endpoint_); }

  PbUtility::Endpoint endpoint_{"application", inDirectory(service_.runtimeDir())};
  AppCfgManager* config_ = AppCfgManager::getInstance();
};

TEST_F(SubscriptionWithServiceTest, HandlersAreDeletedWhileAnotherProcessWritesOnAndOn) {
  std::atomic<bool> isOver{false};
  Threads writer;
  writer.run([&] {
    for (int value = 0; !isOver; ++value) other_.write("net.name", std::to_string(value));
  });
  int told = 0;
  const bool enough = eventually([&] {
    auto ofVariable = std::make_unique<NotingConsumer>();
    auto ofGroup = std::make_unique<NotingConsumer>();
    Subscription first("net", "name", ofVariable.get());
    const Subscription second("net", ofGroup.get());
    if (told < 10 && eventually([&] { return !ofGroup->notes().empty(); })) ++told;
    first.end();
    ofVariable.reset();
    return told >= 10;
  });
  isOver = true;
  EXPECT_TRUE(enough) << told;
}

TEST_F(SubscriptionWithServiceTest, OnceAllThatCameIsHandledAHandlerThatWasUnregisteredCanGo) {
  std::atomic<bool> isOver{false};
  Threads writer;
  writer.run([&] {
    for (int value = 0; !isOver; ++value) other_.write("net.name", std::to_string(value));
  });
  for (int round = 0; round < 20; ++round) {
    auto consumer = std::make_unique<NotingConsumer>();
    registerHandler("net", "name", consumer.get());
    EXPECT_TRUE(eventually([&] { return !consumer->notes().empty(); }));
    unregisterHandler("net", "name", consumer.get());
    ASSERT_TRUE(endpoint_.waitUntilHandled(kPatience));
  }
  isOver = true;
}

TEST_F(SubscriptionWithServiceTest, ItLivesThroughARestartAndEndsWhileTheServiceIsAway) {
  NotingConsumer consumer;
  Subscription told("net", "mtu", &consumer);
  service_.kill();
  service_.start();
  ASSERT_TRUE(other_.write("net.mtu", "1400").ok());
  EXPECT_TRUE(consumer.waitFor("value net.mtu = 1400"));
  service_.kill();
  told.end();
  service_.start();
  NotingConsumer behind;
  const Subscription other("net", "mtu", &behind);
  ASSERT_TRUE(other_.write("net.mtu", "1401").ok());
  EXPECT_TRUE(behind.waitFor("value net.mtu = 1401"));
  EXPECT_THAT(consumer.notes(), testing::Not(testing::Contains("value net.mtu = 1401")));
}

TEST_F(SubscriptionWithServiceTest, AProviderThatHasEndedIsNotAskedAndChangesGoOn) {
  auto provider = std::make_unique<NotingProvider>("1300");
  Subscription asked("net", "mtu", provider.get());
  EXPECT_EQ(other_.write("net.mtu", "1300").error, CommonIF::ERROR_VETOED);
  asked.end();
  provider.reset();
  EXPECT_TRUE(other_.write("net.mtu", "1300").ok());
}

}  // namespace
}  // namespace TestSupport
