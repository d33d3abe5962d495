// Outcome: how a verb, or a step of it, ended: an exit code and what to tell the user.
//
// Shape:   a plain value; a fresh one is success and says nothing. kExitNo says nothing either:
//          it is an answer, not a failure.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tools/appcfg/exit_code.h"

namespace AppCfgTool {

struct [[nodiscard]] Outcome {
  ExitCode code = kExitOk;
  // What happened and to which variable, without a full stop: "cannot set net.mtu: denied".
  std::string message;
  // The service's or a provider's own words.
  std::vector<std::string> reasons;
  // What the user can do; may be empty.
  std::string advice;
  // Key or name concerned; empty when it was none.
  std::string subject;

  bool ok() const { return code == kExitOk; }
};

inline Outcome failure(ExitCode code, std::string message, std::string advice = {}) {
  Outcome outcome;
  outcome.code = code;
  outcome.message = std::move(message);
  outcome.advice = std::move(advice);
  return outcome;
}

inline Outcome usageMistake(std::string message, std::string advice = {}) {
  return failure(kExitUsage, std::move(message), std::move(advice));
}

inline Outcome answerNo() { return failure(kExitNo, {}); }

}  // namespace AppCfgTool
