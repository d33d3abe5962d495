#include "appconfig/registry/consumer_config_handler.h"
#include "appconfig/registry/provider_config_handler.h"
#include "appconfig/service/platform_cfg_service.h"
#include "tests/appconfig/service/link_fixture.h"
#include "tests/support/recording_handlers.h"

namespace {

using TestSupport::RecordingConsumer;
using TestSupport::RecordingProvider;
using TestSupport::refuse;
using TestSupport::SentRequest;

class CallbackRegistrationTest : public TestSupport::LinkTest {
 protected:
  // Wire types of the registrations sent since the last call, in order.
  std::vector<int> registeredTypes() {
    std::vector<int> types;
    for (const SentRequest& sent : pb.takeSent()) {
      EXPECT_EQ(sent.type, "ConfigIF.RegisterClientCallbackReq");
      types.push_back(sent.as<ConfigIF::RegisterClientCallbackReq>().type());
    }
    return types;
  }

  void refuseRegistrations() {
    pb.answer<ConfigIF::RegisterClientCallbackReq, ConfigIF::RegisterClientCallbackRsp>(
        [](const auto&, auto& response) {
          refuse(response.mutable_result(), CommonIF::ERROR_LIMIT);
        });
  }

  RecordingConsumer consumer;
  RecordingProvider provider;
};

TEST_F(CallbackRegistrationTest, ARegistrationNamesVariableTypeClientRoleAndLink) {
  EXPECT_TRUE(link->registerCallback(mtu, ConfigIF::CALLBACK_SUBMIT));
  expectOnly(Helper::getRegClientCallbackRequest(self, role, "net.mtu", ConfigIF::CALLBACK_SUBMIT,
                                                 TestSupport::linkName(0)));
}

TEST_F(CallbackRegistrationTest, ARefusedOrUnsentRegistrationReturnsFalse) {
  refuseRegistrations();
  EXPECT_FALSE(link->registerCallback(mtu, ConfigIF::CALLBACK_SUBMIT));
  pb.failAll();
  EXPECT_FALSE(link->registerCallback(mtu, ConfigIF::CALLBACK_SUBMIT));
  EXPECT_FALSE(link->unregisterCallback(mtu, ConfigIF::CALLBACK_SUBMIT));
}

TEST_F(CallbackRegistrationTest, ARefusedWithdrawalReturnsFalse) {
  pb.answer<ConfigIF::UnregisterClientCallbackReq, ConfigIF::UnregisterClientCallbackRsp>(
      [](const auto&, auto& response) {
        refuse(response.mutable_result(), CommonIF::ERROR_NOT_FOUND);
      });
  EXPECT_FALSE(link->unregisterCallback(mtu, ConfigIF::CALLBACK_SUBMIT));
  EXPECT_FALSE(link->unregisterOptionsCallback(mtu));
}

TEST_F(CallbackRegistrationTest, TheFiveWithdrawalsDifferInTheirType) {
  bool (Link::*const withdrawals[])(const ConfigVar&) = {
      &Link::unregisterChangeCallback, &Link::unregisterAttributeCallback,
      &Link::unregisterOptionsCallback, &Link::unregisterSubmitCallback,
      &Link::unregisterAccessLevelsCallback};
  int type = 3;
  for (const auto withdraw : withdrawals) {
    EXPECT_TRUE((*link.*withdraw)(mtu));
    expectOnly(Helper::getUnregClientCallbackRequest(self, role, "net.mtu",
                                                     static_cast<ConfigIF::CallbackType>(type++),
                                                     TestSupport::linkName(0)));
  }
}

TEST_F(CallbackRegistrationTest, WithdrawingEverythingIsOneOneWayRequestAndKeepsTheHandlers) {
  link->registerHandler("net", "mtu", &consumer);
  pb.takeSent();
  link->unregisterAllCallbacks();
  const std::vector<SentRequest> sent = pb.takeSent();
  ASSERT_EQ(sent.size(), 1U);
  EXPECT_TRUE(sent[0].isOneWay);
  expectRequest(sent[0], Helper::getUnregAllClientCallbacksRequest(self));
  EXPECT_EQ(link->getHandlers("net", "mtu", ConfigRegistrar::eSubmit).size(), 1U);
}

TEST_F(CallbackRegistrationTest, ReadingTheSameVariableTwiceSendsOneRegistration) {
  bool isDefault = false;
  link->getConfigVar(mtu, isDefault);
  link->getConfigVar(mtu, isDefault);
  EXPECT_EQ(pb.sentOf<ConfigIF::RegisterClientCallbackReq>().size(), 1U);
}

TEST_F(CallbackRegistrationTest, ReadingAnotherInstanceOfTheVariableSendsNoSecondRegistration) {
  bool isDefault = false;
  link->getConfigVar(mtu, isDefault);
  link->getConfigVar(ConfigVar("net", 3, "mtu", 2), isDefault);
  link->getConfigVar(ConfigVar(7, "net", 0, "mtu", 1), isDefault);
  EXPECT_EQ(pb.sentOf<ConfigIF::ReadReq>().size(), 3U);
  EXPECT_EQ(pb.sentOf<ConfigIF::RegisterClientCallbackReq>().size(), 1U);
}

TEST_F(CallbackRegistrationTest, InterestInTheValueOptionsAndRolesIsRegisteredApart) {
  bool isDefault = false;
  unsigned int index = 0;
  std::list<std::string> options;
  for (int repetition = 0; repetition < 2; ++repetition) {
    link->getConfigVar(mtu, isDefault);
    link->getConfigOptions(mtu, options, index);
    link->getAccessLevels(mtu, nullptr, nullptr);
  }
  std::vector<int> types;
  for (const auto& request : pb.sentOf<ConfigIF::RegisterClientCallbackReq>())
    types.push_back(request.type());
  EXPECT_EQ(types, (std::vector<int>{3, 5, 7}));
}

TEST_F(CallbackRegistrationTest, ARefusedInterestIsNotAskedForAgain) {
  refuseRegistrations();
  EXPECT_TRUE(link->registerHandlerProactively(mtu, ConfigRegistrar::eValueChanged));
  EXPECT_TRUE(link->registerHandlerProactively(mtu, ConfigRegistrar::eValueChanged));
  EXPECT_EQ(registeredTypes(), std::vector<int>{3});
}

TEST_F(CallbackRegistrationTest, TheLibrarysOwnInterestIsAMarkerAndNoHandler) {
  EXPECT_TRUE(link->registerHandlerProactively(mtu, ConfigRegistrar::eOptionsChanged));
  EXPECT_EQ(registeredTypes(), std::vector<int>{5});
  EXPECT_TRUE(link->isHandlerRegistered(mtu, ConfigRegistrar::eOptionsChanged));
  EXPECT_TRUE(link->getHandlers("net", "mtu", ConfigRegistrar::eOptionsChanged).empty());
  EXPECT_TRUE(link->registerHandlerProactively(mtu, ConfigRegistrar::eOptionsChanged));
  EXPECT_TRUE(registeredTypes().empty());
}

// Who sees a marker relies on notices, and there are none before the service knows.
TEST_F(CallbackRegistrationTest, AMarkerIsNotThereBeforeTheServiceHasAnswered) {
  bool wasThere = true;
  pb.answer<ConfigIF::RegisterClientCallbackReq, ConfigIF::RegisterClientCallbackRsp>(
      [&](const auto&, auto&) {
        wasThere = link->isHandlerRegistered(mtu, ConfigRegistrar::eValueChanged);
      });
  link->registerHandlerProactively(mtu, ConfigRegistrar::eValueChanged);
  EXPECT_FALSE(wasThere);
  EXPECT_TRUE(link->isHandlerRegistered(mtu, ConfigRegistrar::eValueChanged));
}

TEST_F(CallbackRegistrationTest, AGroupsHandlerSparesTheVariableItsRegistration) {
  link->registerHandler("net", "", &consumer);
  pb.takeSent();
  EXPECT_TRUE(link->registerHandlerProactively(mtu, ConfigRegistrar::eValueChanged));
  EXPECT_TRUE(registeredTypes().empty());
}

TEST_F(CallbackRegistrationTest, AGroupsHandlersSpareThoseOfItsVariablesTheirRegistrations) {
  link->registerHandler("net", "", &consumer);
  link->registerHandler("net", "", &provider);
  pb.takeSent();
  RecordingConsumer consumerOfVariable;
  RecordingProvider providerOfVariable;
  link->registerHandler("net.eth0", "mtu", &consumerOfVariable);
  link->registerHandler("net.eth0", "mtu", &providerOfVariable);
  EXPECT_TRUE(pb.takeSent().empty());
  EXPECT_EQ(link->getHandlers("net.eth0", "mtu", ConfigRegistrar::eSubmit),
            (std::list<ConsumerConfigHandler*>{&consumerOfVariable, &consumer}));
  EXPECT_EQ(link->getProviderHandlers("net.eth0", "mtu"),
            (std::list<ProviderConfigHandler*>{&providerOfVariable, &provider}));
}

TEST_F(CallbackRegistrationTest, AConsumerIsRegisteredForAllFiveTypesInTheFixedOrder) {
  link->registerHandler("NET", "Mtu", &consumer);
  EXPECT_EQ(registeredTypes(), (std::vector<int>{3, 6, 4, 5, 7}));
  for (const auto type : {ConfigRegistrar::eValueChanged, ConfigRegistrar::eAttributeChanged,
                          ConfigRegistrar::eOptionsChanged, ConfigRegistrar::eSubmit,
                          ConfigRegistrar::eAccessLevelsChanged}) {
    EXPECT_EQ(link->getHandlers("net", "mtu", type), std::list<ConsumerConfigHandler*>{&consumer});
  }
}

TEST_F(CallbackRegistrationTest, AConsumerForAKeyAlreadyReadIsRegisteredForTheOtherFourTypesOnly) {
  bool isDefault = false;
  link->getConfigVar(mtu, isDefault);
  pb.takeSent();
  link->registerHandler("net", "mtu", &consumer);
  EXPECT_EQ(registeredTypes(), (std::vector<int>{6, 4, 5, 7}));
}

TEST_F(CallbackRegistrationTest, AHandlerIsEnteredEvenWhenTheServiceRefuses) {
  refuseRegistrations();
  link->registerHandler("net", "mtu", &consumer);
  link->registerHandler("net", "mtu", &provider);
  EXPECT_EQ(pb.takeSent().size(), 7U);
  EXPECT_EQ(link->getHandlers("net", "mtu", ConfigRegistrar::eSubmit).size(), 1U);
  EXPECT_EQ(link->getProviderHandlers("net", "mtu").size(), 1U);
  link->registerHandler("net", "mtu", &consumer);
  EXPECT_TRUE(pb.takeSent().empty());  // registered here, so not asked for again
}

TEST_F(CallbackRegistrationTest, TheFirstProviderIsRegisteredForBothKindsType2First) {
  link->registerHandler("net", "mtu", &provider);
  EXPECT_EQ(registeredTypes(), (std::vector<int>{2, 1}));
  RecordingProvider second;
  link->registerHandler("net", "mtu", &second);
  EXPECT_TRUE(registeredTypes().empty());
  EXPECT_EQ(link->getProviderHandlers("net", "mtu"),
            (std::list<ProviderConfigHandler*>{&provider, &second}));
}

TEST_F(CallbackRegistrationTest, AKeyWithoutANameRegistersUnderItsGroupAlone) {
  link->registerHandler("net", "", &consumer);
  for (const auto& request : pb.sentOf<ConfigIF::RegisterClientCallbackReq>())
    EXPECT_EQ(request.name(), "net");
  pb.takeSent();
  link->registerCallback(ConfigVar("", 0, "mtu", 0), ConfigIF::CALLBACK_SUBMIT);
  EXPECT_EQ(pb.takeSent().back().as<ConfigIF::RegisterClientCallbackReq>().name(), ".mtu");
}

TEST_F(CallbackRegistrationTest, UnregisteringAHandlerSendsNothing) {
  link->registerHandler("net", "mtu", &consumer);
  link->registerHandler("net", "mtu", &provider);
  pb.takeSent();
  link->unregisterHandler("Net", "MTU", &consumer);
  link->unregisterHandler("Net", "MTU", &provider);
  EXPECT_TRUE(pb.takeSent().empty());
  EXPECT_FALSE(link->isHandlerRegistered(mtu, ConfigRegistrar::eValueChanged));
  EXPECT_FALSE(link->isHandlerRegistered(mtu, ConfigRegistrar::eAccessLevelsChanged));
  EXPECT_FALSE(link->isProviderHandlerRegistered(mtu));
}

TEST_F(CallbackRegistrationTest, UnregisteringAHandlerLeavesTheLibrarysOwnInterest) {
  bool isDefault = false;
  link->getConfigVar(mtu, isDefault);
  link->registerHandler("net", "mtu", &consumer);
  link->unregisterHandler("net", "mtu", &consumer);
  EXPECT_TRUE(link->isHandlerRegistered(mtu, ConfigRegistrar::eValueChanged));
  EXPECT_FALSE(link->isHandlerRegistered(mtu, ConfigRegistrar::eSubmit));
  pb.takeSent();
  link->getConfigVar(mtu, isDefault);
  EXPECT_EQ(pb.takeSent().size(), 1U);  // the read alone
}

TEST_F(CallbackRegistrationTest, WithoutAnEndpointRegisteringIsFalseAndWithdrawingDoesNothing) {
  Link detached(0, "", "");
  EXPECT_FALSE(detached.registerCallback(mtu, ConfigIF::CALLBACK_SUBMIT));
  EXPECT_FALSE(detached.unregisterCallback(mtu, ConfigIF::CALLBACK_SUBMIT));
  EXPECT_FALSE(detached.unregisterChangeCallback(mtu));
  detached.unregisterAllCallbacks();
  EXPECT_TRUE(pb.sent().empty());
  detached.registerHandler("net", "mtu", &consumer);
  EXPECT_EQ(detached.getHandlers("net", "mtu", ConfigRegistrar::eSubmit).size(), 1U);
}

}  // namespace
