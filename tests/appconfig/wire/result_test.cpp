// Results as return messages, and back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "appconfig/wire/protobuf_message_helper.h"
#include "tests/appconfig/wire/messages.h"

namespace AppConfig {
namespace {

using namespace std::string_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using Helper = ProtobufMessageHelper;

constexpr char kErrorCheck[] = "CHECK failed: CommonIF::eErrorType_IsValid(value): ";

ConfigIF::ReturnMessage written(const ConfigResult& result) {
  ConfigIF::ReturnMessage message;
  Helper::fillReturnMessage(&message, result);
  return message;
}

ConfigResult fullResult() {
  ConfigResult result;
  result.fillConfigResult(true, eErrVetoed, true);
  result.addResultMessage("second thoughts");
  result.addResultMessage("first\0thoughts\xff"s);
  result.setServerContext("context 7");
  result.setClientName("/engine/web-ui");
  return result;
}

ConfigIF::ReturnMessage fullMessage() {
  ConfigIF::ReturnMessage message;
  message.set_error(CommonIF::ERROR_VETOED);
  message.set_flag(true);
  message.add_messages("second thoughts");
  message.add_messages("first\0thoughts\xff"s);
  message.set_server_context("context 7");
  message.set_client_name("/engine/web-ui");
  return message;
}

void expectSameResult(const ConfigResult& actual, const ConfigResult& expected) {
  EXPECT_EQ(actual.error(), expected.error());
  EXPECT_EQ(actual.flag(), expected.flag());
  EXPECT_EQ(actual.resultMessages(), expected.resultMessages());
  EXPECT_EQ(actual.serverContext(), expected.serverContext());
  EXPECT_EQ(actual.clientName(), expected.clientName());
}

// --- Wire to library ---

TEST(ReturnMessageReadingTest, EveryFieldReachesTheResult) {
  ConfigResult result;
  Helper::fillReturnMessage(result, fullMessage());
  expectSameResult(result, fullResult());
}

TEST(ReturnMessageReadingTest, AnEmptyServerContextDoesNotOverwriteTheOneInTheResult) {
  ConfigIF::ReturnMessage message = fullMessage();
  message.set_server_context("");
  ConfigResult result;
  result.setServerContext("mine");
  Helper::fillReturnMessage(result, message);
  EXPECT_EQ(result.serverContext(), "mine");
  EXPECT_EQ(result.clientName(), "/engine/web-ui");
}

TEST(ReturnMessageReadingTest, AnEmptyClientNameDoesNotOverwriteTheOneInTheResult) {
  ConfigIF::ReturnMessage message = fullMessage();
  message.set_client_name("");
  ConfigResult result;
  result.setClientName("mine");
  Helper::fillReturnMessage(result, message);
  EXPECT_EQ(result.clientName(), "mine");
  EXPECT_EQ(result.serverContext(), "context 7");
}

TEST(ReturnMessageReadingTest, AnAbsentContextAndClientNameLeaveThoseOfTheResult) {
  ConfigResult result = fullResult();
  Helper::fillReturnMessage(result, ConfigIF::ReturnMessage());
  EXPECT_EQ(result.serverContext(), "context 7");
  EXPECT_EQ(result.clientName(), "/engine/web-ui");
}

TEST(ReturnMessageReadingTest, MessagesAreAppendedAfterThoseTheResultHolds) {
  ConfigIF::ReturnMessage message;
  message.add_messages("b");
  message.add_messages("a");
  ConfigResult result;
  result.addResultMessage("mine");
  Helper::fillReturnMessage(result, message);
  EXPECT_THAT(result.resultMessages(), ElementsAre("mine", "b", "a"));
}

TEST(ReturnMessageReadingTest, CodeAndFlagReplaceThoseOfTheResult) {
  ConfigIF::ReturnMessage message;
  message.set_error(CommonIF::ERROR_DENIED);
  message.set_flag(false);
  ConfigResult result = fullResult();
  Helper::fillReturnMessage(result, message);
  EXPECT_EQ(result.error(), eErrDenied);
  EXPECT_FALSE(result.flag());
}

TEST(ReturnMessageReadingTest, AnEmptyMessageIsSuccess) {
  ConfigResult result = fullResult();
  Helper::fillReturnMessage(result, ConfigIF::ReturnMessage());
  EXPECT_EQ(result.error(), eErrNone);
  EXPECT_FALSE(result.flag());
}

TEST(ReturnMessageReadingTest, EveryCodeOfTheSchemaBecomesTheSameNumber) {
  for (int code = CommonIF::eErrorType_MIN; code <= CommonIF::eErrorType_MAX; ++code) {
    ConfigIF::ReturnMessage message;
    message.set_error(static_cast<CommonIF::eErrorType>(code));
    ConfigResult result;
    Helper::fillReturnMessage(result, message);
    EXPECT_EQ(static_cast<int>(result.error()), code);
  }
}

TEST(ReturnMessageReadingTest, TheRevisionIsPassedOver) {
  ConfigIF::ReturnMessage message = fullMessage();
  message.set_revision(12);
  ConfigResult result;
  Helper::fillReturnMessage(result, message);
  expectSameResult(result, fullResult());
}

// --- Library to wire ---

TEST(ReturnMessageWritingTest, EveryFieldReachesTheMessage) {
  expectSame(written(fullResult()), fullMessage());
}

TEST(ReturnMessageWritingTest, ASuccessWithoutMessagesOrStringsHasOnlyErrorAndFlagPresent) {
  const ConfigIF::ReturnMessage message = written(ConfigResult());
  EXPECT_TRUE(message.has_error());
  EXPECT_TRUE(message.has_flag());
  EXPECT_EQ(message.messages_size(), 0);
  EXPECT_FALSE(message.has_revision());
  EXPECT_FALSE(message.has_server_context());
  EXPECT_FALSE(message.has_client_name());
  ConfigIF::ReturnMessage expected;
  expected.set_error(CommonIF::ERROR_NONE);
  expected.set_flag(false);
  expectSame(message, expected);
}

TEST(ReturnMessageWritingTest, OneStringIsPresentWithoutTheOther) {
  ConfigResult contextOnly;
  contextOnly.setServerContext("context");
  EXPECT_TRUE(written(contextOnly).has_server_context());
  EXPECT_FALSE(written(contextOnly).has_client_name());
  ConfigResult clientOnly;
  clientOnly.setClientName("client");
  EXPECT_FALSE(written(clientOnly).has_server_context());
  EXPECT_TRUE(written(clientOnly).has_client_name());
}

TEST(ReturnMessageWritingTest, MessagesAreAppendedInOrder) {
  ConfigIF::ReturnMessage message;
  message.add_messages("before");
  Helper::fillReturnMessage(&message, fullResult());
  EXPECT_THAT(message.messages(), ElementsAre("before", "second thoughts", "first\0thoughts\xff"s));
}

TEST(ReturnMessageWritingTest, EveryCodeOfTheSchemaIsWrittenUnchanged) {
  for (int code = CommonIF::eErrorType_MIN; code <= CommonIF::eErrorType_MAX; ++code) {
    ConfigResult result;
    result.fillConfigResult(true, static_cast<eErrorT>(code), false);
    EXPECT_EQ(static_cast<int>(written(result).error()), code);
  }
}

TEST(ReturnMessageWritingTest, WritingLeavesTheResultAsItWas) {
  const ConfigResult result = fullResult();
  written(result);
  expectSameResult(result, fullResult());
}

TEST(ReturnMessageRoundTripTest, AResultSurvivesTheWire) {
  ConfigIF::ReturnMessage received;
  ASSERT_TRUE(received.ParseFromString(written(fullResult()).SerializeAsString()));
  ConfigResult result;
  Helper::fillReturnMessage(result, received);
  expectSameResult(result, fullResult());
}

// --- A provider's answers ---

TEST(ProviderAnswerTest, ADynamicValidateAnswerCarriesTheResultAndNothingElse) {
  ConfigIF::DynamicValidateRsp expected;
  *expected.mutable_result() = fullMessage();
  expectSame(Helper::getDynamicValidateResponse(fullResult()), expected);
}

TEST(ProviderAnswerTest, AnOnChangeAnswerCarriesTheResultAndNothingElse) {
  ConfigIF::OnChangeRsp expected;
  *expected.mutable_result() = fullMessage();
  expectSame(Helper::getOnChangeResponse(fullResult()), expected);
}

TEST(ProviderAnswerTest, AFreshResultIsAPresentReturnMessageThatSaysSuccess) {
  EXPECT_TRUE(Helper::getDynamicValidateResponse(ConfigResult()).has_result());
  EXPECT_TRUE(Helper::getOnChangeResponse(ConfigResult()).result().has_error());
  EXPECT_EQ(Helper::getOnChangeResponse(ConfigResult()).result().error(), CommonIF::ERROR_NONE);
}

// --- Codes that the schema does not know ---

ConfigResult resultWith(int code) {
  ConfigResult result;
  result.fillConfigResult(true, static_cast<eErrorT>(code), false);
  return result;
}

TEST(ReturnMessageDeathTest, ACodeThatTheSchemaDoesNotKnowEndsTheProcess) {
  for (const int code : {-25, -1, CommonIF::eErrorType_MAX + 1}) {
    EXPECT_DEATH(written(resultWith(code)), HasSubstr(kErrorCheck)) << code;
  }
}

TEST(ReturnMessageDeathTest, AProvidersOwnCodeEndsTheProcessInItsAnswer) {
  EXPECT_DEATH(Helper::getDynamicValidateResponse(resultWith(1000)), HasSubstr(kErrorCheck));
  EXPECT_DEATH(Helper::getOnChangeResponse(resultWith(1000)), HasSubstr(kErrorCheck));
}

TEST(ReturnMessageDeathTest, ACatchAllDoesNotKeepTheProcessAlive) {
  const auto writeBelowACatchAll = [] {
    try {
      written(resultWith(-25));
    } catch (...) {
    }
  };
  EXPECT_DEATH(writeBelowACatchAll(), HasSubstr(kErrorCheck));
}

}  // namespace
}  // namespace AppConfig
