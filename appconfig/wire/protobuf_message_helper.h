// ProtobufMessageHelper: the library's own types as ConfigIF messages, and back.
//
// Variables: A key becomes the path of a ConfigIF::Inst: a node "cfg" that carries the namespace,
//            when the key has one (1 and more); a node with the whole group, dots and all; a node
//            with the name. A reader accepts a group in several nodes too and joins them with dots,
//            so a key written and read back has the same group, name and instances either way.
//            One key does not come back: without a namespace, a group that is "cfg" and nothing
//            more stands where the namespace is looked for. Do not name a group so.
// Values:    Byte strings, one for each element; zero bytes and invalid UTF-8 pass unchanged.
// Requests:  Each get...Request makes a whole message: the client's full name, the role, then what
//            the request asks for. What is not given (a null pointer, no name) is absent from the
//            message rather than sent as zero or empty, unless the operation says otherwise.
// Errors:    A path that names no variable is the only one that a caller sees. A role, error
//            code or callback type that the schema does not know is a mistake in the calling
//            program: the process ends, in release builds too. On standard error stands "CHECK
//            failed: ", the name of the schema's validity function and "(value): ".
// Threads:   No state; any number of threads may call at once, each with messages of its own.
// Owns:      Nothing. Arguments are copied into the messages, and messages are returned by value.
//
// Example:
//   auto request = ProtobufMessageHelper::getReadRequest("/gateway/web-ui",
//       CommonIF::SECURITY_ROLE_USER, ConfigVar("network", 0, "ipaddr", 1));
//   // path: network/0, ipaddr/1. With ConfigVar(3, "network", 0, "ipaddr", 1): cfg/3, network/0,
//   // ipaddr/1. A namespace is no part of the group: ConfigVar("cfg.network", ...) has none.
#pragma once

#include <list>
#include <string>

#include "appconfig/core/config_result.h"
#include "appconfig/core/config_var.h"
#include "platform/schema/config_if.pb.h"

namespace AppConfig {

class ProtobufMessageHelper {
 public:
  // What getConfigVarName returns for a path that names no variable.
  static constexpr int kNoVariableInPath = -25;

  virtual ~ProtobufMessageHelper();

  // --- Variables ---

  // Appends the variable's nodes to whatever path inst has. An empty group or name is a node too;
  // a namespace of 0 or less is none.
  static void addVarName(ConfigIF::Inst* inst, ConfigVar var);

  // Reads a path into the parts of a key, in lower case. 0 on success. kNoVariableInPath when the
  // path is empty or holds a namespace alone; then nothing is touched.
  //
  // Pass an empty group: what it holds would become the group's beginning. A path without a group
  // (just a leaf) leaves group and groupInstance as they are. The group instance is that of the
  // group's last node. The namespace is not part of the answer: see getConfigVarNamespace. Only
  // "cfg" in this very spelling is one; a first node "CFG" belongs to the group.
  [[nodiscard]] static int getConfigVarName(std::string& group, int& groupInstance,
                                            std::string& name, int& nameInstance,
                                            const ConfigIF::Inst& inst);

  // The namespace that a path begins with; 0 when it has none.
  static int getConfigVarNamespace(const ConfigIF::Inst& inst);

  // --- Values ---

  // Appends one element, or all in the order of the list, to what value holds.
  static void addVarValue(ConfigIF::InstValue* value, const std::string& s);
  static void addVarValue(ConfigIF::InstValue* value, const std::list<std::string>& values);

  // Replaces out by the elements, in order. Always 0.
  static int getConfigVarValue(std::list<std::string>& out, const ConfigIF::InstValue& value);
  static int getStringList(std::list<std::string>& out,
                           const google::protobuf::RepeatedPtrField<std::string>& strings);

  // --- Results ---

  // Takes over error and flag, and appends the messages to those that the result holds. An empty
  // or absent server context or client name leaves the result's own. An absent error is success; so
  // is a number that the schema does not know, which reads as absent.
  static void fillReturnMessage(ConfigResult& result, const ConfigIF::ReturnMessage& message);

  // Writes error and flag always, appends the messages, and writes server context and client name
  // unless they are empty. The error has to be one of the schema's (a provider's own number, -25
  // included, ends the process).
  static void fillReturnMessage(ConfigIF::ReturnMessage* message, const ConfigResult& result);

  // --- Requests about values ---

