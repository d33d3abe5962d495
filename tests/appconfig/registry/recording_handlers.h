// Handlers that tests can register. Most tests only need them to be told apart.
#pragma once

#include <functional>
#include <list>
#include <string>

#include "appconfig/registry/consumer_config_handler.h"
#include "appconfig/registry/provider_config_handler.h"

struct TestConsumer : ConsumerConfigHandler {
  std::function<void()> onConfigChanged;

  void configChanged(const std::string&, int, const std::string&, int,
                     const std::list<std::string>&, const std::string&) override {
    if (onConfigChanged) onConfigChanged();
  }
  void submit(const std::string&, int, const std::string&, int, int, const std::string&) override {}
  void optionsChanged(const std::string&, int, const std::string&, int,
                      const std::list<std::string>&, std::string) override {}
  void accessLevelsChanged(const std::string&, int, const std::string&, int,
                           AppConfig::SecurityRole, AppConfig::SecurityRole, std::string) override {
  }
};

struct TestProvider : ProviderConfigHandler {
  bool dynamicValidate(const std::string&, int, const std::string&, int,
                       const std::list<std::string>&, AppConfig::SecurityRole,
                       ConfigResult*) override {
    return true;
  }
  bool onChange(const std::string&, int, const std::string&, int, const std::list<std::string>&,
                AppConfig::SecurityRole, ConfigResult*) override {
    return true;
  }
};
