// A real endpoint with the messages of ConfigIF above it. What comes in is kept as lines under a
// mutex and waited for with a deadline; questions are answered by the function that the test gave.
#include "tests/support/test_client.h"

#include <gtest/gtest.h>

#include "appconfig/core/key_notation.h"
#include "appconfig/wire/protobuf_message_helper.h"
#include "tests/support/service_process.h"

namespace TestSupport {
namespace {

using AppConfig::ProtobufMessageHelper;

ConfigVar keyOf(const std::string& text) {
  ConfigVar key("", 0, "", 0);
  EXPECT_TRUE(AppConfig::parseKey(text, key).ok()) << text;
  return key;
}

std::string keyText(const ConfigIF::Inst& inst) {
  std::string group;
  std::string name;
  int groupInstance = 0;
  int nameInstance = 0;
  EXPECT_EQ(ProtobufMessageHelper::getConfigVarName(group, groupInstance, name, nameInstance, inst),
            0);
  return AppConfig::formatKey(ConfigVar(ProtobufMessageHelper::getConfigVarNamespace(inst), group,
                                        groupInstance, name, nameInstance));
}

template <typename Strings>
std::string joined(const Strings& strings) {
  std::string text;
  for (const std::string& string : strings) text += " " + string;
  return text;
}

template <typename Message>
Message parsed(const MSG_Message* message) {
  Message result;
  EXPECT_TRUE(result.ParseFromArray(MSG_GetPayload(message), MSG_GetPayloadBytes(message)));
  return result;
}

template <typename Request>
void fillValue(Request& request, const std::string& key, const std::vector<std::string>& values) {
  ProtobufMessageHelper::addVarName(request.mutable_value()->mutable_inst(), keyOf(key));
  for (const std::string& value : values) request.mutable_value()->add_values(value);
}

PbUtility::EndpointOptions optionsOf(const std::string& runtimeDir,
                                     std::chrono::milliseconds deadline) {
  PbUtility::EndpointOptions options;
  options.runtimeDir = runtimeDir;
  options.deadline = deadline;
  return options;
}

}  // namespace

const char* const TestClient::kService = "ConfigSrvc";

ConfigIF::ReturnMessage consent() {
  ConfigIF::ReturnMessage result;
  result.set_error(CommonIF::ERROR_NONE);
  return result;
}

ConfigIF::ReturnMessage veto(const std::string& reason) {
  ConfigIF::ReturnMessage result;
  result.set_error(CommonIF::ERROR_VETOED);
  result.add_messages(reason);
  return result;
}

TestClient::TestClient(const std::string& name, const std::string& runtimeDir,
                       std::chrono::milliseconds deadline)
    : name_(name),
      provider_([](const ProviderQuestion&) { return consent(); }),
      endpoint_(name, optionsOf(runtimeDir, deadline)) {
  const MSG_Callback table[] = {{&TestClient::onMessage, this, 0x1A0100, 0x1A0333, 0},
                                {nullptr, nullptr, 0, 0, 0}};
  endpoint_.addHandlers(table);
}

TestClient::~TestClient() = default;

void TestClient::take(const ConfigIF::ReturnMessage& result, Outcome& outcome) {
  outcome.error = result.error();
  outcome.flag = result.flag();
  for (const std::string& message : result.messages()) outcome.text += message + "\n";
}

Outcome TestClient::read(const std::string& key) {
  ConfigIF::ReadReq message;
  ConfigIF::ReadRsp response;
  ProtobufMessageHelper::addVarName(message.mutable_inst(), keyOf(key));
  Outcome outcome = request(message, &response);
  outcome.values.assign(response.values().begin(), response.values().end());
  outcome.isDefault = response.is_default();
  return outcome;
}

Outcome TestClient::write(const std::string& key, const std::string& value) {
  return write(key, std::vector<std::string>{value});
}

Outcome TestClient::write(const std::string& key, const std::vector<std::string>& values) {
  ConfigIF::WriteReq message;
  ConfigIF::WriteRsp response;
  fillValue(message, key, values);
  return request(message, &response);
}

int TestClient::writeOneWay(const std::string& key, const std::string& value) {
  ConfigIF::WriteReq message;
  message.set_client_name(name_);
  message.set_role(role_);
  fillValue(message, key, {value});
  return endpoint_.send(message, kService, nullptr);
}

Outcome TestClient::validate(const std::string& key, const std::string& value) {
  ConfigIF::ValidateReq message;
  ConfigIF::ValidateRsp response;
  fillValue(message, key, {value});
  return request(message, &response);
}

Outcome TestClient::reset(const std::string& key) {
  ConfigIF::ResetValueReq message;
  ConfigIF::ResetValueRsp response;
  ProtobufMessageHelper::addVarName(message.mutable_inst(), keyOf(key));
  return request(message, &response);
}

Outcome TestClient::registerFor(ConfigIF::CallbackType type, const std::string& name) {
  endpoint_.addRemoteEndpoint(kService, -1);
  EXPECT_TRUE(endpoint_.waitUntilConnected(kService, kPatience));
  ConfigIF::RegisterClientCallbackReq message;
  ConfigIF::RegisterClientCallbackRsp response;
  if (!name.empty()) message.set_name(name);
  message.set_type(type);
  message.set_endpoint_name("link of " + name_);
  return request(message, &response);
}

void TestClient::provide(const std::string& name, Provider provider) {
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    provider_ = std::move(provider);
  }
  EXPECT_TRUE(registerFor(ConfigIF::CALLBACK_DYNAMIC_VALIDATE, name).ok());
  EXPECT_TRUE(registerFor(ConfigIF::CALLBACK_ON_CHANGE, name).ok());
}

