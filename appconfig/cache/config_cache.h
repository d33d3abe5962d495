// ConfigCache: what this process has read, written or been told: one record per variable.
//
// Shape:   a map from key to record. Keys are exact: another namespace or instance is another
//          entry. Nothing expires and there is no size limit; entries leave by removeVars and
//          reset alone. Lookups and updates cost the logarithm of the number of entries.
// Absence: a missing entry and an entry without a value are different things: storing only a
//          default flag makes an entry whose value is unknown.
// Errors:  none.
// Threads: any thread may call anything; one mutex is held for one map operation at a time, never
//          while something else is called. The one exception is what getConfigValue returns.
// Owns:    its records. What it hands out is a copy, save the position of getConfigValue.
//
//   AppConfig::ConfigCache cache;
//   cache.update(ConfigVar("net", 0, "mtu", 0), {"1500"});
//   std::list<std::string> value;
//   if (cache.copyValue(ConfigVar("NET", 0, "MTU", 0), value)) ...  // {"1500"}
#pragma once

#include <pthread.h>

#include <list>
#include <map>
#include <string>
#include <vector>

#include "appconfig/cache/config_value.h"
#include "appconfig/core/config_var.h"

namespace AppConfig {

class ConfigCache {
 public:
  using Position = std::map<ConfigVar, ConfigValue>::iterator;

  ConfigCache();
  // No other thread may still be using the cache.
  ~ConfigCache();
  ConfigCache(const ConfigCache&) = delete;
  ConfigCache& operator=(const ConfigCache&) = delete;

  // Forgets everything.
  void reset();

  // Removes every entry whose group contains the text anywhere, and says how many those were.
  // "net" also removes "subnet" and "a.net.b"; groups are lower case, so a text with an upper-case
  // letter removes nothing; the empty text removes everything.
  unsigned int removeVars(std::string text);

  // Where the entry is, or end(); never creates one. The lock is gone when this returns: reading
  // the record is safe only while no other thread updates or removes that variable. With other
  // threads about, use the copying reads below.
  Position getConfigValue(ConfigVar var);
  // Stays the same for the life of the cache.
  Position end() { return entries_.end(); }

  // Reads that copy under the lock. False, and out untouched, when there is no entry; copyValue
  // and copyFirstString also when the entry has no value.
  bool copyValue(const ConfigVar& var, std::list<std::string>& out) const;
  bool copyFirstString(const ConfigVar& var, std::string& out) const;
  bool copyRecord(const ConfigVar& var, ConfigValue& out) const;

  // Each changes one part of the variable's record, leaves the others as they are, creates the
  // entry when it is missing, and returns a copy of the record as it is after the change.
  ConfigValue update(ConfigVar var, std::list<std::string> value);
  ConfigValue updateIsDefault(ConfigVar var, bool isDefault);
  ConfigValue updateOptionDefaultIndex(ConfigVar var, unsigned int index);
  // The default index stays, even past the new end: it is announced apart.
  ConfigValue updateOptions(ConfigVar var, std::vector<std::string> options);
  // Takes only the roles that levels says are set.
  ConfigValue updateAccessLevels(ConfigVar var, const ConfigAccessLevels& levels);

  // update and updateIsDefault for whoever has no use for the record: nothing is copied but the
  // value, and the key when there is no entry yet.
  void store(const ConfigVar& var, const std::list<std::string>& value);
  void storeIsDefault(const ConfigVar& var, bool isDefault);

 private:
  std::map<ConfigVar, ConfigValue> entries_;
  // Guards entries_. Taken last: nothing is called and no other lock is taken while it is held.
  mutable pthread_mutex_t lock_;
  // Alive only while the constructor makes lock_.
  pthread_mutexattr_t lockAttributes_;
};

}  // namespace AppConfig
