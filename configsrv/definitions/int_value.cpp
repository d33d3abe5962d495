#include "configsrv/definitions/internal/int_value.h"

#include <charconv>
#include <limits>
#include <system_error>

namespace ConfigSrv {
namespace {

// Takes the prefix off and says which base it announces. A lone "0" is left as it is.
int takeBase(std::string_view& digits) {
  if (digits.size() < 2 || digits[0] != '0') return 10;
  const bool hexadecimal = digits[1] == 'x' || digits[1] == 'X';
  digits.remove_prefix(hexadecimal ? 2 : 1);
  return hexadecimal ? 16 : 8;
}

// Negates without passing through a number that 64 signed bits do not hold.
bool applySign(std::uint64_t magnitude, bool negative, std::int64_t& number) {
  constexpr auto kMost = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  if (magnitude > kMost + (negative ? 1 : 0)) return false;
  if (magnitude > kMost) {
    number = std::numeric_limits<std::int64_t>::min();
  } else {
    number =
        negative ? -static_cast<std::int64_t>(magnitude) : static_cast<std::int64_t>(magnitude);
  }
  return true;
}

}  // namespace

IntReading readInt(std::string_view text, std::int64_t& number) {
  const bool negative = !text.empty() && text[0] == '-';
  if (negative || (!text.empty() && text[0] == '+')) text.remove_prefix(1);
  const int base = takeBase(text);
  std::uint64_t magnitude = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, magnitude, base);
  if (stop != end || error == std::errc::invalid_argument) return IntReading::NotANumber;
  if (error != std::errc() || !applySign(magnitude, negative, number)) return IntReading::TooLong;
  return IntReading::Number;
}

std::int64_t lowestAllowed(const VariableShape& shape) {
  return shape.min.value_or(std::numeric_limits<std::int32_t>::min());
}

std::int64_t highestAllowed(const VariableShape& shape) {
  return shape.max.value_or(std::numeric_limits<std::int32_t>::max());
}

}  // namespace ConfigSrv
