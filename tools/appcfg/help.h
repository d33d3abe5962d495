// The help texts, made from the same tables that the parser and the exit codes are.
#pragma once

#include <string>

#include "tools/appcfg/verb.h"

namespace AppCfgTool {

// `appcfg --help`: every verb, the options of all verbs, exit codes, environment.
std::string helpText();

// `appcfg VERB --help`.
std::string helpText(const Verb& verb);

// "Usage: appcfg set [OPTIONS] KEY [VALUE...]".
std::string usageLine(const Verb& verb);

// The options that every verb takes, before or behind it.
const std::vector<Option>& globalOptions();

}  // namespace AppCfgTool
