// Waits to be told of one change.
#include <cstdio>
#include <future>

#include "appconfig/manager/app_cfg_manager.h"
#include "appconfig/registry/consumer_config_handler.h"
#include "appconfig/registry/registration.h"
#include "platform/messaging/endpoint.h"

class Watcher final : public ConsumerConfigHandler {
 public:
  void configChanged(const std::string& group, int, const std::string& name, int,
                     const std::list<std::string>& value, const std::string&) override {
    std::printf("told: %s.%s = %s\n", group.c_str(), name.c_str(), value.front().c_str());
    told.set_value();
  }
  void submit(const std::string&, int, const std::string&, int, int, const std::string&) override {}
  void optionsChanged(const std::string&, int, const std::string&, int,
                      const std::list<std::string>&, std::string) override {}
  void accessLevelsChanged(const std::string&, int, const std::string&, int,
                           AppConfig::SecurityRole, AppConfig::SecurityRole, std::string) override {
  }
  std::promise<void> told;
};

int main() {
  PbUtility::Endpoint endpoint("told");
  Watcher watcher;
  AppConfig::AppCfgManager::getInstance()->setPbInterface(&endpoint);
  registerHandler("room", "target", &watcher);
  std::puts("ready");
  std::fflush(stdout);
  watcher.told.get_future().wait();
  return 0;
}
