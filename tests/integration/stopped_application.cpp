// An application that a test stops and continues: it reads variables, so that they are cached and
// kept current, and then tells on request what its cache holds.
//
//   stopped_application RUNTIME_DIR KEY...
//
// Prints "ready", then for each line "N" of standard input the cached value of the Nth variable.
#include <iostream>
#include <string>
#include <vector>

#include "appconfig/core/key_notation.h"
#include "appconfig/manager/app_cfg_manager.h"
#include "platform/messaging/endpoint.h"

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  PbUtility::EndpointOptions options;
  options.runtimeDir = argv[1];
  PbUtility::Endpoint endpoint("stopped-application", options);
  AppConfig::AppCfgManager* manager = AppConfig::AppCfgManager::getInstance();
  manager->setPbInterface(&endpoint);
  std::vector<ConfigVar> variables;
  for (int i = 2; i < argc; ++i) {
    ConfigVar variable("", 0, "", 0);
    if (!AppConfig::parseKey(argv[i], variable).ok()) return 2;
    variables.push_back(variable);
    manager->getConfigVar(variable);
  }
  std::cout << "ready" << std::endl;
  for (std::size_t number = 0; std::cin >> number;) {
    std::cout << manager->getConfigVar(variables.at(number)) << std::endl;
  }
  return 0;
}
