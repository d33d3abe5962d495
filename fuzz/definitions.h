// The definitions of the service that is fuzzed: a variable for each rule that a change is held
// against.
#pragma once

#include "configsrv/definitions/definitions.h"

namespace Fuzz {

// Loaded once.
const ConfigSrv::Definitions& definitions();

}  // namespace Fuzz
