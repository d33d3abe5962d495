// The two questions have the same fields, and so have their answers: one template each writes and
// reads them. An answer counts as a refusal unless it clearly is none; one that cannot be read at all
// is no answer. A link that has nothing to do with the variable says so with success and a text, which
// is consent like any other.
#include "configsrv/changes/internal/questions.h"

#include "configsrv/changes/wire_forms.h"
#include "platform/schema/config_if.pb.h"
#include "platform/schema/message_bounds.h"
#include "platform/schema/message_ids.h"

namespace ConfigSrv {
namespace {

using google::protobuf::MessageLite;

// Judging has no effect, so it says nothing of what holds.
void fillHeld(const Question&, ConfigIF::DynamicValidateReq&) {}
void fillHeld(const Question& question, ConfigIF::OnChangeReq& request) {
  fillStamp(question.held, request);
}

template <typename Request>
std::unique_ptr<MessageLite> filled(const Question& question) {
  auto request = std::make_unique<Request>();
  request->set_server_context(question.serverContext);
  request->set_client_name(question.by.clientName);
  request->set_role(toWire(question.by.role));
  ConfigIF::Inst* inst = request->mutable_value()->mutable_inst();
  fillInst(inst, question.key);
  // For the links of its namespace alone, also when it has none: a process may have a second link,
  // to another service, behind the same endpoint, and that link's cache must not take this value.
  inst->set_scope(ConfigIF::SCOPE_NAMESPACE);
  for (const std::string& element : question.value) request->mutable_value()->add_values(element);
  fillHeld(question, *request);
  return request;
}

// An error code that this service's schema does not know reads as absent, which is success; but the
// provider that sent it refused, so its trace among the unknown fields counts. A trace begins with
// the field's tag: number 1, variable-length integer.
bool hasUnknownError(const ConfigIF::ReturnMessage& result) {
  return !result.has_error() && result.unknown_fields().find('\x08') == 0;
}

Answer verdictOf(const ConfigIF::ReturnMessage& result) {
  Answer answer;
  answer.refused = result.error() != CommonIF::ERROR_NONE || hasUnknownError(result);
  answer.messages.assign(result.messages().begin(), result.messages().end());
  return answer;
}

// Who has so much to say does not consent.
Answer tooMuch(const std::string& problem) {
  Answer answer;
  answer.refused = true;
  answer.messages = {"the provider's answer cannot be taken: " + problem};
  return answer;
}

template <typename Response>
Answer parsed(std::uint32_t messageId, std::string_view payload) {
  using PlatformSchema::Reading;
  Response response;
  Answer answer;
  answer.broken = true;
  if (messageId != PlatformSchema::messageIdOf(response)) return answer;
  const Base::Status<Reading> read = PlatformSchema::readMessage(messageId, payload, response);
  switch (read.code) {
    case Reading::Done:
      return verdictOf(response.result());
    case Reading::TooMuch:
      return tooMuch(read.text);
    case Reading::NoMessage:
      break;
  }
  return answer;
}

}  // namespace

std::unique_ptr<MessageLite> messageOf(const Question& question) {
  return question.phase == Phase::Validate ? filled<ConfigIF::DynamicValidateReq>(question)
                                           : filled<ConfigIF::OnChangeReq>(question);
}

Answer readAnswer(Phase phase, std::uint32_t messageId, std::string_view payload) {
  return phase == Phase::Validate ? parsed<ConfigIF::DynamicValidateRsp>(messageId, payload)
                                  : parsed<ConfigIF::OnChangeRsp>(messageId, payload);
}

}  // namespace ConfigSrv
