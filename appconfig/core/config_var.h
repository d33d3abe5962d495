// ConfigVar: the key of one variable: namespace, group, group instance, name, name instance.
//
// Shape:   group and name are byte strings, lower case from construction on; the group may hold
//          dots. Numbers are signed. Namespace 0 means that the variable has none.
// Errors:  none: every combination is a key, the empty one included.
// Threads: a plain value; any number of threads may read one.
// Owns:    copies of the strings it is given.
//
//   ConfigVar address("Network.Eth", 1, "IPAddr", 0);
//   address.group();       // "network.eth"
//   address.dottedName();  // "network.eth.ipaddr"
//
// Two orderings. std::less<ConfigVar> tells all five fields apart and keys the cache.
// CfgHandlerLookup sees the two names alone and keys the handlers, so that a handler registered
// for a variable hears of every instance of it, in every namespace:
//
//   ConfigVar("net", 0, "ip", 1) and ConfigVar("net", 0, "ip", 2) are two cached variables with
//   the same handlers; ConfigVar("net.ip", 0, "", 1) is neither of them, though its dotted name
//   is the same.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "appconfig/core/export.h"

class APPCONFIG_EXPORT ConfigVar {
 public:
  // Namespace 0. ("Network", 1, "IPAddr", 2) and ("network", 1, "ipaddr", 2) are the same key.
  // The letters A to Z are folded to lower case. Every other byte stays as it is, those above 127
  // too, whatever the locale.
  ConfigVar(const std::string& group, int groupInstance, const std::string& name, int nameInstance);
  ConfigVar(std::int32_t nameSpace, const std::string& group, int groupInstance,
            const std::string& name, int nameInstance);

  // A copy is folded again and its flag is false, whatever the source's is. A moved-from key is
  // still a key, of unspecified names.
  ConfigVar(const ConfigVar& other);
  ConfigVar(ConfigVar&& other) noexcept;
  ConfigVar& operator=(const ConfigVar& other);
  ConfigVar& operator=(ConfigVar&& other) noexcept;
  ~ConfigVar() = default;

  std::int32_t nameSpace() const { return nameSpace_; }
  const std::string& group() const { return group_; }
  std::int32_t groupInstance() const { return groupInstance_; }
  const std::string& name() const { return name_; }
  std::int32_t nameInstance() const { return nameInstance_; }

  // The application's own mark on this one object: false after construction, copy, assignment and
  // move. It orders nothing, is never sent, and the library neither reads nor sets it.
  bool flag() const { return flag_; }
  void setFlag(bool flag) { flag_ = flag; }

  // "network.ipaddr"; just the group when the name is empty; ".ipaddr" when the group is.
  // Namespace and instances are not part of it.
  std::string dottedName() const;

 private:
  std::int32_t nameSpace_;
  std::string group_;
  std::int32_t groupInstance_;
  std::string name_;
  std::int32_t nameInstance_;
  bool flag_;
};

// All five fields, one after another: namespace, group, group instance, name, name instance.
// Numbers compare as signed, names byte by byte as unsigned, a prefix before what it begins.
template <>
struct std::less<ConfigVar> {
  bool operator()(const ConfigVar& a, const ConfigVar& b) const;
};

// The two names of a key that need not exist: what a map ordered by CfgHandlerLookup is searched
// for without building a key. Both must be lower case already, and outlive the search.
struct ConfigVarNames {
  std::string_view group;
  std::string_view name;
};

// Group, then name; namespace, instances and flag are ignored.
struct CfgHandlerLookup {
  using is_transparent = void;
  bool operator()(const ConfigVar& a, const ConfigVar& b) const;
  bool operator()(const ConfigVar& a, const ConfigVarNames& b) const;
  bool operator()(const ConfigVarNames& a, const ConfigVar& b) const;
};

// The orderings are inline because a map search is little else. string_view compares with memcmp
// over the shorter length and lets the lengths decide a tie, and is always inlined.

inline bool std::less<ConfigVar>::operator()(const ConfigVar& a, const ConfigVar& b) const {
  if (a.nameSpace() != b.nameSpace()) return a.nameSpace() < b.nameSpace();
  const int byGroup = std::string_view(a.group()).compare(b.group());
  if (byGroup != 0) return byGroup < 0;
  if (a.groupInstance() != b.groupInstance()) return a.groupInstance() < b.groupInstance();
  const int byName = std::string_view(a.name()).compare(b.name());
  if (byName != 0) return byName < 0;
  return a.nameInstance() < b.nameInstance();
}

namespace config_var_detail {

inline bool namesLess(const ConfigVarNames& a, const ConfigVarNames& b) {
  const int byGroup = a.group.compare(b.group);
  return byGroup != 0 ? byGroup < 0 : a.name.compare(b.name) < 0;
}

inline ConfigVarNames namesOf(const ConfigVar& var) { return {var.group(), var.name()}; }

}  // namespace config_var_detail

inline bool CfgHandlerLookup::operator()(const ConfigVar& a, const ConfigVar& b) const {
  return config_var_detail::namesLess(config_var_detail::namesOf(a), config_var_detail::namesOf(b));
}

inline bool CfgHandlerLookup::operator()(const ConfigVar& a, const ConfigVarNames& b) const {
  return config_var_detail::namesLess(config_var_detail::namesOf(a), b);
}

inline bool CfgHandlerLookup::operator()(const ConfigVarNames& a, const ConfigVar& b) const {
  return config_var_detail::namesLess(a, config_var_detail::namesOf(b));
}
