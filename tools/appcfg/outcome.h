// Outcome: how a verb, or a step of it, ended: an exit code and what to tell the user.
//
// Shape:   a Status, whose text says what happened and to which variable, without a full stop:
//          "cannot set net.mtu: denied". A fresh one is success and says nothing. kExitNo says nothing
//          either: it is an answer, not a failure.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "base/status.h"
#include "tools/appcfg/exit_code.h"

namespace AppCfgTool {

struct [[nodiscard]] Outcome : Base::Status<ExitCode> {
  // The service's or a provider's own words.
  std::vector<std::string> reasons{};
  // What the user can do; may be empty.
  std::string advice{};
  // Key or name concerned; empty when it was none.
  std::string subject{};
};

inline Outcome failure(ExitCode code, std::string text, std::string advice = {}) {
  return {{code, std::move(text)}, {}, std::move(advice)};
}

inline Outcome usageMistake(std::string text, std::string advice = {}) {
  return failure(kExitUsage, std::move(text), std::move(advice));
}

inline Outcome answerNo() { return failure(kExitNo, {}); }

}  // namespace AppCfgTool
