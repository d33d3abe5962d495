// PlatformCfgService: the link to one configuration service: who the client is to the service, the
// requests, the registration of callbacks, and the receivers of the service's messages.
//
// Internal to the library: applications use AppCfgManager and the functions of registration.h.
//
// Instances: A process has the local link (namespace 0, no prefixes), made on first use, and the
//            primary link, which is the local one until changePrimaryConfigService replaces it,
//            once. Neither is ever destroyed, so a pointer to one stays good.
// Names:     The service's endpoint is the link to config, "/" and "ConfigSrvc"; the client calls
//            itself by the link to self, "/" and the endpoint's own name. An empty prefix leaves
//            the last part alone; a prefix that ends in "/" gets no second one.
// Namespace: A link of namespace 0 sends a key with the key's own namespace, every other link with
//            its own. resetValue, getConfigOptions, setConfigOptions and getConfigDefaultOptions
//            always send the key's own: services are written against these requests, so the
//            difference has to stay.
// Absence:   A refused value, an unknown variable, a failed send and a missing endpoint look the
//            same: an empty list or false, out arguments as they were. Only the operations with a
//            ConfigResult tell more, when the service answered. Nothing is retried or printed.
// Threads:   Any thread may call anything, also from inside a receiver or a handler. A request
//            blocks its caller until the endpoint's sendWaitResponse returns. No lock is held
//            while the message layer or a handler runs. Receivers, and with them all handlers,
//            run on the endpoint's delivery thread.
// Owns:      copies of its strings. Neither the endpoint nor handlers: they outlive their use.
//
//   PlatformCfgService* link = PlatformCfgService::getLocalCfgService();
//   link->setPbInterface(&endpoint);
//   bool isDefault = false;
//   link->getConfigVar(ConfigVar("net", 0, "mtu", 0), isDefault);  // {"1500"}, and from now on
//                                                                  // changes are announced
//   link->isValid("net", 0, "mtu", 0, {"-1"}, nullptr);            // false; registers nothing
#pragma once

#include <atomic>
#include <list>
#include <string>
#include <utility>

#include "appconfig/core/config_result.h"
#include "appconfig/core/config_var.h"
#include "appconfig/core/security_role.h"
#include "appconfig/core/state_stamp.h"
#include "appconfig/registry/config_registrar.h"

struct MSG_Callback;
struct MSG_Message;

namespace PbUtility {
class PbUtils;
}

namespace google {
namespace protobuf {
class MessageLite;
}
}  // namespace google

namespace CommonIF {
enum eSecurityRole : int;
}

namespace ConfigIF {
enum CallbackType : int;
enum Scope : int;
enum SubmitType : int;
class AccessLevelChangedNtfy;
class AccessLevelsRecord;
class AttributeChangedNtfy;
class ConfigChangedNtfy;
class DynamicValidateReq;
class Inst;
class OnChangeReq;
class OptionsChangedNtfy;
class SubmitNtfy;
}  // namespace ConfigIF

namespace AppConfig {

class AppCfgManager;

// How a request for a value ended.
struct ReadEnd {
  // An empty one included.
  bool hasValue() const { return isAsked && callStatus == 0 && error == eErrNone; }

  // False without an endpoint.
  bool isAsked = false;
  // What the message layer returned: 0 when the service answered.
  int callStatus = 0;
  // The service's verdict, and its first words about it.
  eErrorT error = eErrNone;
  std::string message;
  // Whether the value is the default, and whether the service said so or not.
  bool isDefault = false;
  bool tellsDefault = false;
};

class PlatformCfgService : public ConfigRegistrar {
 public:
  // --- Construction and instances ---

  // No endpoint, role eRoleUser. The link names itself once, as "PlatCfgSvc", namespace, "-",
  // process id, "-", namespace: a name that no other process has. It is the identity under which
  // callbacks are registered and that notices have to repeat.
  PlatformCfgService(int nameSpace, const std::string& linkToConfig, const std::string& linkToSelf);