  static ConfigIF::ReadReq getReadRequest(const std::string& client, CommonIF::eSecurityRole role,
                                          ConfigVar var);
  static ConfigIF::ResetValueReq getResetValueRequest(const std::string& client,
                                                      CommonIF::eSecurityRole role, ConfigVar var);
  static ConfigIF::WriteReq getWriteRequest(const std::string& client, CommonIF::eSecurityRole role,
                                            ConfigVar var, const std::list<std::string>& values);
  static ConfigIF::WriteReq getWriteRequest(const std::string& client, CommonIF::eSecurityRole role,
                                            ConfigVar var, const std::string& value);
  static ConfigIF::ValidateReq getValidateRequest(const std::string& client,
                                                  CommonIF::eSecurityRole role, ConfigVar var,
                                                  const std::list<std::string>& values);
  static ConfigIF::ValidateReq getValidateRequest(const std::string& client,
                                                  CommonIF::eSecurityRole role, ConfigVar var,
                                                  const std::string& value);
  // One ConfigIF::Inst for each key, in order; no key, no Inst.
  static ConfigIF::BatchReadReq getBatchReadRequest(const std::string& client,
                                                    CommonIF::eSecurityRole role,
                                                    std::list<ConfigVar> vars);
  // node: dotted name of a variable or group, sent unchanged.
  static ConfigIF::ResetNodeValueReq getResetNodeValueRequest(const std::string& client,
                                                              CommonIF::eSecurityRole role,
                                                              const std::string& node);

  // --- A provider's answers ---

  static ConfigIF::DynamicValidateRsp getDynamicValidateResponse(const ConfigResult& result);
  static ConfigIF::OnChangeRsp getOnChangeResponse(const ConfigResult& result);

  // --- Requests about options ---

  static ConfigIF::GetAttributeOptionsReq getGetOptionsRequest(const std::string& client,
                                                               CommonIF::eSecurityRole role,
                                                               ConfigVar var);
  // defaultIndex may be null: no index is sent. A pointer to 0 sends 0.
  static ConfigIF::SetAttributeOptionsReq getSetOptionsRequest(const std::string& client,
                                                               CommonIF::eSecurityRole role,
                                                               ConfigVar var,
                                                               std::list<std::string> options,
                                                               const unsigned int* defaultIndex);
  static ConfigIF::GetDefaultOptionsReq getGetDefaultOptionsRequest(const std::string& client,
                                                                    CommonIF::eSecurityRole role,
                                                                    const std::string& dottedName);

  // --- Requests about access levels ---

  static ConfigIF::GetAccessLevelsReq getGetAccessLevelsReq(const std::string& client,
                                                            CommonIF::eSecurityRole role,
                                                            ConfigVar var);
  // Either role may be null: it is not sent, and stays as it is at the service.
  static ConfigIF::SetAccessLevelsReq getSetAccessLevelsReq(
      const std::string& client, CommonIF::eSecurityRole role, std::list<ConfigVar> vars,
      const CommonIF::eSecurityRole* readRole, const CommonIF::eSecurityRole* writeRole);

  // --- Requests about attributes and whole records ---

  static ConfigIF::ReadAttributesReq getReadAttributesRequest(const std::string& client,
                                                              CommonIF::eSecurityRole role,
                                                              ConfigVar var);
  // name: dotted name of a variable or group, sent unchanged.
  static ConfigIF::ResetAttributeReq getResetAttributeRequest(const std::string& client,
                                                              CommonIF::eSecurityRole role,
                                                              const std::string& name);
  static ConfigIF::GetValueOptionsAccessReq getGetValueOptionsAccessRequest(
      const std::string& client, CommonIF::eSecurityRole role, ConfigVar var);
  static ConfigIF::BatchGetValueOptionsAccessReq getBatchGetValueOptionsAccessReq(
      const std::string& client, CommonIF::eSecurityRole role, const std::list<ConfigVar>& vars);

  // --- Callback registrations ---

  // An empty dotted name is not sent: the registration is for everything.
  static ConfigIF::RegisterClientCallbackReq getRegClientCallbackRequest(
      const std::string& client, CommonIF::eSecurityRole role, const std::string& dottedName,
      ConfigIF::CallbackType type, std::string endpointName);
  // An empty dotted name is sent, unlike in a registration.
  static ConfigIF::UnregisterClientCallbackReq getUnregClientCallbackRequest(
      const std::string& client, CommonIF::eSecurityRole role, const std::string& dottedName,
      ConfigIF::CallbackType type, std::string endpointName);
  // The client name and nothing else: no role is asked for.
  static ConfigIF::UnregisterAllClientCallbacksReq getUnregAllClientCallbacksRequest(
      const std::string& client);
};

}  // namespace AppConfig
