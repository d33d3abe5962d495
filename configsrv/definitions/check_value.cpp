// Holds a value against its shape, one check after another; the first that fails gives the reason.
//
// Every reason begins with the value, or with what stands for it, so that each check adds only
// what the value is not. Values are quoted in printable form and cut: they come from outside and
// end up in logs.
#include <algorithm>

#include "appconfig/core/lower_case.h"
#include "appconfig/core/typed_text.h"
#include "configsrv/definitions/definitions.h"
#include "configsrv/definitions/internal/int_value.h"
#include "configsrv/definitions/pattern.h"

namespace ConfigSrv {
namespace {

using Base::failed;
using Base::Status;

// As much of a value, and as many options, as a reason repeats.
constexpr std::size_t kMaxQuotedBytes = 80;
constexpr std::size_t kMaxQuotedOptions = 20;

std::string quoted(std::string_view value) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string out = "\"";
  for (const char c : value.substr(0, kMaxQuotedBytes)) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte < 0x7f && c != '\\') {
      out += c;
    } else {
      out += {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 0xf]};
    }
  }
  return out + (value.size() > kMaxQuotedBytes ? "...\"" : "\"");
}

std::string bytes(std::size_t count) {
  return std::to_string(count) + (count == 1 ? " byte" : " bytes");
}

std::string elements(std::size_t count) {
  return std::to_string(count) + (count == 1 ? " element" : " elements");
}

std::string named(const VariableShape& shape, std::string_view element) {
  return shape.secret ? "the value" : quoted(element);
}

std::string allowedOptions(const std::vector<std::string>& options) {
  std::string out;
  for (std::size_t i = 0; i < std::min(options.size(), kMaxQuotedOptions); ++i) {
    out += (i == 0 ? "" : ", ") + quoted(options[i]);
  }
  const std::size_t more = options.size() - std::min(options.size(), kMaxQuotedOptions);
  return more == 0 ? out : out + " and " + std::to_string(more) + " more";
}

Status<> checkSize(const VariableShape& shape, const std::list<std::string>& value) {
  const std::size_t count = value.size();
  if (shape.type != ValueType::List && count != 1) {
    return failed("a value of type " + std::string(valueTypeName(shape.type)) +
                  " has exactly one element, not " + std::to_string(count));
  }
  const std::size_t most = shape.maxElements.value_or(kMaxElements);
  if (count > most)
    return failed("the list has " + elements(count) + ", and " + elements(most) +
                  " at most are allowed");
  std::size_t sum = 0;
  for (const std::string& element : value) sum += element.size();
  if (sum <= kMaxValueBytes) return {};
  return failed("the value has " + bytes(sum) + ", and " + bytes(kMaxValueBytes) +
                " at most are allowed");
}

Status<> checkInt(const VariableShape& shape, const std::string& element) {
  std::int64_t number = 0;
  switch (readInt(element, number)) {
    case IntReading::Number:
      break;
    case IntReading::NotANumber:
      return failed(
          named(shape, element) +
          " is no whole number: digits with an optional sign, or 0x and hexadecimal digits, or "
          "0 "
          "and octal digits");
    case IntReading::TooLong:
      return failed(named(shape, element) + " is outside 64 bits");
  }
  const std::int64_t least = lowestAllowed(shape);
  const std::int64_t most = highestAllowed(shape);
  if (number < least) {
    return failed(named(shape, element) + " is less than " + std::to_string(least) +
                  ", the smallest value allowed");
  }
  if (number > most) {
    return failed(named(shape, element) + " is more than " + std::to_string(most) +
                  ", the largest value allowed");
  }
  return {};
}

bool equalsIgnoringCase(std::string_view value, std::string_view lowerCase) {
  return value.size() == lowerCase.size() &&
         std::equal(value.begin(), value.end(), lowerCase.begin(),
                    [](char a, char b) { return AppConfig::lowerCase(a) == b; });
}

Status<> checkBool(const VariableShape& shape, const std::string& element) {
  if (equalsIgnoringCase(element, "true") || equalsIgnoringCase(element, "false")) {
    return {};
  }
  return failed(named(shape, element) + " is neither true nor false");
}

Status<> checkLength(const VariableShape& shape, const std::string& element) {
  if (!shape.maxLength || element.size() <= *shape.maxLength) return {};
  return failed(named(shape, element) + " has " + bytes(element.size()) + ", and " +
                bytes(*shape.maxLength) + " at most are allowed");
}

Status<> checkPattern(const VariableShape& shape, const std::string& element,
                      PatternMatcher& matcher) {
  if (matcher.matches(element)) return {};
  if (element.size() > kMaxMatchedBytes) {
    return failed(named(shape, element) + " has " + bytes(element.size()) +
                  ", and with a pattern " + bytes(kMaxMatchedBytes) + " at most are allowed");
  }
  return failed(named(shape, element) + " does not match the pattern " +
                quoted(shape.pattern->text()));
}

Status<> checkText(const VariableShape& shape, const std::list<std::string>& value) {
  Status<> fits;
  std::optional<PatternMatcher> matcher;
  if (shape.pattern) matcher.emplace(*shape.pattern);
  for (const std::string& element : value) {
    fits = checkLength(shape, element);
    if (fits.ok() && matcher) fits = checkPattern(shape, element, *matcher);
    if (!fits.ok()) break;
  }
  return fits;
}

Status<> checkType(const VariableShape& shape, const std::list<std::string>& value) {
  switch (shape.type) {
    case ValueType::Int:
      return checkInt(shape, value.front());
    case ValueType::Bool:
      return checkBool(shape, value.front());
    case ValueType::String:
    case ValueType::List:
      return checkText(shape, value);
    case ValueType::Enumeration:
      break;
  }
  return {};
}

Status<> checkOptions(const VariableShape& shape, const std::vector<std::string>& options,
                      const std::list<std::string>& value) {
  if (options.empty() && shape.type == ValueType::Enumeration)
    return failed("the variable has no options at present");
  if (options.empty()) return {};
  for (const std::string& element : value) {
    const bool isOption = std::any_of(
        options.begin(), options.end(),
        [&](const std::string& option) { return isSameText(shape.type, option, element); });
    if (isOption) continue;
    return failed(named(shape, element) + " is none of the options: " + allowedOptions(options));
  }
  return {};
}

}  // namespace

Base::Status<> checkValue(const VariableShape& shape, const std::vector<std::string>& options,
                          const std::list<std::string>& value) {
  if (Base::Status<> size = checkSize(shape, value); !size.ok()) return size;
  if (Base::Status<> type = checkType(shape, value); !type.ok()) return type;
  return checkOptions(shape, options, value);
}

Base::Status<> checkValue(const VariableDefinition& definition,
                          const std::vector<std::string>& options,
                          const std::list<std::string>& value) {
  return checkValue(*definition.shape, options, value);
}

// Texts that are equal are the usual case.
bool isSameText(ValueType type, const std::string& a, const std::string& b) {
  if (a == b) return true;
  if (type == ValueType::Int) return AppConfig::intOf(a) == AppConfig::intOf(b);
  return type == ValueType::Bool && AppConfig::boolOf(a) == AppConfig::boolOf(b);
}

bool isSameValue(ValueType type, const std::list<std::string>& a, const std::list<std::string>& b) {
  if (a == b) return true;
  return a.size() == 1 && b.size() == 1 && isSameText(type, a.front(), b.front());
}

}  // namespace ConfigSrv