std::vector<std::string> TestClient::notices() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return notices_;
}

bool TestClient::waitForNotice(const std::string& notice) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, kPatience, [&] {
    return std::find(notices_.begin(), notices_.end(), notice) != notices_.end();
  });
}

void TestClient::forgetNotices() {
  const std::lock_guard<std::mutex> guard(mutex_);
  notices_.clear();
}

void TestClient::onMessage(void* self, const MSG_Message* message) {
  static_cast<TestClient*>(self)->takeMessage(message);
}

void TestClient::note(const std::string& notice) {
  const std::lock_guard<std::mutex> guard(mutex_);
  notices_.push_back(notice);
  changed_.notify_all();
}

void TestClient::takeMessage(const MSG_Message* message) {
  switch (MSG_GetMessageId(message)) {
    case 0x1A0150:
      return answer<ConfigIF::DynamicValidateReq, ConfigIF::DynamicValidateRsp>(message, false);
    case 0x1A0100:
      return answer<ConfigIF::OnChangeReq, ConfigIF::OnChangeRsp>(message, true);
    case 0x1A0143: {
      const auto notice = parsed<ConfigIF::ConfigChangedNtfy>(message);
      EXPECT_EQ(notice.callback_identity(), "link of " + name_);
      return note("value " + keyText(notice.value().inst()) + " =" +
                  joined(notice.value().values()));
    }
    case 0x1A0253: {
      const auto notice = parsed<ConfigIF::OptionsChangedNtfy>(message);
      return note("options " + keyText(notice.inst()) + " =" + joined(notice.options()));
    }
    case 0x1A0333:
      return note("access " + keyText(parsed<ConfigIF::AccessLevelChangedNtfy>(message).inst()));
    case 0x1A0273:
      return note("submit " + keyText(parsed<ConfigIF::SubmitNtfy>(message).inst()));
    default:
      return;
  }
}

template <typename Request, typename Response>
void TestClient::answer(const MSG_Message* message, bool onChange) {
  const auto asked = parsed<Request>(message);
  ProviderQuestion question{
      onChange, keyText(asked.value().inst()), {}, asked.client_name(), asked.role()};
  question.values.assign(asked.value().values().begin(), asked.value().values().end());
  Provider provider;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    provider = provider_;
  }
  Response response;
  *response.mutable_result() = provider(question);
  response.mutable_result()->set_server_context(asked.server_context());
  char owner[128];
  MSG_GetOwnerName(message, owner, sizeof owner);
  MSG_SendMsg(owner, MSG_GetSender(message),
              msgUtil_buildMsgWithHeader(response, message, nullptr));
}

}  // namespace TestSupport
