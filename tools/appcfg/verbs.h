// The verbs of appcfg, by the files that hold them.
#pragma once

#include <vector>

#include "tools/appcfg/verb.h"

namespace AppCfgTool {

// values.cpp
Verb getVerb();
Verb setVerb();
Verb validateVerb();
Verb isDefaultVerb();
// reset.cpp
Verb resetVerb();
// listing.cpp
Verb listVerb();
Verb describeVerb();
// attributes.cpp
Verb optionsGetVerb();
Verb optionsSetVerb();
Verb accessGetVerb();
Verb accessSetVerb();
// watch.cpp
Verb watchVerb();
Verb waitVerb();
// export.cpp
Verb exportVerb();
// import.cpp
Verb importVerb();
// submit.cpp
Verb submitVerb();
// status.cpp
Verb statusVerb();
// clients.cpp
Verb clientsVerb();
// monitor.cpp
Verb monitorVerb();
// store.cpp
Verb storeCopyVerb();
Verb storeRestoreVerb();
// completion.cpp
Verb completionVerb();
Verb completeVerb();

// help.cpp
Verb helpVerb();

// All of them, in the order of the help text.
const std::vector<Verb>& verbs();

}  // namespace AppCfgTool
