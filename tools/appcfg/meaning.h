// Meaning: what a value is read as, and when two values are one.
//
// An int may be written in several ways, and programs read them all alike; people see the text. So
// where a text is not what is read, they are told, and where a value is waited for it may come in any
// of its texts. The service is asked for the variable's type only where that decides; when it does not
// say, the text decides.
#pragma once

#include <string>
#include <vector>

#include "appconfig/core/config_var.h"
#include "tools/appcfg/session.h"

namespace AppCfgTool {

bool isSameValue(Session& session, const ConfigVar& var, const std::vector<std::string>& a,
                 const std::vector<std::string>& b);

// "030 is read as 24"; empty when the value is read as it is written.
std::string readOtherwise(Session& session, const ConfigVar& var,
                          const std::vector<std::string>& value);

}  // namespace AppCfgTool
