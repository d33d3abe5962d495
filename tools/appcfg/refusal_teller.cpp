#include "tools/appcfg/refusal_teller.h"

#include <algorithm>

#include "platform/messaging/registration_refusals.h"
#include "tools/appcfg/output.h"
#include "tools/appcfg/session.h"

namespace AppCfgTool {

using std::chrono::steady_clock;

void RefusalTeller::look() {
  Session& session = context_.session;
  const std::string now =
      PbUtility::registrationRefusal(&session.endpoint(), session.serviceName());
  if (now == refusal_) return;
  refusal_ = now;
  context_.output.note(now.empty()
                           ? "the service tells what happens again"
                           : "the service does not tell what happens, for it has no room: " + now +
                                 "; asking until it has");
}

Event RefusalTeller::waitForEvent(const Waited& waited) {
  for (;;) {
    look();
    Waited slice = waited;
    slice.deadline = steady_clock::now() + kEvery;
    const bool isLast = waited.deadline && *waited.deadline <= *slice.deadline;
    if (isLast) slice.deadline = waited.deadline;
    const Event event = AppCfgTool::waitForEvent(slice);
    if (event != Event::Deadline || isLast) return event;
  }
}

}  // namespace AppCfgTool