  // The primary link; the local one until changePrimaryConfigService has replaced it.
  static PlatformCfgService* getInstance();
  // The local link, made by the first call, without an endpoint.
  static PlatformCfgService* getLocalCfgService();
  // Makes a new primary link; the endpoint may be null and attached later. Null, and nothing
  // changed, when the primary has been replaced before. The local link stays as it is.
  static PlatformCfgService* changePrimaryConfigService(int nameSpace,
                                                        const std::string& linkToConfig,
                                                        const std::string& linkToSelf,
                                                        PbUtility::PbUtils* pb);

  // Sends through this endpoint from now on, makes the service known to it and adds the receivers.
  // Null and the attached endpoint are ignored. A second endpoint gets all of it too; the first
  // is told nothing, and has its receivers still when it is attached again.
  void setPbInterface(PbUtility::PbUtils* pb);

  // --- Identity ---

  int getNamespace() const { return nameSpace_; }
  const std::string& getLinkToConfig() const { return linkToConfig_; }
  const std::string& getLinkToSelf() const { return linkToSelf_; }
  // "/engine/ConfigSrvc".
  std::string getConfigFQName() const;
  // "/engine/thermostat-ui"; "" without an endpoint.
  std::string getSelfFQName() const;

  // Role of all requests from now on; returns the previous one. A role outside the five becomes
  // eRolePublic.
  SecurityRole setSecurityRole(SecurityRole role);

  // Whether a message of this namespace and scope is for this link: always, unless the scope is
  // SCOPE_NAMESPACE and the namespace another one.
  bool isMatchingNamespace(int nameSpace, ConfigIF::Scope scope) const;
  // The namespace that a request about the variable carries.
  int determineNamespace(const ConfigVar& var) const;

  // Which link, and the facade over which link, an incoming message is for, by its user data: the
  // primary's, else the local's, else null. With inst, null too for a message of another namespace.
  static PlatformCfgService* findMatchingCfgService(void* userData);
  static PlatformCfgService* findMatchingCfgService(void* userData, const ConfigIF::Inst& inst);
  static AppCfgManager* findMatchingCfgManager(void* userData);

  // Between the library's numbers and the wire's. A number outside the table has a fixed answer:
  // eRolePublic, SECURITY_ROLE_PUBLIC, CALLBACK_SUBMIT, eSubmit. A submit kind is 0 or 1.
  static SecurityRole enumTranslate(CommonIF::eSecurityRole role);
  static CommonIF::eSecurityRole enumTranslate(SecurityRole role);
  static ConfigIF::CallbackType enumTranslate(ConsumerCallbackType type);
  static ConsumerCallbackType enumTranslate(ConfigIF::CallbackType type);
  static int enumTranslate(ConfigIF::SubmitType type);

  // --- Requests about values ---

  // The value; empty on any failure, and then isDefault is as it was. Success makes sure that
  // changes of the variable are announced from now on, an empty value included.
  std::list<std::string> getConfigVar(const ConfigVar& var, bool& isDefault);
  // The same, and how new the value is: a stamp is as it was where the service tells none. So it is
  // with the other requests that have one.
  std::list<std::string> getConfigVar(const ConfigVar& var, bool& isDefault, StateStamp& stamp);
  // The same, and how the request ended, in a fresh record.
  std::list<std::string> getConfigVar(const ConfigVar& var, ReadEnd& end, StateStamp& stamp);

  // Writes without waiting: true when the message layer took the request; the service's verdict
  // stays unknown. Changes are announced from now on, even when the send failed.
  bool setConfigVar(const ConfigVar& var, std::list<std::string> value);
  // Writes and waits: whether the service accepted. The result, which may be null, is assigned
  // whenever the service answered and untouched otherwise. Acceptance makes sure that changes are
  // announced from now on.
  bool setConfigVar(const ConfigVar& var, std::list<std::string> value, ConfigResult* result);
  bool setConfigVar(const ConfigVar& var, const std::list<std::string>& value, ConfigResult* result,
                    StateStamp& stamp);

  // Whether the service would accept the value; the result as for a write. Registers nothing.
  bool isValid(const ConfigVar& var, const std::list<std::string>& value, ConfigResult* result);
  bool isValid(const std::string& group, int groupInstance, const std::string& name,
               int nameInstance, const std::list<std::string>& value, ConfigResult* result);

