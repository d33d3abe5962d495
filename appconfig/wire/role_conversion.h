// Security roles between the wire and the library.
//
// Errors:   none. A number that is no role of its side is the public role.
// Threads:  plain functions; any number of threads may call them.
#pragma once

#include "appconfig/core/security_role.h"

namespace CommonIF {
enum eSecurityRole : int;
}

namespace AppConfig {

// The wire numbers the installer above the service technician, the library below.
SecurityRole fromWire(CommonIF::eSecurityRole role);
CommonIF::eSecurityRole toWire(SecurityRole role);

}  // namespace AppConfig
