// Writes JSON directly as text, field by field.
//
// Strings are bytes here. UTF-8 passes, save what could break a line or drive a terminal, which is
// escaped. A byte that is no UTF-8 becomes a lone surrogate, \udc00 and the byte: JSON readers
// know how to turn that back, and the byte is not lost.
#include "configsrv/audit/internal/json_object.h"

#include <cstdio>

namespace ConfigSrv {
namespace {

unsigned byteAt(std::string_view text, std::size_t position) {
  return position < text.size() ? static_cast<unsigned char>(text[position]) : 0;
}

bool continues(unsigned byte) { return (byte & 0xC0) == 0x80; }

// Bytes of the character that begins here; 0 when none does: overlong forms, surrogates and what
// lies past U+10FFFF are no characters (RFC 3629).
std::size_t characterBytes(std::string_view text, std::size_t at) {
  const unsigned first = byteAt(text, at);
  const unsigned second = byteAt(text, at + 1);
  if (first < 0x80) return 1;
  if (first >= 0xC2 && first <= 0xDF) return continues(second) ? 2 : 0;
  const bool third = continues(byteAt(text, at + 2));
  if (first >= 0xE0 && first <= 0xEF) {
    const unsigned low = first == 0xE0 ? 0xA0 : 0x80;
    const unsigned high = first == 0xED ? 0x9F : 0xBF;
    return second >= low && second <= high && third ? 3 : 0;
  }
  if (first >= 0xF0 && first <= 0xF4) {
    const unsigned low = first == 0xF0 ? 0x90 : 0x80;
    const unsigned high = first == 0xF4 ? 0x8F : 0xBF;
    return second >= low && second <= high && third && continues(byteAt(text, at + 3)) ? 4 : 0;
  }
  return 0;
}

std::string escape(unsigned codePoint) {
  char text[8];
  std::snprintf(text, sizeof text, "\\u%04x", codePoint);
  return text;
}

// Line separators that some readers take for the end of a line, and the controls of terminals.
bool isHarmful(std::string_view character) {
  const unsigned first = byteAt(character, 0);
  if (character.size() == 1) return first < 0x20 || first == 0x7F;
  if (first == 0xC2) return byteAt(character, 1) < 0xA0;
  return character == "\xE2\x80\xA8" || character == "\xE2\x80\xA9";
}

unsigned codePointOf(std::string_view character) {
  if (character.size() == 1) return byteAt(character, 0);
  if (character.size() == 2)
    return (byteAt(character, 0) & 0x1F) << 6 | (byteAt(character, 1) & 0x3F);
  return (byteAt(character, 0) & 0x0F) << 12 | (byteAt(character, 1) & 0x3F) << 6 |
         (byteAt(character, 2) & 0x3F);
}

std::string quoted(std::string_view text) {
  constexpr unsigned kLoneSurrogates = 0xDC00;
  std::string out = "\"";
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t bytes = characterBytes(text, at);
    const std::string_view character = text.substr(at, bytes);
    if (bytes == 0)
      out += escape(kLoneSurrogates + byteAt(text, at));
    else if (character == "\"" || character == "\\")
      out.append("\\").append(character);
    else if (isHarmful(character))
      out += escape(codePointOf(character));
    else
      out += character;
    at += bytes == 0 ? 1 : bytes;
  }
  return out + '"';
}

}  // namespace

void JsonObject::begin(std::string_view name) {
  if (!fields_.empty()) fields_ += ',';
  fields_ += quoted(name) + ':';
}

JsonObject& JsonObject::add(std::string_view name, std::string_view value) {
  begin(name);
  fields_ += quoted(value);
  return *this;
}

JsonObject& JsonObject::add(std::string_view name, std::uint64_t value) {
  begin(name);
  fields_ += std::to_string(value);
  return *this;
}

JsonObject& JsonObject::add(std::string_view name, const std::vector<std::string>& values) {
  begin(name);
  fields_ += '[';
  for (std::size_t i = 0; i < values.size(); ++i)
    fields_ += (i == 0 ? "" : ",") + quoted(values[i]);
  fields_ += ']';
  return *this;
}

JsonObject& JsonObject::add(std::string_view name, const JsonObject& value) {
  begin(name);
  fields_ += value.text();
  return *this;
}

JsonObject& JsonObject::addNull(std::string_view name) {
  begin(name);
  fields_ += "null";
  return *this;
}

JsonObject& JsonObject::addTrue(std::string_view name) {
  begin(name);
  fields_ += "true";
  return *this;
}

}  // namespace ConfigSrv
