// KeyIndex: finds a key among the variables by its hash.
//
// A table of positions with open addressing, twice as long as there are variables: 8 to 16 bytes
// for each. A map of keys would copy every name.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "appconfig/core/config_var.h"

namespace ConfigSrv {

class Variable;

class KeyIndex {
 public:
  static constexpr std::uint32_t kNotFound = ~std::uint32_t{0};

  // The variables have to stay where they are.
  explicit KeyIndex(const std::vector<Variable>& variables);

  // Position of the variable, or kNotFound.
  std::uint32_t find(const ConfigVar& key) const;

 private:
  std::size_t slotOf(const ConfigVar& key) const;

  const std::vector<Variable>& variables_;
  // Its length is a power of two.
  std::vector<std::uint32_t> slots_;
};

}  // namespace ConfigSrv
