#include "appconfig/core/role_names.h"

#include <array>

namespace AppConfig {
namespace {

// A role's number is its position.
constexpr std::array<std::string_view, 5> kNames = {"public", "user", "installer", "service",
                                                    "factory"};

}  // namespace

std::string_view roleName(SecurityRole role) {
  const auto position = static_cast<std::uint32_t>(role);
  return position < kNames.size() ? kNames[position] : "unknown role";
}

std::optional<SecurityRole> parseRole(std::string_view name) {
  for (std::uint32_t position = 0; position < kNames.size(); ++position) {
    if (kNames[position] == name) return static_cast<SecurityRole>(position);
  }
  return std::nullopt;
}

}  // namespace AppConfig
