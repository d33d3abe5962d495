// batch_read: the present values of several variables.
#pragma once

#include <vector>

#include "tools/appcfg/session.h"

namespace AppCfgTool {

// One record for each variable, in their order; what cannot be read has its error there. All are of
// one moment as long as there are few of them and they fit into one answer. Not ok when there was no
// answer; records are then those that came before.
Outcome readTogether(Session& session, const std::vector<ConfigVar>& vars,
                     std::vector<ConfigIF::ReadRecord>& records);

}  // namespace AppCfgTool
