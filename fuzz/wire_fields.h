// WireFields: a payload as the fields it is made of, whatever message it is of, so that it can be changed
// field by field.
//
// Shape:    each field has a number, a form, and a value or bytes. Bytes may be fields again; nothing
//           in a payload says so, and readFields of them tells.
// Errors:   what is no sequence of whole fields reads as nothing; groups, which the protocol has none
//           of, are not read either.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Fuzz {

struct WireField {
  // The numbers are those of the wire.
  enum class Form : std::uint8_t { Varint = 0, Fixed64 = 1, Bytes = 2, Fixed32 = 5 };

  std::uint32_t number = 1;
  Form form = Form::Varint;
  // Of all forms but Bytes.
  std::uint64_t value = 0;
  std::string bytes{};
  // What is written as the length of the bytes is so much more than it is.
  int lengthError = 0;
};

using WireFields = std::vector<WireField>;

std::optional<WireFields> readFields(std::string_view payload);
std::string writeFields(const WireFields& fields);

void appendVarint(std::uint64_t value, std::string& bytes);

}  // namespace Fuzz
