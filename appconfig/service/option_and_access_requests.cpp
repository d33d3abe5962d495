// Reads and changes option lists, default options and access levels at the service.
//
// The requests about options carry the key's own namespace, those about access levels the one that
// the link determines. Services have been written against both, so both stay.

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <optional>

#include "appconfig/service/platform_cfg_service.h"
#include "appconfig/wire/protobuf_message_helper.h"
#include "platform/schema/config_if.pb.h"
#include "platform/schema/error_conversion.h"
#include "platform/schema/message_bounds.h"

namespace AppConfig {

namespace {

using WireRole = CommonIF::eSecurityRole;

// The two option responses are alike in all but their type.
template <typename Response>
bool takeOptions(const Response& response, std::list<std::string>& options,
                 unsigned int& defaultIndex) {
  if (response.result().error() != CommonIF::ERROR_NONE) return false;
  options.assign(response.options().begin(), response.options().end());
  defaultIndex = response.default_index();
  return true;
}

std::optional<WireRole> wireRole(const SecurityRole* role) {
  if (!role) return std::nullopt;
  return PlatformCfgService::enumTranslate(*role);
}

const WireRole* pointerTo(const std::optional<WireRole>& role) { return role ? &*role : nullptr; }

ConfigIF::SetAccessLevelsReq setAccessLevelsRequest(const std::string& client, WireRole role,
                                                    const std::list<ConfigVar>& keys,
                                                    const SecurityRole* readRole,
                                                    const SecurityRole* writeRole) {
  const std::optional<WireRole> read = wireRole(readRole);
  const std::optional<WireRole> write = wireRole(writeRole);
  return ProtobufMessageHelper::getSetAccessLevelsReq(client, role, keys, pointerTo(read),
                                                      pointerTo(write));
}

// Calls send with as many keys as one request may be about, again and again until all were sent;
// once when there are none. Whether each returned true; all are sent, whatever becomes of the
// others.
template <typename Send>
bool forEachBatch(std::list<ConfigVar> keys, const Send& send) {
  bool accepted = true;
  do {
    std::list<ConfigVar> batch;
    const auto count = std::min(keys.size(), PlatformSchema::MessageLimits::kEntries);
    batch.splice(batch.end(), keys, keys.begin(),
                 std::next(keys.begin(), static_cast<std::ptrdiff_t>(count)));
    accepted = send(batch) && accepted;
  } while (!keys.empty());
  return accepted;
}

}  // namespace

std::list<std::string>& PlatformCfgService::getConfigOptions(const ConfigVar& var,
                                                             std::list<std::string>& options,
                                                             unsigned int& defaultIndex) {
  StateStamp unused;
  return getConfigOptions(var, options, defaultIndex, unused);
}

std::list<std::string>& PlatformCfgService::getConfigOptions(const ConfigVar& var,
                                                             std::list<std::string>& options,
                                                             unsigned int& defaultIndex,
                                                             StateStamp& stamp) {
  options.clear();
  if (!pb_) return options;
  const Coverage coverage = coverageOf(var, eOptionsChanged);
  ConfigIF::GetAttributeOptionsRsp response;
  if (!ask(ProtobufMessageHelper::getGetOptionsRequest(getSelfFQName(), securityRole_, var),
           &response))
    return options;
  if (!takeOptions(response, options, defaultIndex)) return options;
  stamp = stampIn(response);
  registerAfterAnswer(var, eOptionsChanged, coverage);
  return options;
}

std::list<std::string>& PlatformCfgService::getConfigDefaultOptions(const ConfigVar& var,
                                                                    std::list<std::string>& options,
                                                                    unsigned int& defaultIndex) {
  options.clear();
  if (!pb_) return options;
  ConfigIF::GetDefaultOptionsRsp response;
  if (!ask(ProtobufMessageHelper::getGetDefaultOptionsRequest(getSelfFQName(), securityRole_,
                                                              var.dottedName()),
           &response))
    return options;
  takeOptions(response, options, defaultIndex);
  return options;
}

bool PlatformCfgService::setConfigOptions(const ConfigVar& var,
                                          const std::list<std::string>& options,
                                          unsigned int* defaultIndex) {
  StateStamp unused;
  return setConfigOptions(var, options, defaultIndex, unused);
}

bool PlatformCfgService::setConfigOptions(const ConfigVar& var,
                                          const std::list<std::string>& options,
                                          unsigned int* defaultIndex, StateStamp& stamp) {
  if (!pb_) return false;
  ConfigIF::SetAttributeOptionsRsp response;
  if (!ask(ProtobufMessageHelper::getSetOptionsRequest(getSelfFQName(), securityRole_, var, options,
                                                       defaultIndex),
           &response))
    return false;
  stamp = stampIn(response);
  return response.result().error() == CommonIF::ERROR_NONE;
}

bool PlatformCfgService::getAccessLevels(const ConfigVar& var, SecurityRole* readRole,
                                         SecurityRole* writeRole) {
  StateStamp unused;
  return getAccessLevels(var, readRole, writeRole, unused);
}

bool PlatformCfgService::getAccessLevels(const ConfigVar& var, SecurityRole* readRole,
                                         SecurityRole* writeRole, StateStamp& stamp) {
  if (!pb_) return false;
  const ConfigVar key = keyForRequest(var);
  const Coverage coverage = coverageOf(key, eAccessLevelsChanged);
  ConfigIF::GetAccessLevelsRsp response;
  if (!ask(ProtobufMessageHelper::getGetAccessLevelsReq(getSelfFQName(), securityRole_, key),
           &response))
    return false;
  if (response.result().error() != CommonIF::ERROR_NONE) return false;
  if (readRole) *readRole = enumTranslate(response.read_role());
  if (writeRole) *writeRole = enumTranslate(response.write_role());
  stamp = stampIn(response);
  registerAfterAnswer(key, eAccessLevelsChanged, coverage);
  return true;
}

bool PlatformCfgService::setAccessLevels(const std::list<ConfigVar>& vars,
                                         const SecurityRole* readRole,
                                         const SecurityRole* writeRole) {
  if (!pb_) return false;
  return forEachBatch(keysForRequest(vars), [&](const std::list<ConfigVar>& keys) {
    return tell(setAccessLevelsRequest(getSelfFQName(), securityRole_, keys, readRole, writeRole));
  });
}

bool PlatformCfgService::setAccessLevels(const std::list<ConfigVar>& vars,
                                         const SecurityRole* readRole,
                                         const SecurityRole* writeRole,
                                         std::list<std::pair<ConfigVar, eErrorT>>& errors) {
  if (!pb_) return false;
  return forEachBatch(keysForRequest(vars), [&](const std::list<ConfigVar>& keys) {
    ConfigIF::SetAccessLevelsRsp response;
    if (!ask(setAccessLevelsRequest(getSelfFQName(), securityRole_, keys, readRole, writeRole),
             &response))
      return false;
    for (const ConfigIF::AccessLevelsRecord& record : response.records())
      takeAccessLevelsRecord(record, errors);
    return response.result().error() == CommonIF::ERROR_NONE;
  });
}

std::list<ConfigVar> PlatformCfgService::keysForRequest(const std::list<ConfigVar>& vars) const {
  std::list<ConfigVar> keys;
  for (const ConfigVar& var : vars) keys.push_back(keyForRequest(var));
  return keys;
}

void PlatformCfgService::takeAccessLevelsRecord(const ConfigIF::AccessLevelsRecord& record,
                                                std::list<std::pair<ConfigVar, eErrorT>>& errors) {
  std::string group;
  std::string name;
  int groupInstance = 0;
  int nameInstance = 0;
  if (ProtobufMessageHelper::getConfigVarName(group, groupInstance, name, nameInstance,
                                              record.inst()) != 0)
    return;
  const ConfigVar key(group, groupInstance, name, nameInstance);
  errors.emplace_back(key, convertErrorTypeToCommonPbType(record.error()));
  if (record.error() == CommonIF::ERROR_NONE) registerHandlerProactively(key, eAccessLevelsChanged);
}

}  // namespace AppConfig
