// Parts of a cached record that are announced and answered apart. Bits of a set.
#pragma once

namespace AppConfig {

using Parts = unsigned int;
constexpr Parts kValuePart = 1;
constexpr Parts kDefaultFlagPart = 2;
constexpr Parts kOptionsPart = 4;
constexpr Parts kDefaultIndexPart = 8;
constexpr Parts kReadRolePart = 16;
constexpr Parts kWriteRolePart = 32;
constexpr unsigned kPartCount = 6;

}  // namespace AppConfig
