// Writes, validation and reset, and the stores of values and default flags.
//
// A bool is spelled "true" by the writes that do not wait and "True" by those that do. Other
// programs and the service compare these texts, so the difference stays.

#include "appconfig/manager/app_cfg_manager.h"
#include "appconfig/manager/internal/in_flight.h"
#include "appconfig/manager/internal/local_key.h"
#include "appconfig/service/platform_cfg_service.h"

namespace AppConfig {

namespace {

using Value = std::list<std::string>;

// std::to_string: no locale puts its separators into a number.
Value single(int value) { return {std::to_string(value)}; }
Value single(const char* value) { return {std::string(value)}; }
Value single(const std::string& value) { return {value}; }
Value plainBool(bool value) { return {value ? "true" : "false"}; }
Value reportedBool(bool value) { return {value ? "True" : "False"}; }

}  // namespace

// The cache is not told: a write nobody waits for may still be refused, and the notice will come.
bool AppCfgManager::setConfigVar(const ConfigVar& var, const std::list<std::string>& value) {
  return service_->setConfigVar(var, value);
}

bool AppCfgManager::setConfigVar(const ConfigVar& var, int value) {
  return setConfigVar(var, single(value));
}

bool AppCfgManager::setConfigVar(const ConfigVar& var, bool value) {
  return setConfigVar(var, plainBool(value));
}

bool AppCfgManager::setConfigVar(const ConfigVar& var, const char* value) {
  return setConfigVar(var, single(value));
}

bool AppCfgManager::setConfigVar(const ConfigVar& var, const std::string& value) {
  return setConfigVar(var, single(value));
}

bool AppCfgManager::setConfigVar(const std::string& group, int groupInstance,
                                 const std::string& name, int nameInstance,
                                 const std::list<std::string>& value) {
  return setConfigVar(ConfigVar(group, groupInstance, name, nameInstance), value);
}

bool AppCfgManager::setConfigVar(const std::string& group, int groupInstance,
                                 const std::string& name, int nameInstance, int value) {
  return setConfigVar(ConfigVar(group, groupInstance, name, nameInstance), value);
}

bool AppCfgManager::setConfigVar(const std::string& group, int groupInstance,
                                 const std::string& name, int nameInstance, bool value) {
  return setConfigVar(ConfigVar(group, groupInstance, name, nameInstance), value);
}

bool AppCfgManager::setConfigVar(const std::string& group, int groupInstance,
                                 const std::string& name, int nameInstance, const char* value) {
  return setConfigVar(ConfigVar(group, groupInstance, name, nameInstance), value);
}

bool AppCfgManager::setConfigVar(const std::string& group, int groupInstance,
                                 const std::string& name, int nameInstance,
                                 const std::string& value) {
  return setConfigVar(ConfigVar(group, groupInstance, name, nameInstance), value);
}

bool AppCfgManager::setConfigVar(const ConfigVar& var, const std::list<std::string>& value,
                                 ConfigResult* result) {
  if (!isCacheable(var)) return service_->setConfigVar(var, value, result);
  StateStamp stamp;
  Flight flight(cache_, localKey(var));
  if (!service_->setConfigVar(var, value, result, stamp)) return false;
  flight.storeWritten(value, stamp);
  return true;
}

bool AppCfgManager::setConfigVar(const ConfigVar& var, int value, ConfigResult* result) {
  return setConfigVar(var, single(value), result);
}

bool AppCfgManager::setConfigVar(const ConfigVar& var, bool value, ConfigResult* result) {
  return setConfigVar(var, reportedBool(value), result);
}

bool AppCfgManager::setConfigVar(const ConfigVar& var, const char* value, ConfigResult* result) {
  return setConfigVar(var, single(value), result);
}

bool AppCfgManager::setConfigVar(const ConfigVar& var, const std::string& value,
                                 ConfigResult* result) {
  return setConfigVar(var, single(value), result);
}

bool AppCfgManager::setConfigVar(const std::string& group, int groupInstance,
                                 const std::string& name, int nameInstance,
                                 const std::list<std::string>& value, ConfigResult* result) {
  return setConfigVar(ConfigVar(group, groupInstance, name, nameInstance), value, result);
}

bool AppCfgManager::setConfigVar(const std::string& group, int groupInstance,
                                 const std::string& name, int nameInstance, int value,
                                 ConfigResult* result) {
  return setConfigVar(ConfigVar(group, groupInstance, name, nameInstance), value, result);
}

bool AppCfgManager::setConfigVar(const std::string& group, int groupInstance,
                                 const std::string& name, int nameInstance, bool value,
                                 ConfigResult* result) {
  return setConfigVar(ConfigVar(group, groupInstance, name, nameInstance), value, result);
}

bool AppCfgManager::setConfigVar(const std::string& group, int groupInstance,
                                 const std::string& name, int nameInstance, const char* value,
                                 ConfigResult* result) {
  return setConfigVar(ConfigVar(group, groupInstance, name, nameInstance), value, result);
}

bool AppCfgManager::setConfigVar(const std::string& group, int groupInstance,
                                 const std::string& name, int nameInstance,
                                 const std::string& value, ConfigResult* result) {
  return setConfigVar(ConfigVar(group, groupInstance, name, nameInstance), value, result);
}

bool AppCfgManager::isValid(const ConfigVar& var, const std::list<std::string>& value,
                            ConfigResult* result) {
  return service_->isValid(var, value, result);
}

bool AppCfgManager::isValid(const std::string& group, int groupInstance, const std::string& name,
                            int nameInstance, const std::list<std::string>& value,
                            ConfigResult* result) {
  return isValid(ConfigVar(group, groupInstance, name, nameInstance), value, result);
}

bool AppCfgManager::resetValue(const std::string& group, int groupInstance, const std::string& name,
                               int nameInstance) {
  return service_->resetValue(ConfigVar(group, groupInstance, name, nameInstance));
}

void AppCfgManager::updateConfigVar(const ConfigVar& var, std::list<std::string> value) {
  if (!isCacheable(var)) return;
  const ConfigVar key = localKey(var);
  const NoticeStore guard(cache_, key, kValuePart);
  cache_.update(key, std::move(value));
}

void AppCfgManager::updateIsDefault(const ConfigVar& var, bool isDefault) {
  if (!isCacheable(var)) return;
  const ConfigVar key = localKey(var);
  const NoticeStore guard(cache_, key, kDefaultFlagPart);
  cache_.updateIsDefault(key, isDefault);
}

// A notice names no namespace, so its key is the local one already.
void AppCfgManager::takeAnnounced(const ConfigVar& var, const std::list<std::string>& value,
                                  const bool* isDefault, const StateStamp& stamp) {
  NoticeStore store(cache_, var);
  if (store.admits(kValuePart, stamp)) cache_.store(var, value);
  if (isDefault && store.admits(kDefaultFlagPart, stamp)) cache_.storeIsDefault(var, *isDefault);
}

void AppCfgManager::takeTentative(const ConfigVar& var, const std::list<std::string>& value,
                                  const StateStamp& held) {
  NoticeStore store(cache_, var);
  if (store.admitsTentative(held)) cache_.store(var, value);
}

}  // namespace AppConfig
