// What is known of one variable, part by part. Storing a part also notes that it is known, where an
// empty part would not show it: roles and options have a flag for that, the value has none.
#include "appconfig/cache/config_value.h"

#include <algorithm>
#include <cstdio>

namespace AppConfig {

void ConfigValue::readRole(SecurityRole role) {
  readRole_ = role;
  readRoleSet_ = true;
}

void ConfigValue::writeRole(SecurityRole role) {
  writeRole_ = role;
  writeRoleSet_ = true;
}

void ConfigValue::accessLevels(ConfigAccessLevels levels) {
  if (levels.readRoleSet) readRole(levels.readRole);
  if (levels.writeRoleSet) writeRole(levels.writeRole);
}

ConfigAccessLevels ConfigValue::accessLevels() const {
  return {readRole_, writeRole_, readRoleSet_, writeRoleSet_};
}

std::string ConfigValue::getSinglestringValue() const {
  return value_.empty() ? std::string() : value_.front();
}

// The two setters that take over their argument swap, so that what the record held is freed by the
// caller: the cache calls them under its lock and frees after it.
void ConfigValue::setValue(std::list<std::string>&& value) { value_.swap(value); }

void ConfigValue::setOptions(std::vector<std::string>&& options) {
  options_.swap(options);
  optionsSet_ = true;
}

std::vector<std::string> ConfigValue::getOptions() const {
  if (options_.empty()) std::puts("empty in getOptions");
  return options_;
}

void ConfigValue::setOptions(const std::vector<std::string>& options) {
  options_ = options;
  optionsSet_ = true;
}

void ConfigValue::addOption(const std::string& option) {
  if (std::find(options_.begin(), options_.end(), option) == options_.end())
    options_.push_back(option);
  optionsSet_ = true;
}

void ConfigValue::addOptions(const std::list<std::string>& options) {
  for (const std::string& option : options) addOption(option);
  optionsSet_ = true;
}

void ConfigValue::deleteOption(const std::string& option) {
  const auto found = std::find(options_.begin(), options_.end(), option);
  if (found != options_.end()) options_.erase(found);
}

void ConfigValue::clearOptions() {
  options_.clear();
  optionsSet_ = false;
}

}  // namespace AppConfig
