// Facts: what a message is about, whatever its kind.
//
// Threads:  plain values and a plain function.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "appconfig/core/config_var.h"

namespace CommonIF {
enum eErrorType : int;
}

namespace ConfigSrv {

struct Facts {
  std::vector<ConfigVar> variables;
  // Dotted name of something that need not be one variable; empty: everything.
  std::optional<std::string> name;
  // The value that the message carries, or the options.
  std::vector<std::string> values;
  // How it ended, of a response; 0 is success.
  CommonIF::eErrorType error{};
  // The first of the result's messages.
  std::string text;
};

// Nothing for a payload that is no such message, or a message of no known kind.
std::optional<Facts> factsOf(std::uint32_t messageId, std::string_view payload);

}  // namespace ConfigSrv
