// two-services: the panel of a machine. Its own settings, such as the language, are with the
// device's service; what the engine does is with the engine's, which serves namespace 3. The panel
// shows both.

#include <signal.h>

#include <cstdio>
#include <list>
#include <string>
#include <utility>

#include "appconfig/manager/app_cfg_manager.h"
#include "appconfig/registry/consumer_config_handler.h"
#include "appconfig/registry/registration.h"
#include "platform/messaging/endpoint.h"

namespace {

using AppConfig::AppCfgManager;

// The engine's service was started with --prefix engine, and its variables are of this namespace.
constexpr int kEngineNamespace = 3;
const char* const kEnginePrefix = "engine";

// Whoever started the program may be reading along.
void say(const std::string& line) {
  std::puts(line.c_str());
  std::fflush(stdout);
}

// Shows what one of the two services announces.
class Display final : public ConsumerConfigHandler {
 public:
  explicit Display(std::string service) : service_(std::move(service)) {}

  void configChanged(const std::string& group, int /*groupInstance*/, const std::string& name,
                     int /*nameInstance*/, const std::list<std::string>& value,
                     const std::string& /*identity*/) override {
    say(service_ + " tells: " + group + "." + name + " = " + value.front());
  }

  void submit(const std::string& /*group*/, int /*groupInstance*/, const std::string& /*name*/,
              int /*nameInstance*/, int /*kind*/, const std::string& /*identity*/) override {}

  void optionsChanged(const std::string& /*group*/, int /*groupInstance*/,
                      const std::string& /*name*/, int /*nameInstance*/,
                      const std::list<std::string>& /*options*/,
                      std::string /*identity*/) override {}

  void accessLevelsChanged(const std::string& /*group*/, int /*groupInstance*/,
                           const std::string& /*name*/, int /*nameInstance*/,
                           AppConfig::SecurityRole /*readRole*/,
                           AppConfig::SecurityRole /*writeRole*/,
                           std::string /*identity*/) override {}

 private:
  const std::string service_;
};

// A variable that cannot be read is empty; here that means that its service is not running.
std::string shown(const std::string& value) { return value.empty() ? "(unknown)" : value; }

void waitForStop(const sigset_t& signals) {
  int received = 0;
  sigwait(&signals, &received);
}

}  // namespace

int main() {
  // Before any other thread starts, so that all of them inherit it.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  Display deviceDisplay("device");
  Display engineDisplay("engine");
  PbUtility::Endpoint endpoint("panel");

  // One endpoint reaches both services.
  AppCfgManager* const device = AppCfgManager::getLocalCfgManager();
  device->setPbInterface(&endpoint);
  AppCfgManager::changePrimaryConfigService(kEngineNamespace, kEnginePrefix, "", &endpoint);
  AppCfgManager* const engine = AppCfgManager::getInstance();

  // A handler belongs to the service of the facade that it is registered over.
  registerHandler("panel", &deviceDisplay, device);
  registerHandler("engine", &engineDisplay, engine);

  // The same names could mean a variable of each service; the facade decides.
  say("panel.language = " + shown(device->getConfigVar("panel", 0, "language", 0)));
  say("engine.speed = " + shown(engine->getConfigVar("engine", 0, "speed", 0)));

  waitForStop(signals);
  unregisterAllHandlers(device);
  unregisterAllHandlers(engine);
  return 0;
}
