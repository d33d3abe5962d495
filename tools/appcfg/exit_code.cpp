// Two tables, one for the errors of a service's answer and one for the failures of the message layer,
// and the names and meanings of the codes that they lead to.
#include "tools/appcfg/exit_code.h"

#include "platform/schema/common_if.pb.h"

namespace AppCfgTool {
namespace {

struct ErrorRow {
  CommonIF::eErrorType error;
  ExitCode code;
};

// A limit is counted as an invalid value because nearly always the value is what is too large, and
// a read-only variable as denied because no other value would do. A provider that is away or slow
// is told apart from the service by the message alone: a script waits and tries again either way.
constexpr ErrorRow kErrorRows[] = {
    {CommonIF::ERROR_NONE, kExitOk},
    {CommonIF::ERROR_FAILED, kExitFailed},
    {CommonIF::ERROR_NOT_FOUND, kExitNotFound},
    {CommonIF::ERROR_DENIED, kExitDenied},
    {CommonIF::ERROR_INVALID_VALUE, kExitInvalidValue},
    {CommonIF::ERROR_VETOED, kExitVetoed},
    {CommonIF::ERROR_READ_ONLY, kExitDenied},
    {CommonIF::ERROR_UNAVAILABLE, kExitUnreachable},
    {CommonIF::ERROR_TIMED_OUT, kExitTimedOut},
    {CommonIF::ERROR_CONFLICT, kExitConflict},
    {CommonIF::ERROR_INVALID_REQUEST, kExitUsage},
    {CommonIF::ERROR_LIMIT, kExitInvalidValue},
    {CommonIF::ERROR_STORAGE, kExitFailed},
    {CommonIF::ERROR_NOT_SUPPORTED, kExitFailed},
};

struct StatusRow {
  PbUtility::CallStatus status;
  ExitCode code;
};

// A request that is too large can only be so by its value. A socket that is not to be trusted is
// not the service's, which may still come.
constexpr StatusRow kStatusRows[] = {
    {PbUtility::kCallOk, kExitOk},
    {PbUtility::kCallNoService, kExitUnreachable},
    {PbUtility::kCallServiceDied, kExitUnreachable},
    {PbUtility::kCallTimedOut, kExitTimedOut},
    {PbUtility::kCallRefused, kExitFailed},
    {PbUtility::kCallBrokenAnswer, kExitFailed},
    {PbUtility::kCallBadRequest, kExitInvalidValue},
    {PbUtility::kCallBadEndpoint, kExitFailed},
    {PbUtility::kCallUntrusted, kExitUnreachable},
    {PbUtility::kCallForbidden, kExitDenied},
};

}  // namespace

const std::vector<ExitCodeInfo>& exitCodes() {
  static const std::vector<ExitCodeInfo> codes = {
      {kExitOk, "ok", "done"},
      {kExitFailed, "failed", "another failure; the message tells which"},
      {kExitUsage, "usage", "the command line is wrong"},
      {kExitNotFound, "not-found", "there is no such variable or name"},
      {kExitDenied, "denied", "the role or the user may not do this, or the variable is read-only"},
      {kExitInvalidValue, "invalid-value", "the value breaks type, limits or options"},
      {kExitVetoed, "vetoed", "a provider refused the value"},
      {kExitUnreachable, "unreachable", "the service, or a provider it has to ask, is not there"},
      {kExitTimedOut, "timed-out", "no answer, or no such value, in time"},
      {kExitConflict, "conflict", "the change collides with one that is on its way"},
      {kExitNo, "no", "the answer is no"},
  };
  return codes;
}

const char* exitCodeName(ExitCode code) {
  for (const ExitCodeInfo& info : exitCodes()) {
    if (info.code == code) return info.name;
  }
  return "failed";
}

ExitCode exitCodeOf(CommonIF::eErrorType error) {
  for (const ErrorRow& row : kErrorRows) {
    if (row.error == error) return row.code;
  }
  return kExitFailed;
}

ExitCode exitCodeOf(PbUtility::CallStatus status) {
  for (const StatusRow& row : kStatusRows) {
    if (row.status == status) return row.code;
  }
  return kExitFailed;
}

}  // namespace AppCfgTool
