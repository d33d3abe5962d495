// The key under which a value is cached: namespace 0, so that the names with and without the
// service's own namespace are one entry. Names are lower case already; every ConfigVar's are.
#pragma once

#include "appconfig/core/config_var.h"

namespace AppConfig {

inline ConfigVar localKey(const ConfigVar& var) {
  return ConfigVar(0, var.group(), var.groupInstance(), var.name(), var.nameInstance());
}

}  // namespace AppConfig
