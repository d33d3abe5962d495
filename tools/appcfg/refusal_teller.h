// RefusalTeller: says on standard error when the service has no room for what a verb registered, and
// when it has again. Without it, `appcfg watch` would wait for changes that nobody tells it of.
//
// The endpoint asks the service again by itself; this only looks, every kEvery, while the verb
// waits for something else.
//
// Threads: one.
#pragma once

#include <chrono>
#include <string>

#include "tools/appcfg/events.h"
#include "tools/appcfg/verb.h"

namespace AppCfgTool {

class RefusalTeller {
 public:
  static constexpr std::chrono::milliseconds kEvery{250};

  // The context outlives it.
  explicit RefusalTeller(Context& context) : context_(context) {}

  // As waitForEvent, and says meanwhile what there is to say.
  Event waitForEvent(const Waited& waited);

 private:
  void look();

  Context& context_;
  // What was said last; empty while nothing is refused.
  std::string refusal_;
};

}  // namespace AppCfgTool
