#include "appconfig/service/platform_cfg_service.h"
#include "tests/appconfig/service/link_fixture.h"
#include "tests/support/recording_handlers.h"

namespace {

using TestSupport::refuse;
using TestSupport::SentRequest;
using TestSupport::Value;

class ValueRequestsTest : public TestSupport::LinkTest {
 protected:
  template <typename Request, typename Response>
  void refuseAll() {
    pb.answer<Request, Response>([](const Request&, Response& response) {
      refuse(response.mutable_result(), CommonIF::ERROR_DENIED, "not you");
    });
  }

  std::size_t registrations() const {
    return pb.sentOf<ConfigIF::RegisterClientCallbackReq>().size();
  }
};

TEST_F(ValueRequestsTest, AReadReturnsTheValuesInOrderAndTheDefaultFlag) {
  TestSupport::answerReadsWith(pb, {"b", "", "a"}, true);
  bool isDefault = false;
  EXPECT_EQ(link->getConfigVar(mtu, isDefault), (Value{"b", "", "a"}));
  EXPECT_TRUE(isDefault);
  const std::vector<SentRequest> sent = pb.takeSent();
  ASSERT_EQ(sent.size(), 2U);
  expectRequest(sent[0], Helper::getReadRequest(self, role, mtu));
  expectRequest(sent[1], Helper::getRegClientCallbackRequest(self, role, "net.mtu",
                                                             ConfigIF::CALLBACK_VALUE_CHANGED,
                                                             TestSupport::linkName(0)));
  EXPECT_FALSE(sent[0].isOneWay);
}

// The other's registration begins where its own answer ended, which may be after a change that this
// answer does not hold.
TEST_F(ValueRequestsTest, AReadRegistersAlsoWhenAnotherDidWhileItWasOnItsWay) {
  pb.answer<ConfigIF::ReadReq, ConfigIF::ReadRsp>([this](const auto&, auto& response) {
    link->registerHandlerProactively(ConfigVar("net", 0, "", 0), ConfigRegistrar::eValueChanged);
    response.add_values("1500");
  });
  bool isDefault = false;
  link->getConfigVar(mtu, isDefault);
  EXPECT_EQ(registrations(), 2U);
  link->getConfigVar(mtu, isDefault);
  EXPECT_EQ(registrations(), 2U);
}

TEST_F(ValueRequestsTest, AWriteRegistersAlsoWhenAnotherDidWhileItWasOnItsWay) {
  pb.answer<ConfigIF::WriteReq, ConfigIF::WriteRsp>([this](const auto&, auto&) {
    link->registerHandlerProactively(mtu, ConfigRegistrar::eValueChanged);
  });
  EXPECT_TRUE(link->setConfigVar(mtu, {"1400"}, nullptr));
  EXPECT_EQ(registrations(), 2U);
}

// What was told to the handler that is gone was told for its sake; the answer is cached for longer.
TEST_F(ValueRequestsTest, AReadWhoseOnlyHandlerWasUnregisteredMeanwhileRegistersForItself) {
  TestSupport::RecordingConsumer consumer;
  link->registerHandler("net", "mtu", &consumer);
  pb.takeSent();
  pb.answer<ConfigIF::ReadReq, ConfigIF::ReadRsp>([&](const auto&, auto& response) {
    link->unregisterHandler("net", "mtu", &consumer);
    response.add_values("1500");
  });
  bool isDefault = false;
  link->getConfigVar(mtu, isDefault);
  EXPECT_EQ(registrations(), 1U);
  EXPECT_TRUE(link->isHandlerRegistered(mtu, ConfigRegistrar::eValueChanged));
}

TEST_F(ValueRequestsTest, AWriteWhoseOnlyHandlerWasUnregisteredMeanwhileRegistersForItself) {
  TestSupport::RecordingConsumer consumer;
  link->registerHandler("net", "mtu", &consumer);
  pb.takeSent();
  pb.answer<ConfigIF::WriteReq, ConfigIF::WriteRsp>(
      [&](const auto&, auto&) { link->unregisterHandler("net", "mtu", &consumer); });
  EXPECT_TRUE(link->setConfigVar(mtu, {"1400"}, nullptr));
  EXPECT_EQ(registrations(), 1U);
  EXPECT_TRUE(link->isHandlerRegistered(mtu, ConfigRegistrar::eValueChanged));
}

TEST_F(ValueRequestsTest, AReadWhoseHandlerStaysWhileAnotherGoesRegistersNothing) {
  TestSupport::RecordingConsumer stays;
  TestSupport::RecordingConsumer goes;
  link->registerHandler("net", "mtu", &stays);
  link->registerHandler("net", "name", &goes);
  pb.takeSent();
  pb.answer<ConfigIF::ReadReq, ConfigIF::ReadRsp>([&](const auto&, auto& response) {
    link->unregisterHandler("net", "name", &goes);
    response.add_values("1500");
  });
  bool isDefault = false;
  link->getConfigVar(mtu, isDefault);
  EXPECT_EQ(registrations(), 0U);
}

// The library's own interest outlives a handler that came while it was being registered.
TEST_F(ValueRequestsTest, AHandlerThatComesDuringTheLibrarysOwnRegistrationDoesNotStandInForIt) {
  TestSupport::RecordingConsumer consumer;
  TestSupport::answerReadsWith(pb, {"1500"});
  pb.answer<ConfigIF::RegisterClientCallbackReq, ConfigIF::RegisterClientCallbackRsp>(
      [&](const auto&, auto&) {
        link->ConfigRegistrar::registerHandler(mtu, &consumer, ConfigRegistrar::eValueChanged);
      });
  bool isDefault = false;
  link->getConfigVar(mtu, isDefault);
  link->unregisterHandler("net", "mtu", &consumer);
  EXPECT_TRUE(link->isHandlerRegistered(mtu, ConfigRegistrar::eValueChanged));
  link->getConfigVar(mtu, isDefault);
  EXPECT_EQ(registrations(), 1U);
}

TEST_F(ValueRequestsTest, AnAcceptedWriteIsRegisteredBeforeItsResultIsHandedOver) {
  ConfigResult result;
  result.fillConfigResult(false, eErrVetoed, false);
  eErrorT during = eErrNone;
  pb.answer<ConfigIF::RegisterClientCallbackReq, ConfigIF::RegisterClientCallbackRsp>(
      [&](const auto&, auto&) { during = result.error(); });
  EXPECT_TRUE(link->setConfigVar(mtu, {"1400"}, &result));
  EXPECT_EQ(during, eErrVetoed) << "untouched as yet";
  EXPECT_EQ(result.error(), eErrNone);
}

// A message layer of a device's own may count its failures downwards from -1 or upwards from 1.
TEST_F(ValueRequestsTest, AnyStatusOfTheMessageLayerButZeroIsAFailure) {
  for (const int status : {-2, -1, 1, 2}) {
    pb.failAll(status);
    EXPECT_FALSE(link->setConfigVar(mtu, {"1400"})) << status;
    EXPECT_FALSE(link->setConfigVar(mtu, {"1400"}, nullptr)) << status;
    EXPECT_FALSE(link->isValid(mtu, {"1400"}, nullptr)) << status;
    EXPECT_FALSE(link->resetValue(mtu)) << status;
    EXPECT_FALSE(link->getAccessLevels(mtu, nullptr, nullptr)) << status;
  }
  pb.succeed();
  EXPECT_TRUE(link->setConfigVar(mtu, {"1400"}));
  EXPECT_TRUE(link->resetValue(mtu));
}

TEST_F(ValueRequestsTest, RequestsGoToTheServiceByItsFullNameAndNameTheClientByItsOwn) {
  link = std::make_unique<Link>(0, "/engine/", "/ui");
  link->setPbInterface(&pb);
  link->resetValue(mtu);
  const std::vector<SentRequest> sent = pb.takeSent();
  ASSERT_EQ(sent.size(), 1U);
  expectRequest(sent[0], Helper::getResetValueRequest("/ui/thermostat-ui", role, mtu),
                "/engine/ConfigSrvc");
}

TEST_F(ValueRequestsTest, ALinkOfNamespace4ReadsAKeyOfNamespace0AsNamespace4AndResetsItAs0) {
  useLink(4);
  bool isDefault = false;
  link->getConfigVar(mtu, isDefault);
  const ConfigVar inFour(4, "net", 0, "mtu", 1);
  const std::vector<SentRequest> sent = pb.takeSent();
  ASSERT_EQ(sent.size(), 2U);
  expectRequest(sent[0], Helper::getReadRequest(self, role, inFour));
  expectRequest(sent[1], Helper::getRegClientCallbackRequest(self, role, "net.mtu",
                                                             ConfigIF::CALLBACK_VALUE_CHANGED,
                                                             TestSupport::linkName(4)));
  EXPECT_TRUE(link->isHandlerRegistered(inFour, ConfigRegistrar::eValueChanged));
  link->resetValue(mtu);
  expectOnly(Helper::getResetValueRequest(self, role, mtu));
}

TEST_F(ValueRequestsTest, WritesAndValidationCarryTheDeterminedNamespaceToo) {
  useLink(4);
  const ConfigVar inFour(4, "net", 0, "mtu", 1);
  const Value value{"1400", "1500"};
  link->setConfigVar(ConfigVar(9, "net", 0, "mtu", 1), value, nullptr);
  expectRequest(pb.takeSent().front(), Helper::getWriteRequest(self, role, inFour, value));
  link->setConfigVar(mtu, value);
  expectOnly(Helper::getWriteRequest(self, role, inFour, value));
  link->isValid(mtu, value, nullptr);
  expectOnly(Helper::getValidateRequest(self, role, inFour, value));
}

TEST_F(ValueRequestsTest, ALinkOfNamespace0SendsTheKeysOwnNamespace) {
  const ConfigVar inSeven(7, "net", 0, "mtu", 1);
  link->isValid(inSeven, {"1"}, nullptr);
  expectOnly(Helper::getValidateRequest(self, role, inSeven, Value{"1"}));
}

TEST_F(ValueRequestsTest, AnEmptyAnswerSetsTheDefaultFlagAndStillRegisters) {
  TestSupport::answerReadsWith(pb, {}, true);
  bool isDefault = false;
  EXPECT_EQ(link->getConfigVar(mtu, isDefault), Value{});
  EXPECT_TRUE(isDefault);
  EXPECT_EQ(registrations(), 1U);
}

TEST_F(ValueRequestsTest, AReadThatFailsLeavesTheFlagAndRegistersNothing) {
  bool isDefault = true;
  pb.fail<ConfigIF::ReadReq>();
  EXPECT_EQ(link->getConfigVar(mtu, isDefault), Value{});
  pb.succeed();
  pb.answer<ConfigIF::ReadReq, ConfigIF::ReadRsp>([](const auto&, auto& response) {
    response.add_values("1500");
    refuse(response.mutable_result(), CommonIF::ERROR_NOT_FOUND);
  });
  EXPECT_EQ(link->getConfigVar(mtu, isDefault), Value{});
  EXPECT_TRUE(isDefault);
  EXPECT_EQ(registrations(), 0U);
}

TEST_F(ValueRequestsTest, AOneWayWriteRegistersBeforeItSends) {
  EXPECT_TRUE(link->setConfigVar(mtu, {"1400"}));
  const std::vector<SentRequest> sent = pb.takeSent();
  ASSERT_EQ(sent.size(), 2U);
  EXPECT_EQ(sent[0].type, "ConfigIF.RegisterClientCallbackReq");
  expectRequest(sent[1], Helper::getWriteRequest(self, role, mtu, Value{"1400"}));
  EXPECT_TRUE(sent[1].isOneWay);
}

TEST_F(ValueRequestsTest, AOneWayWriteWhoseSendFailsReturnsFalseAndStaysRegistered) {
  pb.fail<ConfigIF::WriteReq>();
  EXPECT_FALSE(link->setConfigVar(mtu, {"1400"}));
  EXPECT_EQ(registrations(), 1U);
  EXPECT_TRUE(link->isHandlerRegistered(mtu, ConfigRegistrar::eValueChanged));
}

TEST_F(ValueRequestsTest, AnAcceptedWriteAssignsTheResultAndRegistersAfterwards) {
  pb.answer<ConfigIF::WriteReq, ConfigIF::WriteRsp>([](const auto&, auto& response) {
    response.mutable_result()->set_flag(true);
    response.mutable_result()->add_messages("as before");
  });
  ConfigResult result;
  result.addResultMessage("old");
  result.setClientName("old");
  EXPECT_TRUE(link->setConfigVar(mtu, {"1400"}, &result));
  EXPECT_EQ(result.error(), eErrNone);
  EXPECT_TRUE(result.flag());
  EXPECT_EQ(result.resultMessages(), Value{"as before"});
  EXPECT_EQ(result.clientName(), "");
  const std::vector<SentRequest> sent = pb.takeSent();
  ASSERT_EQ(sent.size(), 2U);
  EXPECT_EQ(sent[0].type, "ConfigIF.WriteReq");
  EXPECT_EQ(sent[1].type, "ConfigIF.RegisterClientCallbackReq");
}

TEST_F(ValueRequestsTest, AnAnswerWithoutAReturnMessageIsASuccessThatSaysNothing) {
  const auto expectFresh = [](const ConfigResult& result) {
    EXPECT_EQ(result.error(), eErrNone);
    EXPECT_FALSE(result.flag());
    EXPECT_EQ(result.resultMessages(), Value{});
    EXPECT_EQ(result.serverContext(), "");
  };
  ConfigResult written;
  written.fillConfigResult(true, eErrConflict, true);
  written.addResultMessage("old");
  written.setServerContext("old");
  ConfigResult validated = written;
  EXPECT_TRUE(link->setConfigVar(mtu, {"1400"}, &written));
  expectFresh(written);
  EXPECT_TRUE(link->isValid(mtu, {"1400"}, &validated));
  expectFresh(validated);
}

TEST_F(ValueRequestsTest, ARejectedWriteReturnsFalseAndCopiesTheRejection) {
  refuseAll<ConfigIF::WriteReq, ConfigIF::WriteRsp>();
  ConfigResult result;
  EXPECT_FALSE(link->setConfigVar(mtu, {"1400"}, &result));
  EXPECT_EQ(result.error(), eErrDenied);
  EXPECT_EQ(result.resultMessages(), Value{"not you"});
  EXPECT_EQ(registrations(), 0U);
}

TEST_F(ValueRequestsTest, ANullResultPointerIsAllowed) {
  EXPECT_TRUE(link->setConfigVar(mtu, {"1400"}, nullptr));
  EXPECT_TRUE(link->isValid(mtu, {"1400"}, nullptr));
  refuseAll<ConfigIF::WriteReq, ConfigIF::WriteRsp>();
  refuseAll<ConfigIF::ValidateReq, ConfigIF::ValidateRsp>();
  EXPECT_FALSE(link->setConfigVar(mtu, {"1400"}, nullptr));
  EXPECT_FALSE(link->isValid(mtu, {"1400"}, nullptr));
}

TEST_F(ValueRequestsTest, AFailedSendLeavesTheResultUntouched) {
  pb.failAll();
  ConfigResult result;
  result.fillConfigResult(true, eErrConflict, true);
  EXPECT_FALSE(link->setConfigVar(mtu, {"1400"}, &result));
  EXPECT_FALSE(link->isValid(mtu, {"1400"}, &result));
  EXPECT_FALSE(link->resetValue(mtu));
  EXPECT_EQ(result.error(), eErrConflict);
  EXPECT_TRUE(result.flag());
}

TEST_F(ValueRequestsTest, ValidationNeverRegistersEvenWhenTheValueIsValid) {
  ConfigResult result;
  EXPECT_TRUE(link->isValid(mtu, {"1400"}, &result));
  expectOnly(Helper::getValidateRequest(self, role, mtu, Value{"1400"}));
  refuseAll<ConfigIF::ValidateReq, ConfigIF::ValidateRsp>();
  EXPECT_FALSE(link->isValid(mtu, {"1400"}, &result));
  EXPECT_EQ(result.error(), eErrDenied);
  EXPECT_EQ(registrations(), 0U);
}

TEST_F(ValueRequestsTest, ValidationByPartsBuildsTheKey) {
  EXPECT_TRUE(link->isValid("NET", 0, "Mtu", 1, {"1400"}, nullptr));
  expectOnly(Helper::getValidateRequest(self, role, mtu, Value{"1400"}));
}

TEST_F(ValueRequestsTest, AResetTellsWhetherTheServiceDidItAndRegistersNothing) {
  EXPECT_TRUE(link->resetValue(mtu));
  expectOnly(Helper::getResetValueRequest(self, role, mtu));
  refuseAll<ConfigIF::ResetValueReq, ConfigIF::ResetValueRsp>();
  EXPECT_FALSE(link->resetValue(mtu));
  EXPECT_EQ(registrations(), 0U);
}

TEST_F(ValueRequestsTest, WithoutAnEndpointEverythingFailsAndNothingIsTouched) {
  Link detached(0, "", "");
  bool isDefault = true;
  ConfigResult result;
  result.fillConfigResult(true, eErrConflict, true);
  EXPECT_EQ(detached.getConfigVar(mtu, isDefault), Value{});
  EXPECT_TRUE(isDefault);
  EXPECT_FALSE(detached.setConfigVar(mtu, {"1"}));
  EXPECT_FALSE(detached.setConfigVar(mtu, {"1"}, &result));
  EXPECT_FALSE(detached.isValid(mtu, {"1"}, &result));
  EXPECT_FALSE(detached.resetValue(mtu));
  EXPECT_EQ(result.error(), eErrConflict);
  EXPECT_FALSE(detached.isHandlerRegistered(mtu, ConfigRegistrar::eValueChanged));
}

TEST_F(ValueRequestsTest, NothingIsPrintedOnAnyFailure) {
  testing::internal::CaptureStdout();
  pb.failAll();
  bool isDefault = false;
  link->getConfigVar(mtu, isDefault);
  link->setConfigVar(mtu, {"1"});
  link->setConfigVar(mtu, {"1"}, nullptr);
  link->resetValue(mtu);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

}  // namespace
