// NameIndex: finds the variables below a dotted name without looking at the others.
//
// Positions of the variables in the byte order of their full names. What a name covers are two
// ranges of that: the variables of this very name, and those that begin with it and a dot. (One
// range would not do: "net-x" stands between "net" and "net.mtu".)
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

namespace ConfigSrv {

class Variable;

class NameIndex {
 public:
  // The variables have to stay where they are.
  explicit NameIndex(const std::vector<Variable>& variables);

  // Positions of the covered variables, ascending; an empty name covers all.
  std::vector<std::uint32_t> covered(std::string_view dottedName) const;

 private:
  void append(std::string_view begin, bool whole, std::vector<std::uint32_t>& positions) const;

  const std::vector<Variable>& variables_;
  std::vector<std::uint32_t> sorted_;
};

}  // namespace ConfigSrv
