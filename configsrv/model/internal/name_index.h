// NameIndex: finds the variables below a dotted name without looking at the others.
//
// Positions of the variables in the byte order of their full names. What a name covers are two
// ranges of that: the variables of this very name, and those that begin with it and a dot. (One
// range would not do: "net-x" stands between "net" and "net.mtu".)
#pragma once

#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

namespace ConfigSrv {

class Variable;

class NameIndex {
 public:
  // The variables have to stay where they are.
  explicit NameIndex(const std::vector<Variable>& variables);

  using Range = std::pair<const std::uint32_t*, const std::uint32_t*>;

  // Positions of the covered variables, ascending; an empty name covers all.
  std::vector<std::uint32_t> covered(std::string_view dottedName) const;
  // The same in the order of their names, without a copy: first the variables of this very name,
  // then those below it.
  Range exactly(std::string_view dottedName) const;
  Range below(std::string_view dottedName) const;

 private:
  // The variables whose full name begins with a text; with `whole`, those whose name is the text.
  Range range(std::string_view begin, bool whole) const;

  const std::vector<Variable>& variables_;
  std::vector<std::uint32_t> sorted_;
};

}  // namespace ConfigSrv
