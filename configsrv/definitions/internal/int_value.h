// The numbers of int variables: how a text is read, and the limits in force.
#pragma once

#include <cstdint>
#include <string_view>

#include "configsrv/definitions/definitions.h"

namespace ConfigSrv {

enum class IntReading { Number, NotANumber, TooLong };

// Reads what strtol reads with base 0, provided that it is the whole text: leading blanks are
// refused.
IntReading readInt(std::string_view text, std::int64_t& number);

// What 32 signed bits hold, unless the definition says otherwise.
std::int64_t lowestAllowed(const VariableShape& shape);
std::int64_t highestAllowed(const VariableShape& shape);

}  // namespace ConfigSrv
