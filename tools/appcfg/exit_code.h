// ExitCode: how appcfg ends, one code for each thing that a script can do about it.
//
// The codes are an interface: scripts compare them, so a number never changes its meaning. Whether
// a failure came from the message layer or in the service's answer makes no difference to a caller:
// both are translated here.
#pragma once

#include <vector>

#include "platform/messaging/endpoint.h"

namespace CommonIF {
enum eErrorType : int;
}

namespace AppCfgTool {

enum ExitCode : int {
  kExitOk = 0,
  kExitFailed = 1,
  kExitUsage = 2,
  kExitNotFound = 3,
  kExitDenied = 4,
  kExitInvalidValue = 5,
  kExitVetoed = 6,
  kExitUnreachable = 7,
  kExitTimedOut = 8,
  kExitConflict = 9,
  kExitNo = 10,
};

struct ExitCodeInfo {
  ExitCode code;
  // Stands for the code in --json: "not-found".
  const char* name;
  // One line for people.
  const char* meaning;
};

// All of them, ascending.
const std::vector<ExitCodeInfo>& exitCodes();
const char* exitCodeName(ExitCode code);

// A code that this version does not know is kExitFailed, never kExitOk.
ExitCode exitCodeOf(CommonIF::eErrorType error);
ExitCode exitCodeOf(PbUtility::CallStatus status);

}  // namespace AppCfgTool
