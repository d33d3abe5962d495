// Error codes between the wire and the library.
//
// The two enumerations share their numbers, so the library writes its codes onto the wire as they
// are. Only this direction needs a function: a code from outside may be one that this library's
// version does not know.
#pragma once

#include "appconfig/core/error.h"

namespace CommonIF {
enum eErrorType : int;
}

// The library's code for a code from the wire; eErrFailed for one that the library does not know.
// 0 stays 0, and nothing else becomes 0.
eErrorT convertErrorTypeToCommonPbType(CommonIF::eErrorType error);
