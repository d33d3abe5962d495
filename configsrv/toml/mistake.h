// Mistake: something wrong in a file that people write, and where it stands.
//
// Shape:    line and column count from 1, in bytes; 0 means that the mistake concerns the whole
//           file (or, for line 0, a directory). The text says what is wrong and what is allowed, in
//           one line without a full stop.
// Threads:  plain values and functions.
#pragma once

#include <string>
#include <vector>

namespace ConfigSrv {

struct Mistake {
  std::string file;
  unsigned line = 0;
  unsigned column = 0;
  std::string text;
};

// "definitions.d/10-product.toml:12:7: text"; column and line are left out when they are 0,
// and control characters are written \xNN.
std::string formatMistake(const Mistake& mistake);

// One line for each, each ending in a newline: what a check prints.
std::string formatMistakes(const std::vector<Mistake>& mistakes);

}  // namespace ConfigSrv
