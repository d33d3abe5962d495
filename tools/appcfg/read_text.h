// readText: all of a file, or of standard input, for the verbs that take one.
#pragma once

#include <string>

#include "tools/appcfg/outcome.h"

namespace AppCfgTool {

// Appends it to text. "-" is standard input. More than 64 MiB are refused: no set of variables comes to
// that, and it is little enough to hold.
Outcome readText(const std::string& name, std::string& text);

// The name for people: "standard input" for "-".
std::string shownName(const std::string& name);

}  // namespace AppCfgTool
