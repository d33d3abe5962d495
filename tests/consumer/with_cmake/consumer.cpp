// Writes a variable and reads it back.
#include <cstdio>

#include "appconfig/manager/app_cfg_manager.h"
#include "platform/messaging/endpoint.h"

int main() {
  PbUtility::Endpoint endpoint("consumer");
  AppConfig::AppCfgManager* config = AppConfig::AppCfgManager::getInstance();
  config->setPbInterface(&endpoint);
  const bool accepted = config->setConfigVar("room", 0, "target", 0, 21, nullptr);
  std::printf("room.target is %d\n", config->getConfigVarInt("room", 0, "target", 0));
  return accepted ? 0 : 1;
}
