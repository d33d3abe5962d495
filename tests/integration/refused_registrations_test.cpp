// The library while the running service has no room for its registrations: a share of the
// application's own endpoint is filled, and a place in it given back.
#include "platform/messaging/registration_refusals.h"
#include "tests/integration/application.h"
#include "tests/integration/fixture.h"

namespace TestSupport {
namespace {

using AppConfig::AppCfgManager;

// As many links as one endpoint may have.
constexpr int kLinks = 64;

class RefusedRegistrationsTest : public IntegrationTest {
 protected:
  RefusedRegistrationsTest() {
    config_->setPbInterface(&endpoint_);
    for (int i = 0; i < kLinks; ++i) fill(i);
  }

  // Takes one of the places, which the library's link then does not find.
  void fill(int place) {
    const auto request = filler<ConfigIF::RegisterClientCallbackReq>(place);
    ConfigIF::RegisterClientCallbackRsp response;
    ASSERT_EQ(endpoint_.sendWaitResponse(request, &response, "ConfigSrvc"), 0);
    ASSERT_EQ(response.result().error(), CommonIF::ERROR_NONE);
  }
  void makeRoom() {
    const auto request = filler<ConfigIF::UnregisterClientCallbackReq>(0);
    ConfigIF::UnregisterClientCallbackRsp response;
    ASSERT_EQ(endpoint_.sendWaitResponse(request, &response, "ConfigSrvc"), 0);
    ASSERT_EQ(response.result().error(), CommonIF::ERROR_NONE);
  }
  std::string refusal() const { return PbUtility::registrationRefusal(&endpoint_, "ConfigSrvc"); }

  NotingConsumer consumer_;
  PbUtility::Endpoint endpoint_{"application", inDirectory(service_.runtimeDir())};
  AppCfgManager* config_ = AppCfgManager::getInstance();

 private:
  template <typename Request>
  static Request filler(int place) {
    Request request;
    request.set_client_name("filler");
    request.set_name("net.name");
    request.set_type(ConfigIF::CALLBACK_SUBMIT);
    request.set_endpoint_name("place " + std::to_string(place));
    return request;
  }
};

TEST_F(RefusedRegistrationsTest, AValueThatWasReadWithoutRoomIsCurrentOnceThereIsSome) {
  EXPECT_EQ(config_->getConfigVarInt("net", 0, "mtu", 0), 1500);
  EXPECT_NE(refusal(), "");
  ASSERT_TRUE(other_.write("net.mtu", "1400").ok());
  makeRoom();
  EXPECT_TRUE(eventually([&] { return config_->getConfigVarInt("net", 0, "mtu", 0) == 1400; }));
  EXPECT_TRUE(eventually([&] { return refusal().empty(); }));
  ASSERT_TRUE(other_.write("net.mtu", "1300").ok());
  EXPECT_TRUE(eventually([&] { return config_->getConfigVarInt("net", 0, "mtu", 0) == 1300; }));
}

// Nobody tells of changes meanwhile, so the next read asks again.
TEST_F(RefusedRegistrationsTest, AValueThatIsReadWithoutRoomIsNotKeptButAskedForEachTime) {
  EXPECT_EQ(config_->getConfigVarInt("net", 0, "mtu", 0), 1500);
  ASSERT_TRUE(other_.write("net.mtu", "1400").ok());
  EXPECT_EQ(config_->getConfigVarInt("net", 0, "mtu", 0), 1400);
  ASSERT_TRUE(other_.write("net.mtu", "1300").ok());
  EXPECT_EQ(config_->getConfigVarInt("net", 0, "mtu", 0), 1300);
  EXPECT_NE(refusal(), "") << "there was no room all the time";
}

TEST_F(RefusedRegistrationsTest, AVariableOfAGroupWhoseHandlerFoundNoRoomIsNotKeptEither) {
  registerHandler("net", &consumer_);
  EXPECT_EQ(config_->getConfigVarInt("net", 0, "mtu", 0), 1500);
  ASSERT_TRUE(other_.write("net.mtu", "1400").ok());
  EXPECT_EQ(config_->getConfigVarInt("net", 0, "mtu", 0), 1400);
}

TEST_F(RefusedRegistrationsTest, OnceThereIsRoomAValueIsKeptAgain) {
  EXPECT_EQ(config_->getConfigVarInt("net", 0, "mtu", 0), 1500);
  makeRoom();
  ASSERT_TRUE(eventually([&] { return refusal().empty(); }));
  EXPECT_EQ(config_->getConfigVarInt("net", 0, "mtu", 0), 1500);
  ConfigIF::StatusRsp before;
  ConfigIF::StatusRsp after;
  ASSERT_TRUE(client_.request(ConfigIF::StatusReq(), &before).ok());
  for (int i = 0; i < 100; ++i) EXPECT_EQ(config_->getConfigVarInt("net", 0, "mtu", 0), 1500);
  ASSERT_TRUE(client_.request(ConfigIF::StatusReq(), &after).ok());
  EXPECT_EQ(after.reads(), before.reads());
}

TEST_F(RefusedRegistrationsTest, AHandlerThatFoundNoRoomIsToldWhatItMissedOnceThereIsSome) {
  registerHandler("net", &consumer_);
  EXPECT_NE(refusal(), "");
  ASSERT_TRUE(other_.write("net.mtu", "1400").ok());
  EXPECT_TRUE(consumer_.notes().empty());
  makeRoom();
  EXPECT_TRUE(consumer_.waitFor("value net.mtu = 1400"));
  ASSERT_TRUE(other_.write("net.mtu", "1300").ok());
  EXPECT_TRUE(consumer_.waitFor("value net.mtu = 1300"));
}

}  // namespace
}  // namespace TestSupport
