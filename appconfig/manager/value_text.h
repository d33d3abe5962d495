// textOf: what setConfigVar writes for a number that is no int, and what it has no text for.
//
// An unsigned, a long or a double would become an int or a bool, and the compiler cannot tell which; a
// pointer would become a bool, and be written as "true" without a word. These go through templates of
// setConfigVar that are made for nothing else: integers of all widths are written in decimals, and the
// others do not compile, with a text that says why.
//
//   config->setConfigVar(var, 1400U);     // "1400"
//   config->setConfigVar(var, 21.5);      // error: a floating-point number has no text of its own ...
//   config->setConfigVar(var, &result);   // error: a pointer would be written as "true" ...
#pragma once

#include <cstddef>
#include <string>
#include <type_traits>
#include <utility>

namespace AppConfig {

// A number that does not become an int by itself, as short and bool do.
template <typename T, bool = std::is_arithmetic_v<T>>
struct IsWiderThanInt : std::false_type {};
template <typename T>
struct IsWiderThanInt<T, true>
    : std::bool_constant<!std::is_same_v<decltype(+std::declval<T>()), int>> {};

// A pointer that setConfigVar takes for a text.
template <typename T>
constexpr bool kIsTextPointer = std::is_same_v<std::remove_cv_t<std::remove_pointer_t<T>>, char>;

// The types that the templates are for.
template <typename T>
using IfNotPlain = std::enable_if_t<IsWiderThanInt<T>::value || std::is_null_pointer_v<T> ||
                                    (std::is_pointer_v<T> && !kIsTextPointer<T>)>;

// The number in decimals; of all else what the compiler says instead.
template <typename T>
std::string textOf([[maybe_unused]] T value) {
  static_assert(
      !std::is_floating_point_v<T>,
      "a floating-point number has no text of its own: write the text that the variable is "
      "to hold, with as many digits as you mean");
  static_assert(!std::is_null_pointer_v<T>, "null is no value: write \"\" for an empty text");
  static_assert(!std::is_pointer_v<T>,
                "a pointer would be written as \"true\": write what it points to");
  if constexpr (std::is_integral_v<T>)
    return std::to_string(value);
  else
    return {};
}

}  // namespace AppConfig
