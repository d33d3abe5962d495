#include "tools/appcfg/when_there.h"

#include "tools/appcfg/output.h"
#include "tools/appcfg/session.h"

namespace AppCfgTool {
namespace {

using std::chrono::steady_clock;

// How often a wait for the service looks up for the end.
constexpr std::chrono::milliseconds kSlice(100);

bool isThere(Session& session) {
  session.lookAgain();
  return session.endpoint().waitUntilConnected(session.serviceName(), kSlice);
}

}  // namespace

Outcome askWhenThere(Context& context, const Waited& waited, const std::function<Outcome()>& ask) {
  bool told = false;
  for (;;) {
    Outcome asked = ask();
    if (asked.code != kExitUnreachable) return asked;
    if (!told) context.output.note(asked.text + "; waiting for it");
    told = true;
    while (!isThere(context.session)) {
      Waited now = waited;
      now.deadline = steady_clock::now();
      if (waited.deadline && *waited.deadline <= *now.deadline) return asked;
      if (waitForEvent(now) != Event::Deadline) return answerNo();
    }
  }
}

}  // namespace AppCfgTool
