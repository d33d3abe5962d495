// A name is read character by character: each is a code point, or a byte that is no UTF-8. The table
// below has the code points that Unicode gives no width, and the spaces that look like the one of
// ASCII or like none.
#include "configsrv/access/name_form.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <iterator>

#include "appconfig/core/lower_case.h"

namespace ConfigSrv {
namespace {

struct Range {
  std::uint32_t first;
  std::uint32_t last;
};

// clang-format off
constexpr Range kUnseen[] = {
    {0x0000, 0x001F}, {0x007F, 0x009F},      // controls
    {0x00A0, 0x00A0}, {0x00AD, 0x00AD},      // no-break space, soft hyphen
    {0x034F, 0x034F}, {0x061C, 0x061C},      // grapheme joiner, Arabic letter mark
    {0x115F, 0x1160}, {0x1680, 0x1680},      // Hangul fillers, Ogham space
    {0x17B4, 0x17B5}, {0x180B, 0x180F},      // Khmer vowels without form, Mongolian selectors
    {0x2000, 0x200F},                        // spaces, zero-width characters, direction marks
    {0x2028, 0x202F},                        // separators, direction embeddings, narrow no-break space
    {0x205F, 0x206F},                        // mathematical space, joiners, direction isolates
    {0x2800, 0x2800}, {0x3000, 0x3000},      // blank Braille pattern, ideographic space
    {0x3164, 0x3164}, {0xFE00, 0xFE0F},      // Hangul filler, variation selectors
    {0xFEFF, 0xFEFF}, {0xFFA0, 0xFFA0},      // byte order mark, halfwidth Hangul filler
    {0xFFF0, 0xFFFB},                        // interlinear annotation, and unassigned ones
    {0x13430, 0x1345F}, {0x1BCA0, 0x1BCA3},  // format controls of hieroglyphs and shorthand
    {0x1D173, 0x1D17A},                      // format controls of musical notes
    {0xE0000, 0xE0FFF},                      // tags, variation selectors
};
// clang-format on

bool isUnseen(std::uint32_t point) {
  return std::any_of(std::begin(kUnseen), std::end(kUnseen), [point](const Range& range) {
    return point >= range.first && point <= range.last;
  });
}

struct Character {
  std::uint32_t point = 0;
  std::size_t bytes = 1;
  // Otherwise it is one byte, and the point is its number.
  bool isUtf8 = false;
};

// How many bytes a character takes that begins with this one; 0 when none does.
std::size_t lengthOf(unsigned char first) {
  if (first < 0x80) return 1;
  if (first >= 0xC2 && first <= 0xDF) return 2;
  if (first >= 0xE0 && first <= 0xEF) return 3;
  return first >= 0xF0 && first <= 0xF4 ? 4 : 0;
}

// Neither written longer than needed, nor a half of a pair, nor beyond the last code point.
bool isPoint(std::uint32_t point, std::size_t bytes) {
  constexpr std::uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
  return point >= kLeast[bytes] && point <= 0x10FFFF && (point < 0xD800 || point > 0xDFFF);
}

Character firstOf(std::string_view text) {
  const auto byte = [text](std::size_t at) { return static_cast<unsigned char>(text[at]); };
  const Character broken{byte(0), 1, false};
  const std::size_t length = lengthOf(byte(0));
  if (length == 0 || length > text.size()) return broken;
  if (length == 1) return {byte(0), 1, true};
  std::uint32_t point = byte(0) & (0x7FU >> length);
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0U) != 0x80) return broken;
    point = point << 6 | (byte(i) & 0x3FU);
  }
  return isPoint(point, length) ? Character{point, length, true} : broken;
}

std::string numberOf(const Character& character) {
  char text[16];
  std::snprintf(text, sizeof text, character.isUtf8 ? "U+%04X" : "%02X",
                static_cast<unsigned>(character.point));
  return text;
}

bool canBeSeen(const Character& character) {
  return character.isUtf8 && !isUnseen(character.point);
}

}  // namespace

std::string whyUnseen(std::string_view name) {
  for (std::string_view rest = name; !rest.empty();) {
    const Character character = firstOf(rest);
    if (!character.isUtf8) return "the byte " + numberOf(character) + ", which is no UTF-8";
    if (!canBeSeen(character)) return numberOf(character) + ", which cannot be seen";
    rest.remove_prefix(character.bytes);
  }
  return foldedName(name).empty() ? "nothing but blanks" : std::string();
}

std::string visibleName(std::string_view name) {
  std::string visible;
  while (!name.empty()) {
    const Character character = firstOf(name);
    visible += canBeSeen(character) ? std::string(name.substr(0, character.bytes))
                                    : '<' + numberOf(character) + '>';
    name.remove_prefix(character.bytes);
  }
  return visible;
}

std::string foldedName(std::string_view name) {
  std::string folded;
  for (const char c : name) {
    const bool isDoubled = c == ' ' && (folded.empty() || folded.back() == ' ');
    if (!isDoubled) folded += AppConfig::lowerCase(c);
  }
  if (!folded.empty() && folded.back() == ' ') folded.pop_back();
  return folded;
}

}  // namespace ConfigSrv
