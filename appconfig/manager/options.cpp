// Options and default options.
//
// Options are cached under the key as it is, namespace included, unlike values. Notices name no
// namespace, so they reach the entry of namespace 0 alone. Changing either would let two programs
// of one device disagree about which entry is meant.

#include "appconfig/manager/app_cfg_manager.h"
#include "appconfig/manager/internal/in_flight.h"
#include "appconfig/service/platform_cfg_service.h"

namespace AppConfig {

unsigned int AppCfgManager::cachedDefaultIndex(const ConfigVar& key) const {
  ConfigValue record;
  return cache_.copyRecord(key, record) ? record.defaultIndex() : 0;
}

std::vector<std::string>& AppCfgManager::getConfigOptions(const ConfigVar& var,
                                                          std::vector<std::string>& out) {
  ConfigValue record;
  if (copyRecordAfterRead(var, record) && record.hasOptions() &&
      service_->isTold(var, PlatformCfgService::eOptionsChanged))
    return out = record.getOptions();
  Flight flight(cache_, var);
  // Without an answer the index stays what it was, so that storing it changes nothing.
  unsigned int defaultIndex = cachedDefaultIndex(var);
  std::list<std::string> options;
  StateStamp stamp;
  service_->getConfigOptions(var, options, defaultIndex, stamp);
  out.assign(options.begin(), options.end());
  flight.storeOptions(out, defaultIndex, stamp);
  return out;
}

std::vector<std::string>& AppCfgManager::getConfigOptions(const std::string& group,
                                                          int groupInstance,
                                                          const std::string& name, int nameInstance,
                                                          std::vector<std::string>& out) {
  return getConfigOptions(ConfigVar(group, groupInstance, name, nameInstance), out);
}

void AppCfgManager::getConfigOptions(const std::string& group, int groupInstance,
                                     const std::string& name, int nameInstance,
                                     std::list<std::string>& out) {
  std::vector<std::string> options;
  getConfigOptions(group, groupInstance, name, nameInstance, options);
  out.insert(out.end(), options.begin(), options.end());
}

// Options are loaded only for a variable that has no entry at all: one that was read answers with
// the index it has, so that asking for an index costs no request.
bool AppCfgManager::getConfigOptionDefaultIndex(const ConfigVar& var, unsigned int& index) {
  ConfigValue record;
  if (!cache_.copyRecord(var, record)) {
    std::list<std::string> unusedValue;
    std::vector<std::string> unusedOptions;
    getConfigVar(var, unusedValue);
    getConfigOptions(var, unusedOptions);
    if (!cache_.copyRecord(var, record)) return false;
  }
  index = record.defaultIndex();
  return true;
}

bool AppCfgManager::getConfigOptionDefaultIndex(const std::string& group, int groupInstance,
                                                const std::string& name, int nameInstance,
                                                unsigned int& index) {
  return getConfigOptionDefaultIndex(ConfigVar(group, groupInstance, name, nameInstance), index);
}

std::vector<std::string>& AppCfgManager::getConfigDefaultOptions(const std::string& group,
                                                                 int groupInstance,
                                                                 const std::string& name,
                                                                 int nameInstance,
                                                                 std::vector<std::string>& out) {
  const ConfigVar key(group, groupInstance, name, nameInstance);
  Flight flight(cache_, key);
  unsigned int defaultIndex = cachedDefaultIndex(key);
  std::list<std::string> options;
  service_->getConfigDefaultOptions(key, options, defaultIndex);
  out.insert(out.end(), options.begin(), options.end());
  flight.storeDefaultIndex(defaultIndex);
  return out;
}

bool AppCfgManager::setConfigOptions(const std::string& group, int groupInstance,
                                     const std::string& name, int nameInstance,
                                     const std::vector<std::string>& options) {
  return service_->setConfigOptions(ConfigVar(group, groupInstance, name, nameInstance),
                                    {options.begin(), options.end()}, nullptr);
}

// The index is stored at once and the options are not: they come with the notice.
bool AppCfgManager::setConfigOptions(const std::string& group, int groupInstance,
                                     const std::string& name, int nameInstance,
                                     const std::vector<std::string>& options,
                                     unsigned int defaultIndex) {
  const ConfigVar key(group, groupInstance, name, nameInstance);
  Flight flight(cache_, key);
  StateStamp stamp;
  if (!service_->setConfigOptions(key, {options.begin(), options.end()}, &defaultIndex, stamp))
    return false;
  flight.storeDefaultIndex(defaultIndex, stamp);
  return true;
}

void AppCfgManager::updateConfigVarOptions(const std::string& group, int groupInstance,
                                           const std::string& name, int nameInstance,
                                           std::list<std::string> options) {
  const ConfigVar key(group, groupInstance, name, nameInstance);
  const NoticeStore guard(cache_, key, kOptionsPart);
  cache_.updateOptions(key, {options.begin(), options.end()});
}

void AppCfgManager::takeAnnouncedOptions(const ConfigVar& var,
                                         const std::list<std::string>& options,
                                         const unsigned int* defaultIndex,
                                         const StateStamp& stamp) {
  NoticeStore store(cache_, var);
  if (store.admits(kOptionsPart, stamp))
    cache_.updateOptions(var, {options.begin(), options.end()});
  if (defaultIndex && store.admits(kDefaultIndexPart, stamp))
    cache_.updateOptionDefaultIndex(var, *defaultIndex);
}

}  // namespace AppConfig
