// One write and one read by way of the library.
#pragma once

#include <string>

#include "appconfig/manager/app_cfg_manager.h"
#include "platform/messaging/endpoint.h"

// What "net.mtu" is after the write; "" when the service did not take it.
inline std::string writeAndReadMtu(int mtu) {
  // Links keep a pointer to it.
  static PbUtility::Endpoint endpoint("shared-object-user");
  AppConfig::AppCfgManager* const config = AppConfig::AppCfgManager::getInstance();
  config->setPbInterface(&endpoint);
  ConfigResult result;
  if (!config->setConfigVar("net", 0, "mtu", 0, mtu, &result)) return "";
  return config->getConfigVar("net", 0, "mtu", 0);
}
