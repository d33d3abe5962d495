// Requests differ in their message type alone, so the common beginning (client, role) and the
// common ways to carry a variable (one Inst, several, a dotted name) are templates over it, and
// each operation reads as the list of what its message holds.
//
// Sub-messages and lists are filled where they stand, with their size reserved where it is known: a
// value may be large, and a sub-message made apart would be copied into place.
#include "appconfig/wire/protobuf_message_helper.h"

#include <google/protobuf/stubs/logging.h>

#include <utility>

#include "appconfig/core/lower_case.h"
#include "platform/schema/error_conversion.h"

namespace AppConfig {
namespace {

using google::protobuf::RepeatedPtrField;
using StringList = std::list<std::string>;

constexpr char kNamespaceNode[] = "cfg";

// The generated setters assert in debug builds alone, hence these. The check throws once its text
// is printed; noexcept makes that the end of the process even below a catch-all of the application.
// The parameter's name is part of the text.
CommonIF::eErrorType checkedError(int value) noexcept {
  GOOGLE_CHECK(CommonIF::eErrorType_IsValid(value));
  return static_cast<CommonIF::eErrorType>(value);
}

CommonIF::eSecurityRole checkedRole(CommonIF::eSecurityRole value) noexcept {
  GOOGLE_CHECK(CommonIF::eSecurityRole_IsValid(value));
  return value;
}

ConfigIF::CallbackType checkedCallbackType(ConfigIF::CallbackType value) noexcept {
  GOOGLE_CHECK(ConfigIF::CallbackType_IsValid(value));
  return value;
}

bool startsWithNamespace(const ConfigIF::Inst& inst) {
  return inst.path_size() > 0 && inst.path(0).name() == kNamespaceNode;
}

void addNode(ConfigIF::Inst* inst, const std::string& name, int instance) {
  ConfigIF::Node* node = inst->add_path();
  node->set_name(name);
  node->set_instance(instance);
}

// addVarName without its copy of the key: a key is in lower case from construction on.
void addPath(ConfigIF::Inst* inst, const ConfigVar& var) {
  constexpr int kNodesOfAKey = 3;
  inst->mutable_path()->Reserve(inst->path_size() + kNodesOfAKey);
  if (var.nameSpace() >= 1) addNode(inst, kNamespaceNode, var.nameSpace());
  addNode(inst, var.group(), var.groupInstance());
  addNode(inst, var.name(), var.nameInstance());
}

void addPaths(RepeatedPtrField<ConfigIF::Inst>* insts, const std::list<ConfigVar>& vars) {
  insts->Reserve(insts->size() + static_cast<int>(vars.size()));
  for (const ConfigVar& var : vars) addPath(insts->Add(), var);
}

void addStrings(RepeatedPtrField<std::string>* strings, const StringList& added) {
  strings->Reserve(strings->size() + static_cast<int>(added.size()));
  for (const std::string& s : added) *strings->Add() = s;
}

void moveStrings(RepeatedPtrField<std::string>* strings, StringList&& added) {
  strings->Reserve(strings->size() + static_cast<int>(added.size()));
  for (std::string& s : added) strings->Add(std::move(s));
}

template <class Request>
Request requestOf(const std::string& client, CommonIF::eSecurityRole role) {
  Request request;
  request.set_client_name(client);
  request.set_role(checkedRole(role));
  return request;
}

template <class Request>
Request requestAbout(const std::string& client, CommonIF::eSecurityRole role,
                     const ConfigVar& var) {
  auto request = requestOf<Request>(client, role);
  addPath(request.mutable_inst(), var);
  return request;
}

template <class Request>
Request requestAbout(const std::string& client, CommonIF::eSecurityRole role,
                     const std::list<ConfigVar>& vars) {
  auto request = requestOf<Request>(client, role);
  addPaths(request.mutable_inst(), vars);
  return request;
}

template <class Request>
Request requestAbout(const std::string& client, CommonIF::eSecurityRole role,
                     const std::string& name) {
  auto request = requestOf<Request>(client, role);
  request.set_name(name);
  return request;
}

// Value is one string or a list of them.
template <class Request, class Value>
Request requestWithValue(const std::string& client, CommonIF::eSecurityRole role,
                         const ConfigVar& var, const Value& value) {
  auto request = requestOf<Request>(client, role);
  addPath(request.mutable_value()->mutable_inst(), var);
  ProtobufMessageHelper::addVarValue(request.mutable_value(), value);
  return request;
}

template <class Request>
Request callbackRequest(const std::string& client, CommonIF::eSecurityRole role,
                        ConfigIF::CallbackType type, std::string&& endpointName) {
  auto request = requestOf<Request>(client, role);
  request.set_type(checkedCallbackType(type));
  request.set_endpoint_name(std::move(endpointName));
  return request;
}

template <class Response>
Response responseWith(const ConfigResult& result) {
  Response response;
  ProtobufMessageHelper::fillReturnMessage(response.mutable_result(), result);
  return response;
}

}  // namespace

ProtobufMessageHelper::~ProtobufMessageHelper() = default;

// Keys and lists are taken by value where the interface says so: callers are built against it.
// NOLINTBEGIN(performance-unnecessary-value-param)

// --- Variables ---

void ProtobufMessageHelper::addVarName(ConfigIF::Inst* inst, ConfigVar var) { addPath(inst, var); }

int ProtobufMessageHelper::getConfigVarName(std::string& group, int& groupInstance,
                                            std::string& name, int& nameInstance,
                                            const ConfigIF::Inst& inst) {
  const int first = startsWithNamespace(inst) ? 1 : 0;
  const int last = inst.path_size() - 1;
  if (last < first) return kNoVariableInPath;
  for (int i = first; i < last; ++i) {
    if (!group.empty()) group += '.';
    group += inst.path(i).name();
    groupInstance = inst.path(i).instance();
  }
  if (last > first) group = lowerCase(std::move(group));
  name = lowerCase(inst.path(last).name());
  nameInstance = inst.path(last).instance();
  return 0;
}

int ProtobufMessageHelper::getConfigVarNamespace(const ConfigIF::Inst& inst) {
  return startsWithNamespace(inst) ? inst.path(0).instance() : 0;
}

// --- Values ---

void ProtobufMessageHelper::addVarValue(ConfigIF::InstValue* value, const std::string& s) {
  value->add_values(s);
}

void ProtobufMessageHelper::addVarValue(ConfigIF::InstValue* value, const StringList& values) {
  addStrings(value->mutable_values(), values);
}

int ProtobufMessageHelper::getConfigVarValue(StringList& out, const ConfigIF::InstValue& value) {
  return getStringList(out, value.values());
}

int ProtobufMessageHelper::getStringList(StringList& out,
                                         const RepeatedPtrField<std::string>& strings) {
  out.assign(strings.begin(), strings.end());
  return 0;
}

// --- Results ---

void ProtobufMessageHelper::fillReturnMessage(ConfigResult& result,
                                              const ConfigIF::ReturnMessage& message) {
  result.fillConfigResult(true, convertErrorTypeToCommonPbType(message.error()), message.flag());
  for (const std::string& text : message.messages()) result.addResultMessage(text);
  if (!message.server_context().empty()) result.setServerContext(message.server_context());
  if (!message.client_name().empty()) result.setClientName(message.client_name());
}

void ProtobufMessageHelper::fillReturnMessage(ConfigIF::ReturnMessage* message,
                                              const ConfigResult& result) {
  message->set_error(checkedError(result.error()));
  message->set_flag(result.flag());
  addStrings(message->mutable_messages(), result.resultMessages());
  if (!result.serverContext().empty()) message->set_server_context(result.serverContext());
  if (!result.clientName().empty()) message->set_client_name(result.clientName());
}

// --- Requests about values ---

ConfigIF::ReadReq ProtobufMessageHelper::getReadRequest(const std::string& client,
                                                        CommonIF::eSecurityRole role,
                                                        ConfigVar var) {
  return requestAbout<ConfigIF::ReadReq>(client, role, var);
}

ConfigIF::ResetValueReq ProtobufMessageHelper::getResetValueRequest(const std::string& client,
                                                                    CommonIF::eSecurityRole role,
                                                                    ConfigVar var) {
  return requestAbout<ConfigIF::ResetValueReq>(client, role, var);
}

ConfigIF::WriteReq ProtobufMessageHelper::getWriteRequest(const std::string& client,
                                                          CommonIF::eSecurityRole role,
                                                          ConfigVar var, const StringList& values) {
  return requestWithValue<ConfigIF::WriteReq>(client, role, var, values);
}

ConfigIF::WriteReq ProtobufMessageHelper::getWriteRequest(const std::string& client,
                                                          CommonIF::eSecurityRole role,
                                                          ConfigVar var, const std::string& value) {
  return requestWithValue<ConfigIF::WriteReq>(client, role, var, value);
}

ConfigIF::ValidateReq ProtobufMessageHelper::getValidateRequest(const std::string& client,
                                                                CommonIF::eSecurityRole role,
                                                                ConfigVar var,
                                                                const StringList& values) {
  return requestWithValue<ConfigIF::ValidateReq>(client, role, var, values);
}

ConfigIF::ValidateReq ProtobufMessageHelper::getValidateRequest(const std::string& client,
                                                                CommonIF::eSecurityRole role,
                                                                ConfigVar var,
                                                                const std::string& value) {
  return requestWithValue<ConfigIF::ValidateReq>(client, role, var, value);
}

ConfigIF::BatchReadReq ProtobufMessageHelper::getBatchReadRequest(const std::string& client,
                                                                  CommonIF::eSecurityRole role,
                                                                  std::list<ConfigVar> vars) {
  return requestAbout<ConfigIF::BatchReadReq>(client, role, vars);
}

ConfigIF::ResetNodeValueReq ProtobufMessageHelper::getResetNodeValueRequest(
    const std::string& client, CommonIF::eSecurityRole role, const std::string& node) {
  return requestAbout<ConfigIF::ResetNodeValueReq>(client, role, node);
}

// --- A provider's answers ---

ConfigIF::DynamicValidateRsp ProtobufMessageHelper::getDynamicValidateResponse(
    const ConfigResult& result) {
  return responseWith<ConfigIF::DynamicValidateRsp>(result);
}

ConfigIF::OnChangeRsp ProtobufMessageHelper::getOnChangeResponse(const ConfigResult& result) {
  return responseWith<ConfigIF::OnChangeRsp>(result);
}

// --- Requests about options ---

ConfigIF::GetAttributeOptionsReq ProtobufMessageHelper::getGetOptionsRequest(
    const std::string& client, CommonIF::eSecurityRole role, ConfigVar var) {
  return requestAbout<ConfigIF::GetAttributeOptionsReq>(client, role, var);
}

ConfigIF::SetAttributeOptionsReq ProtobufMessageHelper::getSetOptionsRequest(
    const std::string& client, CommonIF::eSecurityRole role, ConfigVar var, StringList options,
    const unsigned int* defaultIndex) {
  auto request = requestAbout<ConfigIF::SetAttributeOptionsReq>(client, role, var);
  if (defaultIndex != nullptr) request.set_default_index(*defaultIndex);
  moveStrings(request.mutable_options(), std::move(options));
  return request;
}

ConfigIF::GetDefaultOptionsReq ProtobufMessageHelper::getGetDefaultOptionsRequest(
    const std::string& client, CommonIF::eSecurityRole role, const std::string& dottedName) {
  return requestAbout<ConfigIF::GetDefaultOptionsReq>(client, role, dottedName);
}

// --- Requests about access levels ---

ConfigIF::GetAccessLevelsReq ProtobufMessageHelper::getGetAccessLevelsReq(
    const std::string& client, CommonIF::eSecurityRole role, ConfigVar var) {
  return requestAbout<ConfigIF::GetAccessLevelsReq>(client, role, var);
}

ConfigIF::SetAccessLevelsReq ProtobufMessageHelper::getSetAccessLevelsReq(
    const std::string& client, CommonIF::eSecurityRole role, std::list<ConfigVar> vars,
    const CommonIF::eSecurityRole* readRole, const CommonIF::eSecurityRole* writeRole) {
  auto request = requestAbout<ConfigIF::SetAccessLevelsReq>(client, role, vars);
  if (readRole != nullptr) request.set_read_role(checkedRole(*readRole));
  if (writeRole != nullptr) request.set_write_role(checkedRole(*writeRole));
  return request;
}

// --- Requests about attributes and whole records ---

ConfigIF::ReadAttributesReq ProtobufMessageHelper::getReadAttributesRequest(
    const std::string& client, CommonIF::eSecurityRole role, ConfigVar var) {
  return requestAbout<ConfigIF::ReadAttributesReq>(client, role, var);
}

ConfigIF::ResetAttributeReq ProtobufMessageHelper::getResetAttributeRequest(
    const std::string& client, CommonIF::eSecurityRole role, const std::string& name) {
  return requestAbout<ConfigIF::ResetAttributeReq>(client, role, name);
}

ConfigIF::GetValueOptionsAccessReq ProtobufMessageHelper::getGetValueOptionsAccessRequest(
    const std::string& client, CommonIF::eSecurityRole role, ConfigVar var) {
  return requestAbout<ConfigIF::GetValueOptionsAccessReq>(client, role, var);
}

ConfigIF::BatchGetValueOptionsAccessReq ProtobufMessageHelper::getBatchGetValueOptionsAccessReq(
    const std::string& client, CommonIF::eSecurityRole role, const std::list<ConfigVar>& vars) {
  return requestAbout<ConfigIF::BatchGetValueOptionsAccessReq>(client, role, vars);
}

// --- Callback registrations ---

ConfigIF::RegisterClientCallbackReq ProtobufMessageHelper::getRegClientCallbackRequest(
    const std::string& client, CommonIF::eSecurityRole role, const std::string& dottedName,
    ConfigIF::CallbackType type, std::string endpointName) {
  auto request = callbackRequest<ConfigIF::RegisterClientCallbackReq>(client, role, type,
                                                                      std::move(endpointName));
  if (!dottedName.empty()) request.set_name(dottedName);
  return request;
}

ConfigIF::UnregisterClientCallbackReq ProtobufMessageHelper::getUnregClientCallbackRequest(
    const std::string& client, CommonIF::eSecurityRole role, const std::string& dottedName,
    ConfigIF::CallbackType type, std::string endpointName) {
  auto request = callbackRequest<ConfigIF::UnregisterClientCallbackReq>(client, role, type,
                                                                        std::move(endpointName));
  request.set_name(dottedName);
  return request;
}

ConfigIF::UnregisterAllClientCallbacksReq ProtobufMessageHelper::getUnregAllClientCallbacksRequest(
    const std::string& client) {
  ConfigIF::UnregisterAllClientCallbacksReq request;
  request.set_client_name(client);
  return request;
}

// NOLINTEND(performance-unnecessary-value-param)

}  // namespace AppConfig
