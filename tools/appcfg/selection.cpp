#include "tools/appcfg/selection.h"

#include <string_view>

#include "appconfig/core/key_notation.h"

namespace AppCfgTool {
namespace {

bool isOrLiesBelow(const std::string& dotted, const std::string& name) {
  if (name.empty()) return true;
  if (dotted.compare(0, name.size(), name) != 0) return false;
  return dotted.size() == name.size() || dotted[name.size()] == '.';
}

bool isVariable(const ConfigVar& var, const ConfigVar& wanted) {
  return var.group() == wanted.group() && var.groupInstance() == wanted.groupInstance() &&
         var.name() == wanted.name() && var.nameInstance() == wanted.nameInstance();
}

}  // namespace

Outcome Selection::read(const std::string& text) {
  if (text.find_first_of(":[") != std::string::npos) return readKeyLike(text);
  const Base::Status<> read = AppConfig::parseDottedName(text, name_);
  return read.ok() ? Outcome() : usageMistake(read.text);
}

// A group alone ("3:engine", "eth[1]") is no key; a name is lent to it so that one parser reads
// both.
Outcome Selection::readKeyLike(const std::string& text) {
  const std::size_t colon = text.find(':');
  const bool groupAlone = text.find('.') == std::string::npos;
  ConfigVar var("", 0, "", 0);
  const Base::Status<> read = AppConfig::parseKey(groupAlone ? text + ".any" : text, var);
  if (!read.ok()) return usageMistake(read.text);
  if (colon != std::string::npos) nameSpace_ = var.nameSpace();
  name_ = groupAlone ? var.group() : var.dottedName();
  if (text.find('[') == std::string::npos) return {};
  if (groupAlone) {
    group_ = GroupInstance{name_, var.groupInstance()};
    return {};
  }
  variable_ = var;
  if (var.groupInstance() == 0) group_ = GroupInstance{name_, var.nameInstance()};
  return {};
}

bool Selection::selects(const ConfigVar& var) const {
  if (nameSpace_ && var.nameSpace() != *nameSpace_) return false;
  if (!variable_ && !group_) return isOrLiesBelow(var.dottedName(), name_);
  if (variable_ && isVariable(var, *variable_)) return true;
  return group_ && var.group() == group_->name && var.groupInstance() == group_->instance;
}

}  // namespace AppCfgTool
