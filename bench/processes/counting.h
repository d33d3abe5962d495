// repeat: makes exactly as many operations as are asked for, and times none.
#pragma once

#include "bench/processes/settings.h"

namespace Bench {

// The operation is given its number, from 0 on, and says whether it worked.
template <typename Operation>
Outcome repeat(const Settings& settings, const Operation& operation) {
  for (int n = 0; n < settings.operations; ++n) {
    if (!operation(n)) return failed("operation " + std::to_string(n) + " failed");
  }
  Outcome outcome;
  outcome.samples = static_cast<std::size_t>(settings.operations);
  return outcome;
}

}  // namespace Bench
