// eErrorT: outcome of an operation. 0 is success; everything else, negative values included, is a
// failure. What a caller can do about a code stands beside it. The numbers are those of the wire's
// CommonIF::eErrorType and never change.
#pragma once

#include <cstdint>

enum eErrorT : std::int32_t {
  eErrNone = 0,
  // Something else went wrong; the result messages tell what.
  eErrFailed = 1,
  // No such variable: correct the name, or add a definition.
  eErrNotFound = 2,
  // The role is too low, or higher than the service lets this user claim.
  eErrDenied = 3,
  // The value breaks the variable's type, limits or options: correct the value.
  eErrInvalidValue = 4,
  // A provider refused the value; its reasons are in the result messages.
  eErrVetoed = 5,
  // Nobody can write this variable at run time.
  eErrReadOnly = 6,
  // A provider that had to be asked went away: trying again may help.
  eErrUnavailable = 7,
  // A provider that had to be asked did not answer in time: trying again may help.
  eErrTimedOut = 8,
  // The change collides with one that is on its way and cannot wait for it.
  eErrConflict = 9,
  // The request itself is malformed.
  eErrInvalidRequest = 10,
  // A documented limit is reached.
  eErrLimit = 11,
  // The store could not keep the change; nothing was changed.
  eErrStorage = 12,
  // The service is too old for this request.
  eErrNotSupported = 13,
};
