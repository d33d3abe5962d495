// ConfigValue: what is known of one variable: its value, roles, options, default flag and default
// index. Each part arrives on its own, so the record also knows which parts it holds.
//
// Shape:   a plain value, copied whole; a fresh one knows nothing.
// Absence: a value is known when its list is not empty: a variable whose value is the empty list
//          looks like one never read. Access levels are known when both roles are. Options are
//          known once stored, even when the list is empty.
// Errors:  none.
// Threads: no lock of its own; inside the cache it is touched only under the cache's.
//
//   AppConfig::ConfigValue record;
//   record.setOptions({"auto", "manual"});
//   record.defaultIndex(1);
//   record.setOptions({"auto"});  // the index stays 1, now past the end: it is announced apart
#pragma once

#include <list>
#include <string>
#include <vector>

#include "appconfig/core/export.h"
#include "appconfig/core/security_role.h"

namespace AppConfig {

class APPCONFIG_EXPORT ConfigValue {
 public:
  bool hasValue() const { return !value_.empty(); }
  bool hasAccessLevels() const { return readRoleSet_ && writeRoleSet_; }
  bool hasOptions() const { return optionsSet_; }

  // Whether the value is the variable's default. Kept apart from the value: setValue leaves it.
  void isDefault(bool isDefault) { default_ = isDefault; }
  bool isDefault() const { return default_; }

  // Position of the default option in the option list. Never checked against the list, and no
  // option operation moves it.
  void defaultIndex(unsigned int index) { defaultIndex_ = index; }
  unsigned int defaultIndex() const { return defaultIndex_; }

  // Storing a role makes it known; nothing makes it unknown again. A role never stored reads as 0.
  void readRole(SecurityRole role);
  SecurityRole readRole() const { return readRole_; }
  void writeRole(SecurityRole role);
  SecurityRole writeRole() const { return writeRole_; }

  // Takes over the halves whose set flag is true and leaves the others as they are, so that a
  // notice with one role alone does not lose the other.
  void accessLevels(ConfigAccessLevels levels);
  ConfigAccessLevels accessLevels() const;

  // Whether a client in this role may read or write: its number is at least the stored role's.
  // Roles never stored count as 0; ask hasAccessLevels() first where that matters.
  bool canRead(SecurityRole role) const { return role >= readRole_; }
  bool canWrite(SecurityRole role) const { return role >= writeRole_; }

  // A single-valued variable is a list of one string. "" when there is no value.
  std::list<std::string> getValue() const { return value_; }
  std::string getSinglestringValue() const;
  void setValue(const std::list<std::string>& value) { value_ = value; }
  void setValue(std::list<std::string>&& value);

  // The options in the service's order. Finding the list empty, known or not, also puts the line
  // "empty in getOptions" on standard output.
  std::vector<std::string> getOptions() const;
  void setOptions(const std::vector<std::string>& options);
  void setOptions(std::vector<std::string>&& options);

  // Appends what is not there yet, compared case-sensitively. Makes the options known even when
  // nothing was appended.
  void addOption(const std::string& option);
  void addOptions(const std::list<std::string>& options);

  // Removes the first equal option, if any. Options that were known stay so, even when none is
  // left.
  void deleteOption(const std::string& option);

  // Back to unknown.
  void clearOptions();

 private:
  // Copies a value once, where getValue would copy it twice.
  friend class ConfigCache;

  std::list<std::string> value_;
  SecurityRole readRole_ = eRolePublic;
  SecurityRole writeRole_ = eRolePublic;
  bool readRoleSet_ = false;
  bool writeRoleSet_ = false;
  std::vector<std::string> options_;
  bool optionsSet_ = false;
  bool default_ = false;
  unsigned int defaultIndex_ = 0;
};

}  // namespace AppConfig
