// ConfigRegistrar: which handlers want to hear about which variables.
//
// Shape:   consumers are registered per variable and callback type, providers per variable. The
//          registration (group "net", name "mtu") is for one variable, every instance of it and
//          every namespace. With an empty name it is for the whole group: "net" covers "net",
//          "net.eth0" and all below, but not "network".
// Markers: a null handler is a marker: somebody is interested without a handler to call. Markers
//          count as registered and are never returned for calling.
// Order:   a lookup returns the handlers of the variable itself, then those of its groups, the
//          outermost group first, each in the order of registration. A handler registered twice is
//          returned twice.
// Absence: nothing registered is an empty list.
// Errors:  none.
// Threads: any thread may call anything; operations are carried out one at a time. Lookups return
//          copies, so a handler may unregister itself while it is being called. A handler that is
//          unregistered by another thread may still be called by a dispatch that had looked it up;
//          one whose registration was ended is not (endRegistration).
// Owns:    no handler: the application unregisters a handler before it deletes it.
// Cost:    a lookup grows with the number of dots in the variable's names and the logarithm of
//          the number of registrations.
//
//   registrar.registerHandler(ConfigVar("net", 0, "", 0), &logger, ConfigRegistrar::eValueChanged);
//   registrar.getHandlers("Net.Eth0", "MTU", ConfigRegistrar::eValueChanged);  // {&logger}
//   registrar.getHandlers("network", "mtu", ConfigRegistrar::eValueChanged);   // {}
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <string>

#include "appconfig/core/config_var.h"
#include "base/mutex.h"

class ConsumerConfigHandler;
class ProviderConfigHandler;

class ConfigRegistrar {
 public:
  // What a consumer hears about. The numbers never change; they are not the wire's.
  enum ConsumerCallbackType : std::int32_t {
    eValueChanged = 0,
    eAttributeChanged = 1,
    eOptionsChanged = 2,
    eSubmit = 3,
    eAccessLevelsChanged = 4,
  };

  // Handlers in order of registration, markers among them. A key is the one that was registered
  // first of all that share its two names.
  template <typename T>
  using HandlerMap = std::map<ConfigVar, std::list<T*>, CfgHandlerLookup>;

  ConfigRegistrar() = default;
  ConfigRegistrar(const ConfigRegistrar&) = delete;
  ConfigRegistrar& operator=(const ConfigRegistrar&) = delete;

  // Adds the handler behind those that are there; null adds a marker.
  void registerHandler(const ConfigVar& var, ProviderConfigHandler* handler);
  void registerHandler(const ConfigVar& var, ConsumerConfigHandler* handler,
                       ConsumerCallbackType type);

  // Removes every registration of the handler for exactly these two names; null removes the
  // markers. False when there was none. Others may still be registered: ask below.
  bool unregisterHandler(const ConfigVar& var, ConsumerConfigHandler* handler,
                         ConsumerCallbackType type);
  bool unregisterHandler(const ConfigVar& var, ProviderConfigHandler* handler);

  // Removes one registration of the handler for these names and no more, on behalf of whoever owns it.
  // From then on no walk that had looked it up calls it any more (internal/handler_walk.h); a call that
  // has begun goes on. False when there was none.
  bool endRegistration(const ConfigVar& var, ConsumerConfigHandler* handler,
                       ConsumerCallbackType type);
  bool endRegistration(const ConfigVar& var, ProviderConfigHandler* handler);

  // Whether anything covers the variable: handlers, markers and groups all count.
  bool isHandlerRegistered(const ConfigVar& var, ConsumerCallbackType type);
  bool isProviderHandlerRegistered(const ConfigVar& var);

  // How often something was unregistered at any registrar so far: while the number stays the same,
  // what covered a variable goes on doing so.
  static unsigned unregistrations();

  // The handlers to call. Names may be in any case.
  std::list<ConsumerConfigHandler*> getHandlers(const std::string& group, const std::string& name,
                                                ConsumerCallbackType type);
  std::list<ProviderConfigHandler*> getProviderHandlers(const std::string& group,
                                                        const std::string& name);

  // The lookup behind the operations above, on any map of handlers, one of the caller's own
  // included; the caller sees to it that no other thread changes that map other than through a
  // registrar. Names are compared joined by a dot, so that (group "a", name "b.c") and (group
  // "a.b", name "c") find each other.
  template <typename T>
  std::list<T*> getHandlers(const ConfigVar& var, HandlerMap<T>& handlers, bool includeMarkers);

 private:
  friend struct RegistrarAtFork;

  // Serialises every operation of every registrar. One for the process, so that it is no part of a
  // registrar's layout; registrations are rare and lookups are short. Held for work on the maps alone:
  // no handler is called and no other lock is taken while it is held.
  static Base::Mutex mutex_;
  std::map<ConsumerCallbackType, HandlerMap<ConsumerConfigHandler>> consumerHandlers_
      APPCONFIG_GUARDED_BY(mutex_);
  HandlerMap<ProviderConfigHandler> providerHandlers_ APPCONFIG_GUARDED_BY(mutex_);
};

extern template std::list<ConsumerConfigHandler*> ConfigRegistrar::getHandlers(
    const ConfigVar& var, HandlerMap<ConsumerConfigHandler>& handlers, bool includeMarkers);
extern template std::list<ProviderConfigHandler*> ConfigRegistrar::getHandlers(
    const ConfigVar& var, HandlerMap<ProviderConfigHandler>& handlers, bool includeMarkers);
