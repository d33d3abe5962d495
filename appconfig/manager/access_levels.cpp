// Access levels: the roles that reading and writing a variable take.
//
// A change is only sent; it does not touch the cache, because the roles in force are those that the
// service announces. Reads ask the service until both roles are cached.

#include "appconfig/manager/app_cfg_manager.h"
#include "appconfig/manager/internal/in_flight.h"
#include "appconfig/service/platform_cfg_service.h"

namespace AppConfig {

namespace {

// Who may still read a hidden variable, and write a read-only one. A service technician has to see
// what is hidden from users; only the factory changes what is read-only.
constexpr SecurityRole kReadRoleOfHidden = eRoleService;
constexpr SecurityRole kWriteRoleOfReadOnly = eRoleFactory;

Parts partsIn(const ConfigAccessLevels& levels) {
  return (levels.readRoleSet ? kReadRolePart : 0) | (levels.writeRoleSet ? kWriteRolePart : 0);
}

}  // namespace

bool AppCfgManager::setAccessLevels(const std::list<ConfigVar>& vars, const SecurityRole* readRole,
                                    const SecurityRole* writeRole) {
  return service_->setAccessLevels(vars, readRole, writeRole);
}

bool AppCfgManager::setAccessLevels(const std::list<ConfigVar>& vars, const SecurityRole* readRole,
                                    const SecurityRole* writeRole,
                                    std::list<std::pair<ConfigVar, eErrorT>>& errors) {
  return service_->setAccessLevels(vars, readRole, writeRole, errors);
}

bool AppCfgManager::setAccessLevels(const ConfigVar& var, const SecurityRole* readRole,
                                    const SecurityRole* writeRole) {
  return setAccessLevels(std::list<ConfigVar>{var}, readRole, writeRole);
}

bool AppCfgManager::setAccessLevels(const ConfigVar& var, const SecurityRole* readRole,
                                    const SecurityRole* writeRole, eErrorT& error) {
  error = eErrNone;
  std::list<std::pair<ConfigVar, eErrorT>> errors;
  const bool accepted = setAccessLevels(std::list<ConfigVar>{var}, readRole, writeRole, errors);
  if (!errors.empty()) error = errors.front().second;
  return accepted;
}

bool AppCfgManager::setAccessLevels(const std::string& group, int groupInstance,
                                    const std::string& name, int nameInstance,
                                    const SecurityRole* readRole, const SecurityRole* writeRole) {
  return setAccessLevels(ConfigVar(group, groupInstance, name, nameInstance), readRole, writeRole);
}

bool AppCfgManager::setAccessLevels(const std::string& group, int groupInstance,
                                    const std::string& name, int nameInstance,
                                    const SecurityRole* readRole, const SecurityRole* writeRole,
                                    eErrorT& error) {
  return setAccessLevels(ConfigVar(group, groupInstance, name, nameInstance), readRole, writeRole,
                         error);
}

bool AppCfgManager::setAccessHidden(const std::list<ConfigVar>& vars,
                                    std::list<std::pair<ConfigVar, eErrorT>>& errors) {
  return setAccessLevels(vars, &kReadRoleOfHidden, nullptr, errors);
}

bool AppCfgManager::setAccessHidden(const ConfigVar& var, eErrorT& error) {
  return setAccessLevels(var, &kReadRoleOfHidden, nullptr, error);
}

bool AppCfgManager::setAccessHidden(const std::string& group, int groupInstance,
                                    const std::string& name, int nameInstance, eErrorT& error) {
  return setAccessHidden(ConfigVar(group, groupInstance, name, nameInstance), error);
}

bool AppCfgManager::setAccessReadOnly(const std::list<ConfigVar>& vars,
                                      std::list<std::pair<ConfigVar, eErrorT>>& errors) {
  return setAccessLevels(vars, nullptr, &kWriteRoleOfReadOnly, errors);
}

bool AppCfgManager::setAccessReadOnly(const ConfigVar& var, eErrorT& error) {
  return setAccessLevels(var, nullptr, &kWriteRoleOfReadOnly, error);
}

bool AppCfgManager::setAccessReadOnly(const std::string& group, int groupInstance,
                                      const std::string& name, int nameInstance, eErrorT& error) {
  return setAccessReadOnly(ConfigVar(group, groupInstance, name, nameInstance), error);
}

// The entry is looked up under the key with its namespace, but reading the value makes an entry of
// namespace 0 alone. So for a key of the service's own namespace there is an entry only once its
// options were read, and without one this fails; by parts the roles can be read all the same.
bool AppCfgManager::getAccessLevels(const ConfigVar& var, SecurityRole* readRole,
                                    SecurityRole* writeRole) {
  ConfigValue record;
  if (!copyRecordAfterRead(var, record)) return false;
  ConfigAccessLevels levels = record.accessLevels();
  const bool isKnown =
      record.hasAccessLevels() && service_->isTold(var, PlatformCfgService::eAccessLevelsChanged);
  if (!isKnown && !loadAccessLevels(var, levels)) return false;
  if (readRole) *readRole = levels.readRole;
  if (writeRole) *writeRole = levels.writeRole;
  return true;
}

bool AppCfgManager::getAccessLevels(const std::string& group, int groupInstance,
                                    const std::string& name, int nameInstance,
                                    SecurityRole* readRole, SecurityRole* writeRole) {
  return getAccessLevels(ConfigVar(group, groupInstance, name, nameInstance), readRole, writeRole);
}

bool AppCfgManager::loadAccessLevels(const ConfigVar& var, ConfigAccessLevels& levels) {
  StateStamp stamp;
  Flight flight(cache_, var);
  if (!service_->getAccessLevels(var, &levels.readRole, &levels.writeRole, stamp)) return false;
  levels.readRoleSet = true;
  levels.writeRoleSet = true;
  flight.storeAccessLevels(levels, stamp);
  return true;
}

void AppCfgManager::updateConfigVarAccessLevels(const std::string& group, int groupInstance,
                                                const std::string& name, int nameInstance,
                                                const ConfigAccessLevels& levels) {
  const ConfigVar key(group, groupInstance, name, nameInstance);
  const NoticeStore guard(cache_, key, partsIn(levels));
  cache_.updateAccessLevels(key, levels);
}

void AppCfgManager::takeAnnouncedLevels(const ConfigVar& var, ConfigAccessLevels levels,
                                        const StateStamp& stamp) {
  NoticeStore store(cache_, var);
  levels.readRoleSet = levels.readRoleSet && store.admits(kReadRolePart, stamp);
  levels.writeRoleSet = levels.writeRoleSet && store.admits(kWriteRolePart, stamp);
  cache_.updateAccessLevels(var, levels);
}

}  // namespace AppConfig
