// gateway-app: an application that lives by its configuration. It reads its settings once, and is
// told of every change after that, whoever makes it.

#include <list>
#include <string>

#include "appconfig/manager/app_cfg_manager.h"
#include "appconfig/registry/consumer_config_handler.h"
#include "appconfig/registry/registration.h"
#include "examples/gateway/stop_signal.h"
#include "examples/gateway/text.h"
#include "platform/messaging/endpoint.h"

namespace {

using Gateway::keyText;
using Gateway::say;
using Gateway::valueText;

// Says what it is told. A real application would act on it.
class Announcer final : public ConsumerConfigHandler {
 public:
  void configChanged(const std::string& group, int groupInstance, const std::string& name,
                     int nameInstance, const std::list<std::string>& value,
                     const std::string& /*identity*/) override {
    say("told: " + keyText(group, groupInstance, name, nameInstance) + " = " + valueText(value));
  }

  void submit(const std::string& group, int groupInstance, const std::string& name,
              int nameInstance, int /*kind*/, const std::string& /*identity*/) override {
    say("told: submit of " + keyText(group, groupInstance, name, nameInstance));
  }

  void optionsChanged(const std::string& group, int groupInstance, const std::string& name,
                      int nameInstance, const std::list<std::string>& options,
                      std::string /*identity*/) override {
    say("told: options of " + keyText(group, groupInstance, name, nameInstance) + " = " +
        valueText(options));
  }

  void accessLevelsChanged(const std::string& group, int groupInstance, const std::string& name,
                           int nameInstance, AppConfig::SecurityRole /*readRole*/,
                           AppConfig::SecurityRole /*writeRole*/,
                           std::string /*identity*/) override {
    say("told: access to " + keyText(group, groupInstance, name, nameInstance) + " changed");
  }
};

void saySettings(AppConfig::AppCfgManager& config) {
  say("read: network.hostname = " + config.getConfigVar("network", 0, "hostname", 0));
  say("read: logging.level = " + config.getConfigVar("logging", 0, "level", 0));
  // An int, a bool and a list have reads of their own.
  say("read: sensors.interval = " +
      std::to_string(config.getConfigVarInt("sensors", 0, "interval", 0)));
  say(std::string("read: logging.remote = ") +
      (config.getConfigVarBool("logging", 0, "remote", 0) ? "on" : "off"));
  std::list<std::string> sensors;
  config.getConfigVar("sensors", 0, "enabled", 0, sensors);
  say("read: sensors.enabled = " + valueText(sensors));
}

}  // namespace

int main() {
  const Gateway::StopSignal stop;
  Announcer announcer;
  PbUtility::Endpoint endpoint("gateway-app");
  AppConfig::AppCfgManager* config = AppConfig::AppCfgManager::getInstance();
  config->setPbInterface(&endpoint);

  // Registering for a group covers every variable in it and below it.
  for (const char* group : {"network", "logging", "sensors"}) {
    registerHandler(group, &announcer, config);
  }
  saySettings(*config);
  say("gateway-app is ready");

  stop.wait();
  unregisterAllHandlers(config);
  return 0;
}
