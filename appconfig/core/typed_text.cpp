#include "appconfig/core/typed_text.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

#include "appconfig/core/lower_case.h"

namespace AppConfig {

// What strtol gives where long has 32 bits: the devices' programs rely on it, wherever they run.
std::int32_t intOf(const std::string& text) {
  const long long number = std::strtoll(text.c_str(), nullptr, 0);
  using Limits = std::numeric_limits<std::int32_t>;
  return static_cast<std::int32_t>(std::clamp<long long>(number, Limits::min(), Limits::max()));
}

bool boolOf(const std::string& text) { return lowerCase(text) == "true"; }

}  // namespace AppConfig
