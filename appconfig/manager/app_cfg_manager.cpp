// The two facades of a process, and what they pass on unchanged.
//
// The instances are made under one mutex and read without it, as are those of the link.

#include "appconfig/manager/app_cfg_manager.h"

#include "appconfig/core/internal/fork_lock.h"
#include "appconfig/manager/internal/in_flight.h"
#include "appconfig/service/platform_cfg_service.h"
#include "base/mutex.h"

namespace AppConfig {

namespace {

// Guards the making of the instances and the replacing of the primary. The link's mutex of the same
// purpose is taken while it is held; the message layer is not called under it.
Base::Mutex instancesMutex;

void hold() APPCONFIG_ACQUIRE(instancesMutex) { instancesMutex.lock(); }
void release() APPCONFIG_RELEASE(instancesMutex) { instancesMutex.unlock(); }

const ForkLock atFork(ForkLock::Place::Facades, {hold, release, release});

}  // namespace

std::atomic<AppCfgManager*> AppCfgManager::ms_instance{nullptr};
std::atomic<AppCfgManager*> AppCfgManager::ms_localInstance{nullptr};

AppCfgManager::AppCfgManager(PlatformCfgService* service) : service_(service) {}

AppCfgManager::~AppCfgManager() { forgetStamps(cache_); }

AppCfgManager* AppCfgManager::getLocalCfgManager() {
  if (AppCfgManager* local = ms_localInstance) return local;
  const Base::MutexLock guard(instancesMutex);
  if (!ms_localInstance)
    ms_localInstance = new AppCfgManager(PlatformCfgService::getLocalCfgService());
  return ms_localInstance;
}

AppCfgManager* AppCfgManager::getInstance() {
  if (AppCfgManager* primary = ms_instance) return primary;
  AppCfgManager* const local = getLocalCfgManager();
  const Base::MutexLock guard(instancesMutex);
  if (!ms_instance) ms_instance = local;
  return ms_instance;
}

// Of several threads the link lets one through, so what follows its consent happens once.
bool AppCfgManager::changePrimaryConfigService(int nameSpace, const std::string& serviceLink,
                                               const std::string& selfLink,
                                               PbUtility::PbUtils* pb) {
  AppCfgManager* const primary = ms_instance;
  if (primary && primary != getLocalCfgManager()) return false;
  PlatformCfgService* const link =
      PlatformCfgService::changePrimaryConfigService(nameSpace, serviceLink, selfLink, pb);
  if (!link) return false;
  const Base::MutexLock guard(instancesMutex);
  ms_instance = new AppCfgManager(link);
  return true;
}

SecurityRole AppCfgManager::setSecurityRole(SecurityRole role) {
  return service_->setSecurityRole(role);
}

void AppCfgManager::setPbInterface(PbUtility::PbUtils* pb) { service_->setPbInterface(pb); }

unsigned int AppCfgManager::removeVars(std::string text) {
  return cache_.removeVars(std::move(text));
}

}  // namespace AppConfig
