// askWhenThere: patience of the verbs that stay: the service may come up later, or restart.
#pragma once

#include <functional>

#include "tools/appcfg/events.h"
#include "tools/appcfg/outcome.h"
#include "tools/appcfg/verb.h"

namespace AppCfgTool {

// Asks until the service is there, and returns what came of it. The first attempt that finds nobody
// is told to the user, who may have mistyped the directory. kExitNo, which says nothing, when what
// was waited for besides came first: the user ended it, or the reader went away.
Outcome askWhenThere(Context& context, const Waited& waited, const std::function<Outcome()>& ask);

}  // namespace AppCfgTool