  // Whether the service went back to the default. Registers nothing.
  bool resetValue(const ConfigVar& var);

  // --- Requests about options ---

  // Both replace options by the service's, leave it empty on any failure, and return it. The
  // index is set on success alone. Reading the options makes sure that changes of them are
  // announced from now on; reading the default ones does not.
  std::list<std::string>& getConfigOptions(const ConfigVar& var, std::list<std::string>& options,
                                           unsigned int& defaultIndex);
  std::list<std::string>& getConfigOptions(const ConfigVar& var, std::list<std::string>& options,
                                           unsigned int& defaultIndex, StateStamp& stamp);
  std::list<std::string>& getConfigDefaultOptions(const ConfigVar& var,
                                                  std::list<std::string>& options,
                                                  unsigned int& defaultIndex);
  // Whether the service accepted. A null index stays as it is at the service.
  bool setConfigOptions(const ConfigVar& var, const std::list<std::string>& options,
                        unsigned int* defaultIndex);
  bool setConfigOptions(const ConfigVar& var, const std::list<std::string>& options,
                        unsigned int* defaultIndex, StateStamp& stamp);

  // --- Requests about access levels ---

  // Whether the service answered; the roles are set only then, and either may be null. Success
  // makes sure that changes of the roles are announced from now on.
  bool getAccessLevels(const ConfigVar& var, SecurityRole* readRole, SecurityRole* writeRole);
  bool getAccessLevels(const ConfigVar& var, SecurityRole* readRole, SecurityRole* writeRole,
                       StateStamp& stamp);
  // A null role stays as it is at the service. The first form waits for nothing and tells whether
  // the message layer took the request. The second tells whether the service accepted all of it,
  // and appends one code for each variable it answered for, successful ones included; those are
  // announced from now on.
  bool setAccessLevels(const std::list<ConfigVar>& vars, const SecurityRole* readRole,
                       const SecurityRole* writeRole);
  bool setAccessLevels(const std::list<ConfigVar>& vars, const SecurityRole* readRole,
                       const SecurityRole* writeRole,
                       std::list<std::pair<ConfigVar, eErrorT>>& errors);

  // --- Registration of callbacks ---

  // Asks the service for one sort of message about the variable, or takes that back: whether it
  // accepted. The local registry is not touched. False without an endpoint.
  bool registerCallback(const ConfigVar& var, ConfigIF::CallbackType type);
  bool unregisterCallback(const ConfigVar& var, ConfigIF::CallbackType type);
  bool unregisterChangeCallback(const ConfigVar& var);
  bool unregisterAttributeCallback(const ConfigVar& var);
  bool unregisterOptionsCallback(const ConfigVar& var);
  bool unregisterSubmitCallback(const ConfigVar& var);
  bool unregisterAccessLevelsCallback(const ConfigVar& var);
  // Takes back all of this client's callbacks at the service, without waiting; handlers stay
  // registered here. Nothing without an endpoint.
  void unregisterAllCallbacks();

  // Whether changes of this type are told to this process. Not while the service has no room for a
  // registration that covers the variable: what was read of it then is good for once. As far as the
  // message layer tells (platform/messaging/registration_refusals.h).
  bool isTold(const ConfigVar& var, ConsumerCallbackType type) const;

  // Makes sure that notices of this type come, for the library's own sake: a marker is registered
  // unless anything covers the variable already. Always true.
  bool registerHandlerProactively(ConfigVar var, ConsumerCallbackType type);
  // Registers the handler, and with the service unless something covers the variable already. The
  // handler is registered even when the service refuses: what it refuses now a restart may bring.
  void registerHandlerRequested(ConfigVar var, ConsumerConfigHandler* handler,
                                ConsumerCallbackType type);

