// What can stand in place of the word that is being typed, for the scripts of `appcfg completion`.
#pragma once

#include <string>
#include <vector>

#include "tools/appcfg/verb.h"

namespace AppCfgTool {

// What the words before the last one, which is being typed, make of it.
struct TypedWord {
  enum class Kind { Nothing, Words, Key, Name, Value, File };

  Kind kind = Kind::Nothing;
  // All that can be typed, of Kind::Words.
  std::vector<std::string> words;
  // The variable, of Kind::Value.
  std::string key;
  // What the options among the words say; options that cannot be read count as absent.
  Settings settings;
};

// words: those behind the program's name; the last is being typed and may be empty.
TypedWord typedWord(const std::vector<std::string>& words);

// "bash", "fish", "zsh": the script; empty for any other.
std::string completionScript(const std::string& shell);

}  // namespace AppCfgTool
