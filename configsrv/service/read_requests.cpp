// Each answer is filled from the model as it is now. One about several variables is bounded
// (AnswerSize): a request may name a variable a thousand times.
#include "configsrv/service/internal/read_requests.h"

#include "configsrv/changes/wire_forms.h"
#include "configsrv/definitions/pattern.h"
#include "configsrv/service/internal/answer_size.h"
#include "configsrv/service/internal/results.h"
#include "platform/schema/message_ids.h"

namespace ConfigSrv {
namespace {

void setTooLong(ConfigIF::ReturnMessage& result) {
  setError(result, eErrLimit, "the answer would be too long: ask for fewer variables at once");
}

void fillLimits(ConfigIF::Attributes& attributes, const VariableShape& shape) {
  if (shape.min) attributes.set_min(*shape.min);
  if (shape.max) attributes.set_max(*shape.max);
  if (shape.maxLength) attributes.set_max_length(*shape.maxLength);
  if (shape.maxElements) attributes.set_max_elements(*shape.maxElements);
  if (shape.pattern) attributes.set_pattern(shape.pattern->text());
}

void fillDefinition(ConfigIF::Attributes& attributes, const VariableShape& shape) {
  attributes.set_type(static_cast<ConfigIF::ValueType>(shape.type));
  attributes.set_description(shape.description);
  for (const std::string& element : shape.defaultValue) attributes.add_default_values(element);
  attributes.set_defined_in(shape.file);
  attributes.set_defined_at_line(shape.line);
  attributes.set_secret(shape.secret);
  fillLimits(attributes, shape);
}

void fillState(ConfigIF::Attributes& attributes, const Variable& variable) {
  fillInst(attributes.mutable_inst(), variable.key());
  for (const std::string& option : variable.options()) attributes.add_options(option);
  attributes.set_default_index(variable.defaultIndex());
  attributes.set_read_role(toWire(variable.readRole()));
  attributes.set_write_role(toWire(variable.writeRole()));
  if (variable.changedAt() != 0) attributes.set_changed_at(variable.changedAt());
}

// ReadRsp and ReadRecord carry a value in fields of the same names.
template <typename Message>
void fillValue(Message& message, const Variable& variable) {
  for (const std::string& element : variable.value()) message.add_values(element);
  message.set_is_default(variable.isDefault());
}

}  // namespace

bool ReadRequests::handle(const Incoming& incoming) {
  switch (incoming.messageId) {
    case PlatformSchema::kReadReq:
      return frame_.answerNow<&ReadRequests::read>(*this, incoming);
    case PlatformSchema::kBatchReadReq:
      return frame_.answerNow<&ReadRequests::batchRead>(*this, incoming);
    case PlatformSchema::kReadAttributesReq:
      return frame_.answerNow<&ReadRequests::readAttributes>(*this, incoming);
    case PlatformSchema::kGetAttributeOptionsReq:
      return frame_.answerNow<&ReadRequests::getOptions>(*this, incoming);
    case PlatformSchema::kGetDefaultOptionsReq:
      return frame_.answerNow<&ReadRequests::getDefaultOptions>(*this, incoming);
    case PlatformSchema::kGetAccessLevelsReq:
      return frame_.answerNow<&ReadRequests::getAccessLevels>(*this, incoming);
    case PlatformSchema::kGetValueOptionsAccessReq:
      return frame_.answerNow<&ReadRequests::getRecord>(*this, incoming);
    case PlatformSchema::kBatchGetValueOptionsAccessReq:
      return frame_.answerNow<&ReadRequests::getRecords>(*this, incoming);
    default:
      return false;
  }
}

void ReadRequests::read(const Call& call, const ConfigIF::ReadReq& request,
                        ConfigIF::ReadRsp& response) {
  ++reads_;
  const Variable* variable = lookup_.findReadable(call, request.inst(), *response.mutable_result());
  if (variable == nullptr) return;
  fillValue(response, *variable);
  fillStamp({model_.epoch(), variable->valueChangedAt()}, response);
}

void ReadRequests::batchRead(const Call& call, const ConfigIF::BatchReadReq& request,
                             ConfigIF::BatchReadRsp& response) {
  AnswerSize size;
  for (const ConfigIF::Inst& inst : request.inst()) {
    ++reads_;
    ConfigIF::ReturnMessage result;
    const Variable* variable = lookup_.findReadable(call, inst, result);
    ConfigIF::ReadRecord& record = *response.add_records();
    *record.mutable_inst() = inst;
    if (result.has_error()) record.set_error(result.error());
    if (variable != nullptr) fillValue(record, *variable);
    size.add(record.values());
    if (size.isTooLarge()) break;
  }
  if (!size.isTooLarge()) return;
  response.clear_records();
  setTooLong(*response.mutable_result());
}

void ReadRequests::getOptions(const Call& call, const ConfigIF::GetAttributeOptionsReq& request,
                              ConfigIF::GetAttributeOptionsRsp& response) {
  const Variable* variable = lookup_.findReadable(call, request.inst(), *response.mutable_result());
  if (variable == nullptr) return;
  for (const std::string& option : variable->options()) response.add_options(option);
  response.set_default_index(variable->defaultIndex());
  fillStamp({model_.epoch(), variable->optionsChangedAt()}, response);
}

void ReadRequests::getDefaultOptions(const Call& call,
                                     const ConfigIF::GetDefaultOptionsReq& request,
                                     ConfigIF::GetDefaultOptionsRsp& response) {
  const Variable* variable = lookup_.findReadable(call, request.name(), *response.mutable_result());
  if (variable == nullptr) return;
  for (const std::string& option : variable->shape().options) response.add_options(option);
  response.set_default_index(variable->shape().defaultIndex);
}

// Who needs which role is no secret.
void ReadRequests::getAccessLevels(const Call&, const ConfigIF::GetAccessLevelsReq& request,
                                   ConfigIF::GetAccessLevelsRsp& response) {
  const Variable* variable = lookup_.find(request.inst(), *response.mutable_result());
  if (variable == nullptr) return;
  response.set_read_role(toWire(variable->readRole()));
  response.set_write_role(toWire(variable->writeRole()));
  fillStamp({model_.epoch(), variable->accessChangedAt()}, response);
}

void ReadRequests::readAttributes(const Call& call, const ConfigIF::ReadAttributesReq& request,
                                  ConfigIF::ReadAttributesRsp& response) {
  const Variable* variable = lookup_.findReadable(call, request.inst(), *response.mutable_result());
  if (variable == nullptr) return;
  ConfigIF::Attributes& attributes = *response.mutable_attributes();
  fillState(attributes, *variable);
  fillDefinition(attributes, variable->shape());
  const std::string name = variable->key().dottedName();
  attributes.set_has_provider(
      subscriptions_.anyCovering(name, ConfigIF::CALLBACK_DYNAMIC_VALIDATE) ||
      subscriptions_.anyCovering(name, ConfigIF::CALLBACK_ON_CHANGE));
}

// False, with the error in the result, when the variable cannot be read.
bool ReadRequests::fillRecord(const Call& call, const ConfigIF::Inst& inst,
                              ConfigIF::FullRecord& record, ConfigIF::ReturnMessage& result) const {
  *record.mutable_inst() = inst;
  const Variable* variable = lookup_.findReadable(call, inst, result);
  if (result.has_error()) record.set_error(result.error());
  if (variable == nullptr) return false;
  fillValue(record, *variable);
  for (const std::string& option : variable->options()) record.add_options(option);
  record.set_default_index(variable->defaultIndex());
  record.set_read_role(toWire(variable->readRole()));
  record.set_write_role(toWire(variable->writeRole()));
  return true;
}

void ReadRequests::getRecord(const Call& call, const ConfigIF::GetValueOptionsAccessReq& request,
                             ConfigIF::GetValueOptionsAccessRsp& response) {
  ++reads_;
  ConfigIF::FullRecord record;
  if (fillRecord(call, request.inst(), record, *response.mutable_result()))
    *response.mutable_record() = std::move(record);
}

void ReadRequests::getRecords(const Call& call,
                              const ConfigIF::BatchGetValueOptionsAccessReq& request,
                              ConfigIF::BatchGetValueOptionsAccessRsp& response) {
  AnswerSize size;
  for (const ConfigIF::Inst& inst : request.inst()) {
    ++reads_;
    ConfigIF::ReturnMessage result;
    ConfigIF::FullRecord& record = *response.add_records();
    fillRecord(call, inst, record, result);
    size.add(record.values(), record.options());
    if (size.isTooLarge()) break;
  }
  if (!size.isTooLarge()) return;
  response.clear_records();
  setTooLong(*response.mutable_result());
}

}  // namespace ConfigSrv
