// What holds of every mistake in a file that people write.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>

#include "configsrv/toml/mistake.h"
#include "fuzz/input.h"

namespace Fuzz {

// It is one line that begins with the file and a line that the file has.
inline void requireTelling(const ConfigSrv::Mistake& mistake, std::string_view path,
                           std::string_view text) {
  const std::string shown = formatMistake(mistake);
  const auto isControl = [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; };
  require(std::none_of(shown.begin(), shown.end(), isControl), "a mistake is one line", shown);
  const std::string place = std::string(path) + ':' + std::to_string(mistake.line) + ':';
  require(mistake.file == path && shown.compare(0, place.size(), place) == 0,
          "a mistake begins with file and line", shown);
  // The parser counts the end of the text as the line behind it.
  const auto lines = 2 + static_cast<unsigned>(std::count(text.begin(), text.end(), '\n'));
  require(mistake.line >= 1 && mistake.line <= lines, "a mistake is on a line of the file", shown);
  require(!mistake.text.empty(), "a mistake says what is wrong");
}

}  // namespace Fuzz
