// The command line: what the words of the caller ask for.
//
// Values pass through unchanged, whatever they look like: "", "[a,b]", "get", "++". Only a value
// that begins with a dash needs "--" before it (numbers do not), because it could be an option.
#pragma once

#include <string>
#include <vector>

#include "tools/appcfg/verb.h"

namespace AppCfgTool {

struct CommandLine {
  enum class Kind { Run, Help, Version, Mistake };
  Kind kind = Kind::Mistake;
  // The verb to run or to help with; null: the help is about appcfg.
  const Verb* verb = nullptr;
  Settings settings;
  Arguments arguments;
  Outcome mistake;
};

// words: the arguments without the program's name.
CommandLine parseCommandLine(const std::vector<std::string>& words);

}  // namespace AppCfgTool
