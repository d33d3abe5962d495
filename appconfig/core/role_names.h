// Names of the security roles in text: definitions, the table of users, the command line.
//
//   public, user, installer, service, factory (lowest rights first)
//
// Threads: plain functions; any number of threads may call them.
#pragma once

#include <optional>
#include <string_view>

#include "appconfig/core/security_role.h"

namespace AppConfig {

// All five, lowest rights first, separated by ", ": for a message that says what is allowed.
inline constexpr std::string_view kRoleNames = "public, user, installer, service, factory";

// "installer"; "unknown role" for a number that is none of the five.
std::string_view roleName(SecurityRole role);

// Exactly the names above, in lower case; nothing for any other text.
std::optional<SecurityRole> parseRole(std::string_view name);

}  // namespace AppConfig
