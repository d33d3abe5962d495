// AppCfgManager: the one object through which an application reads and changes configuration.
//
// Instances: getInstance() is what most applications need. getLocalCfgManager() is the facade over
//            the device's own service; the two are the same until changePrimaryConfigService. Each
//            has a cache of its own; neither is ever destroyed.
// Start-up:  give the facade its messaging endpoint (setPbInterface), set the role if "user" is not
//            enough, register handlers (appconfig/registry/registration.h). Requests made before
//            there is an endpoint fail.
// Keys:      a ConfigVar, or its parts in their order: group, group instance, name, name instance.
//            By parts the namespace is 0. Case does not matter. A facade caches values of namespace
//            0 and of its service's own, both in one entry; those of any other are always asked
//            for.
// Values:    lists of strings; a single value is a list of one.
// Absence:   an unknown variable, a role that is too low, a service that is away and a value
//            that is empty all read as "" (0, false); readWithReason (reading.h) tells them apart. A
//            write with a ConfigResult tells why it failed, when the service answered; of one without,
//            nobody tells whether it was accepted.
// Errors:    returned, never thrown. Nothing is retried: the next call simply asks again.
// Threads:   any thread may call anything, handlers included. Requests block their caller for as
//            long as the endpoint waits. What a thread has read, or has written and was told is
//            accepted, is never followed in any thread by something older, whatever order answers
//            and notices come in (save what the application stores itself, and a service that
//            begins a new epoch). A message layer that does not tell how new a value is leaves the
//            order of arrival: then, when two requests about one variable finish with different
//            values, the value is forgotten and asked for again.
// Owns:      its cache. Not the endpoint and no handler; both must outlive their use.
//
//   AppConfig::AppCfgManager* config = AppConfig::AppCfgManager::getInstance();
//   config->setPbInterface(&endpoint);
//   int mtu = config->getConfigVarInt("net.eth", 0, "mtu", 0);      // asks the service
//   mtu = config->getConfigVarInt("Net.Eth", 0, "MTU", 0);          // from the cache
//   ConfigResult result;
//   if (!config->setConfigVar("net.eth", 0, "mtu", 0, 9000, &result)) report(result);
//
// Not so: a write without a ConfigResult waits for nothing, so a read right after it still gives
// the old value.
#pragma once

#include <atomic>
#include <list>
#include <string>
#include <utility>
#include <vector>

#include "appconfig/cache/config_cache.h"
#include "appconfig/cache/config_value.h"
#include "appconfig/core/config_result.h"
#include "appconfig/core/config_var.h"
#include "appconfig/core/error.h"
#include "appconfig/core/export.h"
#include "appconfig/core/security_role.h"
#include "appconfig/manager/value_text.h"

namespace PbUtility {
class PbUtils;
}

namespace AppConfig {

class PlatformCfgService;
struct ReadEnd;
struct Reading;
struct StateStamp;

class APPCONFIG_EXPORT AppCfgManager {
 public:
  // --- Instances and set-up ---

  // A facade over a service link, which it does not own, with an empty cache. Applications use the
  // instances below.
  explicit AppCfgManager(PlatformCfgService* service);
  // Leaves the link as it is. Nobody else may still be using the facade.
  virtual ~AppCfgManager();
  AppCfgManager(const AppCfgManager&) = delete;
  AppCfgManager& operator=(const AppCfgManager&) = delete;

  // The primary facade, made by the first call: the local one, until changePrimaryConfigService.
  static AppCfgManager* getInstance();
  // The facade over the device's own service, made by the first call.
  static AppCfgManager* getLocalCfgManager();

  // From now on getInstance() is a new facade, with an empty cache, over the service of this
  // namespace. serviceLink and selfLink are the prefixes of the service's and of this client's
  // endpoint name; pb may be null and attached later. Works once in the life of a process: false,
  // and nothing changed, after that.
  static bool changePrimaryConfigService(int nameSpace, const std::string& serviceLink,
                                         const std::string& selfLink, PbUtility::PbUtils* pb);

