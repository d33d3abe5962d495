// registerHandler, unregisterHandler, unregisterAllHandlers: how an application registers its
// handlers.
//
// Shape:   a group and a name, in any case, stand for every instance of that variable. Without a
//          name, or with an empty one, a handler is registered for every variable of the group and
//          of the groups below it. A consumer hears of everything; a provider is asked both of its
//          questions. A handler registered twice is called twice, and unregistered in one go.
// Facade:  the handler belongs to the service of the given facade; null is
//          AppCfgManager::getInstance(). A handler registered over one facade hears nothing of the
//          other's service.
// Errors:  none is reported. A null handler is not registered. Where the service refuses or is
//          away, the handler is registered in this process all the same.
// Threads: any; registering may wait for the service.
// Owns:    nothing: the application keeps a handler alive until it has unregistered it and no call of it
//          can be running or about to. Nothing here tells when that is: a handler that is to be
//          destroyed while notices come is registered by a Subscription (subscription.h) instead.
// Order:   register a consumer first and read afterwards: a change before the read is in what is
//          read, and a later one is told. The other way round, one in between may be in neither.
//
//   registerHandler("net.eth", "mtu", &watcher);
//   registerHandler("net", &logger);                 // net, net.eth and all below; not "network"
//   unregisterHandler("net.eth", "mtu", &watcher);   // &logger still hears of it
#pragma once

#include <string>

#include "appconfig/core/export.h"

class ConsumerConfigHandler;
class ProviderConfigHandler;

namespace AppConfig {
class AppCfgManager;
}

// Registers a consumer of a variable.
APPCONFIG_EXPORT void registerHandler(std::string group, std::string name,
                                      ConsumerConfigHandler* handler,
                                      AppConfig::AppCfgManager* manager = nullptr);
// Registers a provider of a variable.
APPCONFIG_EXPORT void registerHandler(std::string group, std::string name,
                                      ProviderConfigHandler* handler,
                                      AppConfig::AppCfgManager* manager = nullptr);
// Registers a consumer of a group.
APPCONFIG_EXPORT void registerHandler(std::string group, ConsumerConfigHandler* handler,
                                      AppConfig::AppCfgManager* manager = nullptr);
// Registers a provider of a group.
APPCONFIG_EXPORT void registerHandler(std::string group, ProviderConfigHandler* handler,
                                      AppConfig::AppCfgManager* manager = nullptr);

// Undoes exactly the registration made with the same names. The service goes on sending; nobody is
// called. A null consumer removes the library's own interest in the variable, so that the next
// read of it registers for changes anew.
APPCONFIG_EXPORT void unregisterHandler(std::string group, std::string name,
                                        ConsumerConfigHandler* handler,
                                        AppConfig::AppCfgManager* manager = nullptr);
// Undoes the same for a provider. Here null removes nothing that the library itself registers.
APPCONFIG_EXPORT void unregisterHandler(std::string group, std::string name,
                                        ProviderConfigHandler* handler,
                                        AppConfig::AppCfgManager* manager = nullptr);
// Undoes a consumer's registration for a group.
APPCONFIG_EXPORT void unregisterHandler(std::string group, ConsumerConfigHandler* handler,
                                        AppConfig::AppCfgManager* manager = nullptr);
// Undoes a provider's registration for a group.
APPCONFIG_EXPORT void unregisterHandler(std::string group, ProviderConfigHandler* handler,
                                        AppConfig::AppCfgManager* manager = nullptr);

// Takes back, at the service, everything that this client asked to be told. Handlers stay
// registered in this process; the cache learns of no change any more, so this is for a program that
// is about to end.
APPCONFIG_EXPORT void unregisterAllHandlers(AppConfig::AppCfgManager* manager = nullptr);
