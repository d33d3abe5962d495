// How keys and roles of the service stand in messages.
//
// Threads  plain functions.
#pragma once

#include <optional>
#include <string>

#include "appconfig/core/config_var.h"
#include "appconfig/core/security_role.h"

namespace ConfigIF {
class Inst;
}
namespace CommonIF {
enum eSecurityRole : int;
}

namespace ConfigSrv {

// A variable as notices and records name it. One with a namespace is meant for the links
// of that namespace alone; one without is meant for everybody, and the scope stays absent.
void fillInst(ConfigIF::Inst* inst, const ConfigVar& key);

// The variable that a request names; nothing when its path names none.
std::optional<ConfigVar> readInst(const ConfigIF::Inst& inst);

// The wire numbers the installer above the service technician, the library below.
AppConfig::SecurityRole fromWire(CommonIF::eSecurityRole role);
CommonIF::eSecurityRole toWire(AppConfig::SecurityRole role);

}  // namespace ConfigSrv