  // The link to the service that this facade asks.
  PlatformCfgService* getPlatformCfgService() const { return service_; }

  // Role of all requests from now on; returns the previous one. eRoleUser at first.
  SecurityRole setSecurityRole(SecurityRole role);

  // The endpoint to send through. Null is ignored; keep it alive as long as the process uses the
  // library.
  void setPbInterface(PbUtility::PbUtils* pb);

  // Forgets every cached variable whose group contains the text, and says how many those were. Case
  // matters, and groups are lower case; the empty text forgets all. The service is not asked.
  unsigned int removeVars(std::string text);

  // --- Reads: from the cache when it holds a value, otherwise from the service ---

  // Where the variable is in the cache; the cache's end when it is not there or is of a namespace
  // that is never cached. Reading the record there is safe only while nobody else uses the facade;
  // with other threads about, use getConfigVar or getConfigValue.
  ConfigCache::Position retrieveConfigVar(const ConfigVar& var);

  // Replaces out by the value and returns a copy of it. {""} when there is none; that is not
  // cached, so the next read asks again.
  std::list<std::string> getConfigVar(const ConfigVar& var, std::list<std::string>& out);
  // The same, by parts.
  std::list<std::string> getConfigVar(const std::string& group, int groupInstance,
                                      const std::string& name, int nameInstance,
                                      std::list<std::string>& out);
  // The first string of the value, "" when there is none.
  std::string getConfigVar(const ConfigVar& var);
  // The first string, by parts.
  std::string getConfigVar(const std::string& group, int groupInstance, const std::string& name,
                           int nameInstance);

  // The number that the first string begins with: "0x1F" is 31, "010" is 8, "12abc" is 12, "abc" is
  // 0. What does not fit is the nearest 32-bit number. 0 when there is no value.
  int getConfigVarInt(const ConfigVar& var);
  // The number, by parts.
  int getConfigVarInt(const std::string& group, int groupInstance, const std::string& name,
                      int nameInstance);

  // Whether the first string is "true", in any case. "1", "yes" and " true" are not.
  bool getConfigVarBool(const ConfigVar& var);
  // The same, by parts.
  bool getConfigVarBool(const std::string& group, int groupInstance, const std::string& name,
                        int nameInstance);

  // Whether the variable holds its default, as far as the cache knows; a variable that is not
  // cached is read first. True when it cannot be read.
  bool isDefault(const std::string& group, int groupInstance, const std::string& name,
                 int nameInstance);

  // All that is known of the variable, after value, access levels and options have been loaded as
  // far as they were missing. A record without anything when the variable cannot be read.
  ConfigValue getConfigValue(const std::string& group, int groupInstance, const std::string& name,
                             int nameInstance);

  // --- Writes that wait for nothing ---

  // They hand the request over. True when the message layer took it; the service may still refuse, and
  // then nobody is told: to know, and to know why not, write with a ConfigResult. The cached value
  // stays what it was until the service announces the change.

  // Writes all elements of the value.
  bool setConfigVar(const ConfigVar& var, const std::list<std::string>& value);
  // Writes the number in decimals.
  bool setConfigVar(const ConfigVar& var, int value);
  // Writes "true" or "false".
  bool setConfigVar(const ConfigVar& var, bool value);
  // Writes one text, which must not be null.
  bool setConfigVar(const ConfigVar& var, const char* value);
  // Writes one text.
  bool setConfigVar(const ConfigVar& var, const std::string& value);
  // Writes all elements of the value, by parts.
  bool setConfigVar(const std::string& group, int groupInstance, const std::string& name,
                    int nameInstance, const std::list<std::string>& value);
  // Writes the number in decimals, by parts.
  bool setConfigVar(const std::string& group, int groupInstance, const std::string& name,
                    int nameInstance, int value);
  // Writes "true" or "false", by parts.
  bool setConfigVar(const std::string& group, int groupInstance, const std::string& name,
                    int nameInstance, bool value);
  // Writes one text, which must not be null, by parts.
  bool setConfigVar(const std::string& group, int groupInstance, const std::string& name,
                    int nameInstance, const char* value);
  // Writes one text, by parts.
  bool setConfigVar(const std::string& group, int groupInstance, const std::string& name,
                    int nameInstance, const std::string& value);
  // Writes an integer of any other width in decimals. What has no one text does not compile
  // (value_text.h).
  template <typename T, typename = IfNotPlain<T>>
  bool setConfigVar(const ConfigVar& var, T value) {
    return setConfigVar(var, textOf(value));
  }
  // The same, by parts.
  template <typename T, typename = IfNotPlain<T>>
  bool setConfigVar(const std::string& group, int groupInstance, const std::string& name,
                    int nameInstance, T value) {
    return setConfigVar(group, groupInstance, name, nameInstance, textOf(value));
  }

