// Reads of values: from the cache when it holds one, else from the service.
//
// A hit is what matters here: a variable without a namespace is its own local key, so it is looked
// up without building another one, and what is handed out is copied under the cache's lock.

#include "appconfig/core/typed_text.h"
#include "appconfig/manager/app_cfg_manager.h"
#include "appconfig/manager/fresh_read.h"
#include "appconfig/manager/internal/in_flight.h"
#include "appconfig/manager/internal/local_key.h"
#include "appconfig/service/platform_cfg_service.h"

namespace AppConfig {

bool AppCfgManager::isCacheable(const ConfigVar& var) const {
  return var.nameSpace() == 0 || var.nameSpace() == service_->getNamespace();
}

// A value whose changes nobody would announce is asked for each time.
bool AppCfgManager::copyCachedValue(const ConfigVar& var, std::list<std::string>& out) const {
  if (!service_->isTold(var, PlatformCfgService::eValueChanged)) return false;
  if (var.nameSpace() == 0) return cache_.copyValue(var, out);
  return isCacheable(var) && cache_.copyValue(localKey(var), out);
}

bool AppCfgManager::copyCachedFirstString(const ConfigVar& var, std::string& out) const {
  if (!service_->isTold(var, PlatformCfgService::eValueChanged)) return false;
  if (var.nameSpace() == 0) return cache_.copyFirstString(var, out);
  return isCacheable(var) && cache_.copyFirstString(localKey(var), out);
}

ConfigCache::Position AppCfgManager::retrieveConfigVar(const ConfigVar& var) {
  return isCacheable(var) ? cache_.getConfigValue(localKey(var)) : cache_.end();
}

// An empty answer is not cached, so that a variable that comes to be is found by the next read.
std::list<std::string> AppCfgManager::askForValue(const ConfigVar& var, ReadEnd& end) {
  StateStamp stamp;
  if (!isCacheable(var)) return service_->getConfigVar(var, end, stamp);
  Flight flight(cache_, localKey(var));
  std::list<std::string> value = service_->getConfigVar(var, end, stamp);
  if (!value.empty()) flight.storeRead(value, end.isDefault, stamp);
  return value;
}

std::list<std::string> AppCfgManager::readFromService(const ConfigVar& var) {
  ReadEnd unused;
  std::list<std::string> value = askForValue(var, unused);
  if (value.empty()) value.emplace_back();
  return value;
}

std::list<std::string> AppCfgManager::getConfigVar(const ConfigVar& var,
                                                   std::list<std::string>& out) {
  if (!copyCachedValue(var, out)) out = readFromService(var);
  return out;
}

std::list<std::string> AppCfgManager::getConfigVar(const std::string& group, int groupInstance,
                                                   const std::string& name, int nameInstance,
                                                   std::list<std::string>& out) {
  return getConfigVar(ConfigVar(group, groupInstance, name, nameInstance), out);
}

// "" rather than absent for a variable that cannot be read, for that is what its one-element list
// holds; so an unreadable number is 0, never -1.
std::string AppCfgManager::firstString(const ConfigVar& var) {
  std::string first;
  if (!copyCachedFirstString(var, first)) first = readFromService(var).front();
  return first;
}

std::string AppCfgManager::getConfigVar(const ConfigVar& var) { return firstString(var); }

std::string AppCfgManager::getConfigVar(const std::string& group, int groupInstance,
                                        const std::string& name, int nameInstance) {
  return getConfigVar(ConfigVar(group, groupInstance, name, nameInstance));
}

int AppCfgManager::getConfigVarInt(const ConfigVar& var) { return intOf(firstString(var)); }

int AppCfgManager::getConfigVarInt(const std::string& group, int groupInstance,
                                   const std::string& name, int nameInstance) {
  return getConfigVarInt(ConfigVar(group, groupInstance, name, nameInstance));
}

bool AppCfgManager::getConfigVarBool(const ConfigVar& var) { return boolOf(firstString(var)); }

bool AppCfgManager::getConfigVarBool(const std::string& group, int groupInstance,
                                     const std::string& name, int nameInstance) {
  return getConfigVarBool(ConfigVar(group, groupInstance, name, nameInstance));
}

bool AppCfgManager::copyRecordAfterRead(const ConfigVar& key, ConfigValue& out) {
  const bool isTold = service_->isTold(key, PlatformCfgService::eValueChanged);
  if (isTold && cache_.copyRecord(key, out)) return true;
  std::list<std::string> unused;
  getConfigVar(key, unused);
  return cache_.copyRecord(key, out);
}

// An entry answers with its flag even when something else than a read made it. A variable that
// cannot be read counts as unchanged.
bool AppCfgManager::isDefault(const std::string& group, int groupInstance, const std::string& name,
                              int nameInstance) {
  ConfigValue record;
  const ConfigVar key(group, groupInstance, name, nameInstance);
  return copyRecordAfterRead(key, record) ? record.isDefault() : true;
}

ConfigValue AppCfgManager::getConfigValue(const std::string& group, int groupInstance,
                                          const std::string& name, int nameInstance) {
  const ConfigVar key(group, groupInstance, name, nameInstance);
  ConfigValue record;
  if (!copyRecordAfterRead(key, record)) return ConfigValue();
  const bool knowsLevels =
      record.hasAccessLevels() && service_->isTold(key, PlatformCfgService::eAccessLevelsChanged);
  if (!knowsLevels) getAccessLevels(key, nullptr, nullptr);
  std::vector<std::string> unused;
  const bool knowsOptions =
      record.hasOptions() && service_->isTold(key, PlatformCfgService::eOptionsChanged);
  if (!knowsOptions) getConfigOptions(key, unused);
  return cache_.copyRecord(key, record) ? record : ConfigValue();
}

bool readFresh(const ConfigVar& var, std::list<std::string>& value, AppCfgManager* manager) {
  AppCfgManager* const facade = manager ? manager : AppCfgManager::getInstance();
  ReadEnd unused;
  value = facade->askForValue(var, unused);
  return !value.empty();
}

}  // namespace AppConfig
