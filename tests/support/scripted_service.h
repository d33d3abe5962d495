// Short words for tests of the link and the facade: what a service answers and announces.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <list>
#include <string>

#include "appconfig/core/config_var.h"
#include "appconfig/wire/protobuf_message_helper.h"
#include "platform/schema/config_if.pb.h"
#include "tests/support/scripted_pb_utils.h"

namespace TestSupport {

constexpr std::uint32_t kDynamicValidateId = 0x1A0150;
constexpr std::uint32_t kOnChangeId = 0x1A0100;
constexpr std::uint32_t kConfigChangedId = 0x1A0143;
constexpr std::uint32_t kAttributeChangedId = 0x1A01A3;
constexpr std::uint32_t kOptionsChangedId = 0x1A0253;
constexpr std::uint32_t kSubmitId = 0x1A0273;
constexpr std::uint32_t kAccessLevelsChangedId = 0x1A0333;

using Value = std::list<std::string>;

// The name under which a link of this process registers callbacks.
inline std::string linkName(int nameSpace) {
  const std::string number = std::to_string(nameSpace);
  return "PlatCfgSvc" + number + "-" + std::to_string(getpid()) + "-" + number;
}

// Whole messages, field presence included.
inline void expectRequest(const SentRequest& sent, const google::protobuf::MessageLite& expected,
                          const std::string& endpoint = "ConfigSrvc") {
  EXPECT_EQ(sent.type, expected.GetTypeName());
  EXPECT_EQ(sent.bytes, expected.SerializeAsString());
  EXPECT_EQ(sent.endpoint, endpoint);
}

inline void refuse(ConfigIF::ReturnMessage* result, CommonIF::eErrorType error,
                   const std::string& message = "") {
  result->set_error(error);
  if (!message.empty()) result->add_messages(message);
}

inline void answerReadsWith(ScriptedPbUtils& pb, const Value& value, bool isDefault = false) {
  pb.answer<ConfigIF::ReadReq, ConfigIF::ReadRsp>(
      [=](const ConfigIF::ReadReq&, ConfigIF::ReadRsp& response) {
        for (const std::string& text : value) response.add_values(text);
        response.set_is_default(isDefault);
      });
}

inline ConfigIF::InstValue instValue(const ConfigVar& var, const Value& value) {
  ConfigIF::InstValue result;
  AppConfig::ProtobufMessageHelper::addVarName(result.mutable_inst(), var);
  AppConfig::ProtobufMessageHelper::addVarValue(&result, value);
  return result;
}

inline ConfigIF::ConfigChangedNtfy changeNotice(const ConfigVar& var, const Value& value,
                                                int nameSpaceOfLink = 0) {
  ConfigIF::ConfigChangedNtfy notice;
  notice.set_callback_identity(linkName(nameSpaceOfLink));
  *notice.mutable_value() = instValue(var, value);
  return notice;
}

inline ConfigIF::OptionsChangedNtfy optionsNotice(const ConfigVar& var, const Value& options,
                                                  int nameSpaceOfLink = 0) {
  ConfigIF::OptionsChangedNtfy notice;
  notice.set_callback_identity(linkName(nameSpaceOfLink));
  AppConfig::ProtobufMessageHelper::addVarName(notice.mutable_inst(), var);
  for (const std::string& option : options) notice.add_options(option);
  return notice;
}

}  // namespace TestSupport