  // A consumer is registered for all five types, a provider for both of its questions. An empty
  // name registers for the whole group.
  void registerHandler(const std::string& group, const std::string& name,
                       ConsumerConfigHandler* handler);
  void registerHandler(const std::string& group, const std::string& name,
                       ProviderConfigHandler* handler);
  // Here alone: the service goes on sending, and the cache goes on learning from its notices.
  void unregisterHandler(const std::string& group, const std::string& name,
                         ConsumerConfigHandler* handler);
  void unregisterHandler(const std::string& group, const std::string& name,
                         ProviderConfigHandler* handler);
  // Likewise here alone: ends one registration made by registerHandler, and leaves others of the same
  // handler for the same names. It is called for this one no more, once a call that runs has returned.
  void endHandler(const ConfigVar& key, ConsumerConfigHandler* handler);
  void endHandler(const ConfigVar& key, ProviderConfigHandler* handler);

  // --- Incoming messages ---

  // Called by the receivers with the parsed payload; the user data is the link's address. Returns
  // the reply that the receiver is to send, null when there is none.
  static MSG_Message* dynamicValidateHandler(const ConfigIF::DynamicValidateReq& request,
                                             const MSG_Message* message, void* userData);
  static MSG_Message* onChangeHandler(const ConfigIF::OnChangeReq& request,
                                      const MSG_Message* message, void* userData);
  // Notices are dropped silently unless they repeat the link's name exactly.
  static MSG_Message* configChangedHandler(const ConfigIF::ConfigChangedNtfy& notice,
                                           const MSG_Message* message, void* userData);
  static MSG_Message* attributeChangedHandler(const ConfigIF::AttributeChangedNtfy& notice,
                                              const MSG_Message* message, void* userData);
  static MSG_Message* optionsChangedHandler(const ConfigIF::OptionsChangedNtfy& notice,
                                            const MSG_Message* message, void* userData);
  static MSG_Message* submitHandler(const ConfigIF::SubmitNtfy& notice, const MSG_Message* message,
                                    void* userData);
  static MSG_Message* accessLevelsChangedHandler(const ConfigIF::AccessLevelChangedNtfy& notice,
                                                 const MSG_Message* message, void* userData);

 private:
  static constexpr int kReceiverRecords = 8;  // seven receivers and the record of zeros

  // The key as a request of this link carries it.
  ConfigVar keyForRequest(const ConfigVar& var) const;
  std::list<ConfigVar> keysForRequest(const std::list<ConfigVar>& vars) const;
  // Appends the code of one variable of a response and has its changes announced. A record that
  // names no variable is skipped.
  void takeAccessLevelsRecord(const ConfigIF::AccessLevelsRecord& record,
                              std::list<std::pair<ConfigVar, eErrorT>>& errors);
  // Whether something covers a variable before a request about it is sent, and how many handlers
  // had been unregistered by then: if none has been since, what covered it still does.
  struct Coverage {
    bool isRegistered;
    unsigned unregistrations;
  };
  Coverage coverageOf(const ConfigVar& var, ConsumerCallbackType type);
  // Called after an answer: makes sure that later changes are announced to the library itself. It is
  // not enough that something covered the variable when the request was sent, for that handler may
  // have been unregistered since. Nor is it enough that something covers it now but did not then:
  // its notices may begin after a change that the answer does not contain.
  void registerAfterAnswer(const ConfigVar& var, ConsumerCallbackType type, const Coverage& before);
  // Registers the library's own interest, and enters its marker whatever handlers come meanwhile:
  // the interest outlives them.
  void registerMarker(const ConfigVar& var, ConsumerCallbackType type);
  // Sends and waits. False without an endpoint and when the send failed.
  bool ask(const google::protobuf::MessageLite& request,
           google::protobuf::MessageLite* response) const;
  // Sends alone; false likewise.
  bool tell(const google::protobuf::MessageLite& request) const;

  static std::atomic<PlatformCfgService*> ms_instance;
  static std::atomic<PlatformCfgService*> ms_localInstance;
  // User data is 0 here; each link installs a copy that carries its own address.
  static const MSG_Callback msgCallbacks[kReceiverRecords];

  // Atomic, so that both can be set while requests run.
  std::atomic<PbUtility::PbUtils*> pb_;
  const std::string linkName_;
  std::atomic<CommonIF::eSecurityRole> securityRole_;
  const int nameSpace_;
  const std::string linkToConfig_;
  const std::string linkToSelf_;
};

}  // namespace AppConfig
