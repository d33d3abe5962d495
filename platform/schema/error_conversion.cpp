#include "platform/schema/error_conversion.h"

#include "platform/schema/common_if.pb.h"

static_assert(static_cast<int>(eErrNone) == CommonIF::ERROR_NONE);
static_assert(static_cast<int>(eErrFailed) == CommonIF::ERROR_FAILED);
static_assert(static_cast<int>(eErrNotFound) == CommonIF::ERROR_NOT_FOUND);
static_assert(static_cast<int>(eErrDenied) == CommonIF::ERROR_DENIED);
static_assert(static_cast<int>(eErrInvalidValue) == CommonIF::ERROR_INVALID_VALUE);
static_assert(static_cast<int>(eErrVetoed) == CommonIF::ERROR_VETOED);
static_assert(static_cast<int>(eErrReadOnly) == CommonIF::ERROR_READ_ONLY);
static_assert(static_cast<int>(eErrUnavailable) == CommonIF::ERROR_UNAVAILABLE);
static_assert(static_cast<int>(eErrTimedOut) == CommonIF::ERROR_TIMED_OUT);
static_assert(static_cast<int>(eErrConflict) == CommonIF::ERROR_CONFLICT);
static_assert(static_cast<int>(eErrInvalidRequest) == CommonIF::ERROR_INVALID_REQUEST);
static_assert(static_cast<int>(eErrLimit) == CommonIF::ERROR_LIMIT);
static_assert(static_cast<int>(eErrStorage) == CommonIF::ERROR_STORAGE);
static_assert(static_cast<int>(eErrNotSupported) == CommonIF::ERROR_NOT_SUPPORTED);

eErrorT convertErrorTypeToCommonPbType(CommonIF::eErrorType error) {
  if (!CommonIF::eErrorType_IsValid(error)) return eErrFailed;
  return static_cast<eErrorT>(error);
}
