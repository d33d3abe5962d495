// Folding once, when a key is made, is what lets every comparison be a plain memcmp. Copies fold
// again although their source is folded already, so that the invariant of a key never rests on
// where it came from; moves take the strings as they are, since the source made them itself.
#include "appconfig/core/config_var.h"

#include <utility>

#include "appconfig/core/lower_case.h"

using AppConfig::lowerCase;

ConfigVar::ConfigVar(const std::string& group, int groupInstance, const std::string& name,
                     int nameInstance)
    : ConfigVar(0, group, groupInstance, name, nameInstance) {}

ConfigVar::ConfigVar(std::int32_t nameSpace, const std::string& group, int groupInstance,
                     const std::string& name, int nameInstance)
    : nameSpace_(nameSpace),
      group_(lowerCase(group)),
      groupInstance_(groupInstance),
      name_(lowerCase(name)),
      nameInstance_(nameInstance),
      flag_(false) {}

ConfigVar::ConfigVar(const ConfigVar& other)
    : ConfigVar(other.nameSpace_, other.group_, other.groupInstance_, other.name_,
                other.nameInstance_) {}

ConfigVar::ConfigVar(ConfigVar&& other) noexcept
    : nameSpace_(other.nameSpace_),
      group_(std::move(other.group_)),
      groupInstance_(other.groupInstance_),
      name_(std::move(other.name_)),
      nameInstance_(other.nameInstance_),
      flag_(false) {}

ConfigVar& ConfigVar::operator=(const ConfigVar& other) { return *this = ConfigVar(other); }

ConfigVar& ConfigVar::operator=(ConfigVar&& other) noexcept {
  nameSpace_ = other.nameSpace_;
  group_.swap(other.group_);  // a swap, so that a key moved onto itself keeps its names
  groupInstance_ = other.groupInstance_;
  name_.swap(other.name_);
  nameInstance_ = other.nameInstance_;
  flag_ = false;
  return *this;
}

std::string ConfigVar::dottedName() const {
  if (name_.empty()) return group_;
  std::string dotted;
  dotted.reserve(group_.size() + 1 + name_.size());
  dotted.append(group_).append(1, '.').append(name_);
  return dotted;
}
