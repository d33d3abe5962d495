// suggest: what a word that names nothing may have been meant to be.
//
// Shape:   candidates are measured by edit distance: a letter more, less, changed, or two in the wrong
//          order count one each. A short word may be one off, a long one three.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tools/appcfg/verb.h"

namespace AppCfgTool {

std::size_t editDistance(const std::string& a, const std::string& b);

// Keeps the candidates nearest to a word, three at most, in the order in which they come.
class Nearest {
 public:
  explicit Nearest(std::string word);
  void take(const std::string& candidate);
  // "did you mean net.host?", "did you mean a, b or c?"; empty when nothing is near.
  std::string question() const;

 private:
  const std::string word_;
  std::size_t distance_;
  std::vector<std::string> found_;
};

// Of a verb: "did you mean get?"; empty when nothing is near.
std::string verbLike(const std::string& words);

// Puts a question before the advice of an outcome that found no such variable or name. It asks for the
// listing that the role may see, which costs the service something; so only where a person reads.
void suggestName(Context& context, const Verb& verb, Outcome& outcome);

}  // namespace AppCfgTool
