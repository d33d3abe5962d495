// The one file of this folder that includes service and manager: applications name a facade, and
// the handlers are kept by the link below it. The registry itself knows neither, so the target of
// this file is one of its own.

#include "appconfig/registry/registration.h"

#include "appconfig/manager/app_cfg_manager.h"
#include "appconfig/registry/internal/handler_walk.h"
#include "appconfig/registry/subscription.h"
#include "appconfig/service/platform_cfg_service.h"

using AppConfig::AppCfgManager;
using AppConfig::PlatformCfgService;

namespace {

PlatformCfgService& linkOf(AppCfgManager* manager) {
  if (!manager) manager = AppCfgManager::getInstance();
  return *manager->getPlatformCfgService();
}

// A null entry would be taken for the library's own interest in the variable.
template <typename Handler>
void registerUnlessNull(const std::string& group, const std::string& name, Handler* handler,
                        AppCfgManager* manager) {
  if (handler) linkOf(manager).registerHandler(group, name, handler);
}

}  // namespace

// Strings by value are part of the binary interface.
// NOLINTBEGIN(performance-unnecessary-value-param)

void registerHandler(std::string group, std::string name, ConsumerConfigHandler* handler,
                     AppCfgManager* manager) {
  registerUnlessNull(group, name, handler, manager);
}

void registerHandler(std::string group, std::string name, ProviderConfigHandler* handler,
                     AppCfgManager* manager) {
  registerUnlessNull(group, name, handler, manager);
}

void registerHandler(std::string group, ConsumerConfigHandler* handler, AppCfgManager* manager) {
  registerHandler(std::move(group), std::string(), handler, manager);
}

void registerHandler(std::string group, ProviderConfigHandler* handler, AppCfgManager* manager) {
  registerHandler(std::move(group), std::string(), handler, manager);
}

void unregisterHandler(std::string group, std::string name, ConsumerConfigHandler* handler,
                       AppCfgManager* manager) {
  linkOf(manager).unregisterHandler(group, name, handler);
}

void unregisterHandler(std::string group, std::string name, ProviderConfigHandler* handler,
                       AppCfgManager* manager) {
  linkOf(manager).unregisterHandler(group, name, handler);
}

void unregisterHandler(std::string group, ConsumerConfigHandler* handler, AppCfgManager* manager) {
  unregisterHandler(std::move(group), std::string(), handler, manager);
}

void unregisterHandler(std::string group, ProviderConfigHandler* handler, AppCfgManager* manager) {
  unregisterHandler(std::move(group), std::string(), handler, manager);
}

void unregisterAllHandlers(AppCfgManager* manager) { linkOf(manager).unregisterAllCallbacks(); }

// NOLINTEND(performance-unnecessary-value-param)

namespace AppConfig {

// One of the handlers is null.
struct Subscription::Registration {
  PlatformCfgService& link;
  ConfigVar key;
  ConsumerConfigHandler* consumer;
  ProviderConfigHandler* provider;
};

Subscription::Registration* Subscription::begin(const std::string& group, const std::string& name,
                                                ConsumerConfigHandler* handler,
                                                AppCfgManager* manager) {
  if (handler == nullptr) return nullptr;
  PlatformCfgService& link = linkOf(manager);
  link.registerHandler(group, name, handler);
  return new Registration{link, ConfigVar(group, 0, name, 0), handler, nullptr};
}

Subscription::Registration* Subscription::begin(const std::string& group, const std::string& name,
                                                ProviderConfigHandler* handler,
                                                AppCfgManager* manager) {
  if (handler == nullptr) return nullptr;
  PlatformCfgService& link = linkOf(manager);
  link.registerHandler(group, name, handler);
  return new Registration{link, ConfigVar(group, 0, name, 0), nullptr, handler};
}

void Subscription::end(Registration* registration) noexcept {
  const auto& [link, key, consumer, provider] = *registration;
  if (consumer != nullptr) {
    link.endHandler(key, consumer);
    HandlerWalk::waitForCalls(consumer);
  } else {
    link.endHandler(key, provider);
    HandlerWalk::waitForCalls(provider);
  }
  delete registration;
}

}  // namespace AppConfig