  // --- Writes that wait for the service's verdict ---

  // True when the value was accepted; it is then cached, with the default flag as it was. The
  // result, which may be null, tells why a value was refused; it is untouched when the service did
  // not answer.

  // Writes all elements of the value.
  bool setConfigVar(const ConfigVar& var, const std::list<std::string>& value,
                    ConfigResult* result);
  // Writes the number in decimals.
  bool setConfigVar(const ConfigVar& var, int value, ConfigResult* result);
  // Writes "True" or "False".
  bool setConfigVar(const ConfigVar& var, bool value, ConfigResult* result);
  // Writes one text, which must not be null.
  bool setConfigVar(const ConfigVar& var, const char* value, ConfigResult* result);
  // Writes one text.
  bool setConfigVar(const ConfigVar& var, const std::string& value, ConfigResult* result);
  // Writes all elements of the value, by parts.
  bool setConfigVar(const std::string& group, int groupInstance, const std::string& name,
                    int nameInstance, const std::list<std::string>& value, ConfigResult* result);
  // Writes the number in decimals, by parts.
  bool setConfigVar(const std::string& group, int groupInstance, const std::string& name,
                    int nameInstance, int value, ConfigResult* result);
  // Writes "True" or "False", by parts.
  bool setConfigVar(const std::string& group, int groupInstance, const std::string& name,
                    int nameInstance, bool value, ConfigResult* result);
  // Writes one text, which must not be null, by parts.
  bool setConfigVar(const std::string& group, int groupInstance, const std::string& name,
                    int nameInstance, const char* value, ConfigResult* result);
  // Writes one text, by parts.
  bool setConfigVar(const std::string& group, int groupInstance, const std::string& name,
                    int nameInstance, const std::string& value, ConfigResult* result);
  // Writes an integer of any other width in decimals, as above.
  template <typename T, typename = IfNotPlain<T>>
  bool setConfigVar(const ConfigVar& var, T value, ConfigResult* result) {
    return setConfigVar(var, textOf(value), result);
  }
  // The same, by parts.
  template <typename T, typename = IfNotPlain<T>>
  bool setConfigVar(const std::string& group, int groupInstance, const std::string& name,
                    int nameInstance, T value, ConfigResult* result) {
    return setConfigVar(group, groupInstance, name, nameInstance, textOf(value), result);
  }

  // Whether the service would accept the value. Changes nothing; result as for a write that waits.
  bool isValid(const ConfigVar& var, const std::list<std::string>& value, ConfigResult* result);
  // The same, by parts.
  bool isValid(const std::string& group, int groupInstance, const std::string& name,
               int nameInstance, const std::list<std::string>& value, ConfigResult* result);

  // Whether the service went back to the default. The cached value stays what it was until the
  // service announces the change.
  bool resetValue(const std::string& group, int groupInstance, const std::string& name,
                  int nameInstance);

  // --- Options: the values that a variable may take ---

  // A ConfigVar with a namespace has its options in a cached entry of their own, apart from its
  // value, and notices do not reach that entry. By parts there is one entry for all.

  // Replaces out by the options and returns it. From the cache when it knows them, an empty list
  // included.
  std::vector<std::string>& getConfigOptions(const ConfigVar& var, std::vector<std::string>& out);
  // The same, by parts.
  std::vector<std::string>& getConfigOptions(const std::string& group, int groupInstance,
                                             const std::string& name, int nameInstance,
                                             std::vector<std::string>& out);
  // The same, but appends to out.
  void getConfigOptions(const std::string& group, int groupInstance, const std::string& name,
                        int nameInstance, std::list<std::string>& out);

