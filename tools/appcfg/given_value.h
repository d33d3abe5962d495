// The value that a command line gives to a variable: as arguments, as --empty, or on standard input,
// where it stands in no list of processes and in no shell's history.
#pragma once

#include <list>
#include <string>

#include "tools/appcfg/session.h"

namespace AppCfgTool {

// VALUE, --empty, --stdin and --null, for the table of a verb.
Positional valuePositional();
std::vector<Option> valueOptions();

// Sets value to what the arguments say. Standard input is one element for each line when the variable
// is a list, and otherwise one element, whose last line break is dropped; with --null each element has
// a zero byte behind it, and all else belongs to it. Not ok when nothing is given, or two of the three.
Outcome readGivenValue(Context& context, const Arguments& arguments, const ConfigVar& var,
                       std::list<std::string>& value);

// The elements of a text, each with its end behind it; the last end may be missing.
std::list<std::string> elementsOf(const std::string& text, char end);

}  // namespace AppCfgTool
