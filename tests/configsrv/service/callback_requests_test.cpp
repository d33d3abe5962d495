#include "configsrv/service/internal/callback_requests.h"

#include "tests/configsrv/service/requests_fixture.h"

namespace ConfigSrv {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class CallbackRequestsTest : public RequestsFixture {
 protected:
  static ConfigIF::RegisterClientCallbackReq registration(const std::string& name) {
    ConfigIF::RegisterClientCallbackReq request;
    request.set_name(name);
    request.set_type(ConfigIF::CALLBACK_VALUE_CHANGED);
    request.set_endpoint_name("link");
    return request;
  }
  bool isTold(const std::string& name) const {
    return subscriptions_.anyCovering(name, ConfigIF::CALLBACK_VALUE_CHANGED);
  }

  ProviderMemory providers_{"", log_};
  CallbackRequests requests_{
      frame_,
      {log_, access_, model_, subscriptions_, announcer_, changes_, providers_, server_, slices_}};
};

TEST_F(CallbackRequestsTest, TakesTheRequestsAboutCallbacksAndSubmitsAndNoOthers) {
  EXPECT_THAT(takenBy(requests_),
              ElementsAre("RegisterClientCallbackReq", "UnregisterClientCallbackReq",
                          "UnregisterAllClientCallbacksReq", "SubmitReq"));
  EXPECT_EQ(subscriptions_.count(), 0U);
}

TEST_F(CallbackRequestsTest, ARegistrationHoldsUntilItIsWithdrawn) {
  EXPECT_TRUE(handle(requests_, registration("net")));
  EXPECT_EQ(answer(), "RegisterClientCallbackRsp");
  EXPECT_TRUE(isTold("net.mtu"));
  ConfigIF::UnregisterClientCallbackReq withdrawal;
  withdrawal.set_name("net");
  withdrawal.set_type(ConfigIF::CALLBACK_VALUE_CHANGED);
  withdrawal.set_endpoint_name("link");
  EXPECT_TRUE(handle(requests_, withdrawal));
  EXPECT_EQ(answer(), "UnregisterClientCallbackRsp");
  EXPECT_FALSE(isTold("net.mtu"));
  EXPECT_TRUE(handle(requests_, withdrawal));
  EXPECT_THAT(answer(), HasSubstr("there is no such registration"));
}

TEST_F(CallbackRequestsTest, AllOfAClientAreWithdrawnTogetherWithoutARole) {
  ConfigIF::RegisterClientCallbackReq request = registration("net");
  request.set_client_name("c");
  EXPECT_TRUE(handle(requests_, request));
  ConfigIF::UnregisterAllClientCallbacksReq all;
  all.set_client_name("c");
  EXPECT_TRUE(
      handle(requests_, PlatformSchema::kUnregisterAllClientCallbacksReq, all.SerializeAsString()));
  EXPECT_FALSE(isTold("net.mtu"));
}

TEST_F(CallbackRequestsTest, ASubmitTakesTheRightToWrite) {
  ConfigIF::SubmitReq submit;
  *submit.mutable_inst() = instOf("net.guarded");
  EXPECT_TRUE(handle(requests_, submit));
  EXPECT_THAT(answer(), HasSubstr("the role is too low to submit it"));
  *submit.mutable_inst() = instOf("net.mtu");
  EXPECT_TRUE(handle(requests_, submit));
  EXPECT_EQ(answer(), "SubmitRsp");
}

}  // namespace
}  // namespace ConfigSrv