  // Position of the default option. A variable that is not cached has its value and options read
  // first; one that is cached answers with what it has, 0 when its options were never read. So an
  // unknown variable's index is 0 too. False, and index untouched, only when the variable was
  // removed from the cache in the meantime.
  bool getConfigOptionDefaultIndex(const ConfigVar& var, unsigned int& index);
  // The same, by parts.
  bool getConfigOptionDefaultIndex(const std::string& group, int groupInstance,
                                   const std::string& name, int nameInstance, unsigned int& index);

  // Appends the options of the variable's definition to out and returns it. Always asks the
  // service; of the answer only the default index is cached.
  std::vector<std::string>& getConfigDefaultOptions(const std::string& group, int groupInstance,
                                                    const std::string& name, int nameInstance,
                                                    std::vector<std::string>& out);

  // Whether the service accepted the options. The default index stays as it is. The cached options
  // stay what they were until the service announces the change.
  bool setConfigOptions(const std::string& group, int groupInstance, const std::string& name,
                        int nameInstance, const std::vector<std::string>& options);
  // The same, with a default index, which is cached at once when the service accepted.
  bool setConfigOptions(const std::string& group, int groupInstance, const std::string& name,
                        int nameInstance, const std::vector<std::string>& options,
                        unsigned int defaultIndex);

  // --- Access levels: the roles that reading and writing a variable take ---

  // From the cache when it knows both roles. Either pointer may be null. False, and neither
  // written, when the variable or its roles cannot be read.
  bool getAccessLevels(const ConfigVar& var, SecurityRole* readRole, SecurityRole* writeRole);
  // The same, by parts.
  bool getAccessLevels(const std::string& group, int groupInstance, const std::string& name,
                       int nameInstance, SecurityRole* readRole, SecurityRole* writeRole);

  // In the changes below a role that is null is not changed, and the cached roles stay what they
  // were until the service announces the change.

  // Changes the roles of all these variables and waits for nothing: true when the message layer
  // took the request.
  bool setAccessLevels(const std::list<ConfigVar>& vars, const SecurityRole* readRole,
                       const SecurityRole* writeRole);
  // Changes the roles of all these variables and waits: whether the service accepted all of it.
  // Appends to errors one code for each variable that the service answered for, successful ones
  // included.
  bool setAccessLevels(const std::list<ConfigVar>& vars, const SecurityRole* readRole,
                       const SecurityRole* writeRole,
                       std::list<std::pair<ConfigVar, eErrorT>>& errors);
  // Changes the roles of one variable and waits for nothing.
  bool setAccessLevels(const ConfigVar& var, const SecurityRole* readRole,
                       const SecurityRole* writeRole);
  // Changes the roles of one variable and waits. error becomes the first code that the service
  // answered with, eErrNone when there was none.
  bool setAccessLevels(const ConfigVar& var, const SecurityRole* readRole,
                       const SecurityRole* writeRole, eErrorT& error);
  // Changes the roles of one variable, by parts, and waits for nothing.
  bool setAccessLevels(const std::string& group, int groupInstance, const std::string& name,
                       int nameInstance, const SecurityRole* readRole,
                       const SecurityRole* writeRole);
  // Changes the roles of one variable, by parts, and waits; error as above.
  bool setAccessLevels(const std::string& group, int groupInstance, const std::string& name,
                       int nameInstance, const SecurityRole* readRole,
                       const SecurityRole* writeRole, eErrorT& error);

