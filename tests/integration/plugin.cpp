// A plug-in that uses the library, to be loaded and unloaded: it has one value told to it.
#include <atomic>

#include "appconfig/manager/app_cfg_manager.h"
#include "appconfig/registry/registration.h"
#include "platform/messaging/endpoint.h"
#include "tests/integration/application.h"

namespace {

using AppConfig::AppCfgManager;
using TestSupport::eventually;

TestSupport::NotingConsumer consumer;

// What the cache holds was stored by the delivery thread, which is then done with what came before:
// nobody is in a handler of ours any more once it has our last value.
bool isPassedOver(AppCfgManager& config, const std::string& value) {
  return config.setConfigVar("net", 0, "name", 0, value) &&
         eventually([&] { return config.getConfigVar("net", 0, "name", 0) == value; });
}

}  // namespace

// 0, or the number of the step that went wrong. The endpoint is the process's: made by the first
// round, and never destroyed.
extern "C" __attribute__((visibility("default"))) int useLibrary(const char* runtimeDir, int round,
                                                                 void** endpoint) {
  AppCfgManager& config = *AppCfgManager::getInstance();
  if (*endpoint == nullptr) {
    auto* const made = new PbUtility::Endpoint("plug-in", TestSupport::inDirectory(runtimeDir));
    *endpoint = made;
    config.setPbInterface(made);
  }
  registerHandler("net", "name", &consumer);
  const std::string value = "round " + std::to_string(round);
  if (!config.setConfigVar("net", 0, "name", 0, value)) return 1;
  if (!consumer.waitFor("value net.name = " + value)) return 2;
  unregisterHandler("net", "name", &consumer);
  return isPassedOver(config, value + " is over") ? 0 : 3;
}
