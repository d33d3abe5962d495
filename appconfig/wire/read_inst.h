// readInst: the whole key that a ConfigIF::Inst names, its namespace included.
//
// Absence:  nothing for a path that names no variable: an empty one, or a namespace alone.
// Threads:  a plain function; any number of threads may call it.
#pragma once

#include <optional>

#include "appconfig/core/config_var.h"

namespace ConfigIF {
class Inst;
}

namespace AppConfig {

std::optional<ConfigVar> readInst(const ConfigIF::Inst& inst);

}  // namespace AppConfig