  // Hides variables from users: read role eRoleService, the write role as it was. Waits; errors as
  // for setAccessLevels.
  bool setAccessHidden(const std::list<ConfigVar>& vars,
                       std::list<std::pair<ConfigVar, eErrorT>>& errors);
  // Hides one variable.
  bool setAccessHidden(const ConfigVar& var, eErrorT& error);
  // Hides one variable, by parts.
  bool setAccessHidden(const std::string& group, int groupInstance, const std::string& name,
                       int nameInstance, eErrorT& error);
  // Makes variables read-only: write role eRoleFactory, the read role as it was. Waits; errors as
  // for setAccessLevels.
  bool setAccessReadOnly(const std::list<ConfigVar>& vars,
                         std::list<std::pair<ConfigVar, eErrorT>>& errors);
  // Makes one variable read-only.
  bool setAccessReadOnly(const ConfigVar& var, eErrorT& error);
  // Makes one variable read-only, by parts.
  bool setAccessReadOnly(const std::string& group, int groupInstance, const std::string& name,
                         int nameInstance, eErrorT& error);

  // --- Stores: what the service announced goes into the cache. The service is not asked ---

  // Stores a value; nothing for a variable of a namespace that is never cached. Storing the empty
  // list makes the value unknown.
  void updateConfigVar(const ConfigVar& var, std::list<std::string> value);
  // Stores whether the value is the default; nothing for a variable of a namespace that is never
  // cached.
  void updateIsDefault(const ConfigVar& var, bool isDefault);
  // Stores the options. The default index stays as it is.
  void updateConfigVarOptions(const std::string& group, int groupInstance, const std::string& name,
                              int nameInstance, std::list<std::string> options);
  // Stores the roles that levels says are set, and leaves the others as they were.
  void updateConfigVarAccessLevels(const std::string& group, int groupInstance,
                                   const std::string& name, int nameInstance,
                                   const ConfigAccessLevels& levels);

 private:
  // Stores what the service announces.
  friend class PlatformCfgService;
  friend bool readFresh(const ConfigVar& var, std::list<std::string>& value,
                        AppCfgManager* manager);
  friend Reading readWithReason(const ConfigVar& var, AppCfgManager* manager);

  APPCONFIG_LOCAL bool isCacheable(const ConfigVar& var) const;
  APPCONFIG_LOCAL bool copyCachedValue(const ConfigVar& var, std::list<std::string>& out) const;
  APPCONFIG_LOCAL bool copyCachedFirstString(const ConfigVar& var, std::string& out) const;
  // Empty when the service has no value for us.
  APPCONFIG_LOCAL std::list<std::string> askForValue(const ConfigVar& var, ReadEnd& end);
  // {""} then.
  APPCONFIG_LOCAL std::list<std::string> readFromService(const ConfigVar& var);
  APPCONFIG_LOCAL std::string firstString(const ConfigVar& var);
  // The record, after a value read when there is none yet; false when there is none then either.
  APPCONFIG_LOCAL bool copyRecordAfterRead(const ConfigVar& key, ConfigValue& out);
  APPCONFIG_LOCAL unsigned int cachedDefaultIndex(const ConfigVar& key) const;
  APPCONFIG_LOCAL bool loadAccessLevels(const ConfigVar& var, ConfigAccessLevels& levels);

  // What a notice tells goes into the cache, unless something newer is there. A null flag or index
  // is one that the notice does not tell.
  APPCONFIG_LOCAL void takeAnnounced(const ConfigVar& var, const std::list<std::string>& value,
                                     const bool* isDefault, const StateStamp& stamp);
  APPCONFIG_LOCAL void takeAnnouncedOptions(const ConfigVar& var,
                                            const std::list<std::string>& options,
                                            const unsigned int* defaultIndex,
                                            const StateStamp& stamp);
  APPCONFIG_LOCAL void takeAnnouncedLevels(const ConfigVar& var, ConfigAccessLevels levels,
                                           const StateStamp& stamp);
  // A value that is about to be committed, while the state of the stamp still holds.
  APPCONFIG_LOCAL void takeTentative(const ConfigVar& var, const std::list<std::string>& value,
                                     const StateStamp& held);

  APPCONFIG_LOCAL static std::atomic<AppCfgManager*> ms_instance;
  APPCONFIG_LOCAL static std::atomic<AppCfgManager*> ms_localInstance;

  ConfigCache cache_;
  PlatformCfgService* const service_;
};

}  // namespace AppConfig
