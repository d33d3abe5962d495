#include "configsrv/access/name_form.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace ConfigSrv {
namespace {

TEST(NameFormTest, CaseAndBlanksDoNotMakeAnotherName) {
  for (const char* name : {"room panel", "Room Panel", "ROOM  panel", "  room panel "})
    EXPECT_EQ(foldedName(name), "room panel") << name;
}

TEST(NameFormTest, EverythingElseDoes) {
  for (const char* name :
       {"roompanel", "room-panel", "room_panel", "r\u00f6om panel", "room panel2"})
    EXPECT_NE(foldedName(name), "room panel") << name;
  // Letters that only look the same, which is not attempted: a Cyrillic o.
  EXPECT_NE(foldedName("ro\u043em panel"), "room panel");
  EXPECT_NE(foldedName("\u00c4"), foldedName("\u00e4"));
}

TEST(NameFormTest, WhatCanBeSeenIsFine) {
  for (const char* name :
       {"thermostat-ui", "a b", "/engine/ui", "W\u00e4rme", "\u6e29\u5ea6", "\U0001F321"})
    EXPECT_EQ(whyUnseen(name), "") << name;
}

std::string utf8(char32_t point) {
  const auto tail = [point](int shift) {
    return static_cast<char>(0x80 | (point >> shift & 0x3F));
  };
  if (point < 0x80) return {static_cast<char>(point)};
  if (point < 0x800) return {static_cast<char>(0xC0 | point >> 6), tail(0)};
  if (point < 0x10000) return {static_cast<char>(0xE0 | point >> 12), tail(6), tail(0)};
  return {static_cast<char>(0xF0 | point >> 18), tail(12), tail(6), tail(0)};
}

// The first and the last of each stretch of Unicode that has no form.
TEST(NameFormTest, OnlyWhatCannotBeSeenIsRefusedToTheCharacter) {
  const std::pair<char32_t, char32_t> stretches[] = {
      {0x00, 0x1F},       {0x7F, 0xA0},       {0xAD, 0xAD},       {0x34F, 0x34F},
      {0x61C, 0x61C},     {0x115F, 0x1160},   {0x1680, 0x1680},   {0x17B4, 0x17B5},
      {0x180B, 0x180F},   {0x2000, 0x200F},   {0x2028, 0x202F},   {0x205F, 0x206F},
      {0x2800, 0x2800},   {0x3000, 0x3000},   {0x3164, 0x3164},   {0xFE00, 0xFE0F},
      {0xFEFF, 0xFEFF},   {0xFFA0, 0xFFA0},   {0xFFF0, 0xFFFB},   {0x13430, 0x1345F},
      {0x1BCA0, 0x1BCA3}, {0x1D173, 0x1D17A}, {0xE0000, 0xE0FFF},
  };
  for (const auto& [first, last] : stretches) {
    EXPECT_NE(whyUnseen("u" + utf8(first)), "") << std::hex << static_cast<unsigned>(first);
    EXPECT_NE(whyUnseen("u" + utf8(last)), "") << std::hex << static_cast<unsigned>(last);
    if (first > 0) {
      EXPECT_EQ(whyUnseen("u" + utf8(first - 1)), "") << std::hex << static_cast<unsigned>(first);
    }
    EXPECT_EQ(whyUnseen("u" + utf8(last + 1)), "") << std::hex << static_cast<unsigned>(last);
  }
}

struct UnseenCase {
  const char* why;
  std::string name;
  const char* text;
  const char* visible;
};

const UnseenCase kUnseenCases[] = {
    // clang-format off
    {"zero width space", "ui\u200b", "U+200B, which cannot be seen", "ui<U+200B>"},
    {"zero width joiner", "u\u200di", "U+200D, which cannot be seen", "u<U+200D>i"},
    {"soft hyphen", "u\u00adi", "U+00AD, which cannot be seen", "u<U+00AD>i"},
    {"no-break space", "u\u00a0i", "U+00A0, which cannot be seen", "u<U+00A0>i"},
    {"byte order mark", "\ufeffui", "U+FEFF, which cannot be seen", "<U+FEFF>ui"},
    {"right-to-left override", "ui\u202e", "U+202E, which cannot be seen", "ui<U+202E>"},
    {"direction isolate", "\u2066ui", "U+2066, which cannot be seen", "<U+2066>ui"},
    {"thin space", "u\u2009i", "U+2009, which cannot be seen", "u<U+2009>i"},
    {"ideographic space", "u\u3000i", "U+3000, which cannot be seen", "u<U+3000>i"},
    {"word joiner", "u\u2060i", "U+2060, which cannot be seen", "u<U+2060>i"},
    {"variation selector", "ui\ufe0f", "U+FE0F, which cannot be seen", "ui<U+FE0F>"},
    {"tag", "ui\U000e0041", "U+E0041, which cannot be seen", "ui<U+E0041>"},
    {"tab", "u\ti", "U+0009, which cannot be seen", "u<U+0009>i"},
    {"line break", "ui\n", "U+000A, which cannot be seen", "ui<U+000A>"},
    {"escape", "\x1b[2Jui", "U+001B, which cannot be seen", "<U+001B>[2Jui"},
    {"delete", "ui\x7f", "U+007F, which cannot be seen", "ui<U+007F>"},
    {"control beyond ASCII", "ui\u0085", "U+0085, which cannot be seen", "ui<U+0085>"},
    {"a lone byte", "ui\xff", "the byte FF, which is no UTF-8", "ui<FF>"},
    {"a character that is cut off", "ui\xe2\x80", "the byte E2, which is no UTF-8", "ui<E2><80>"},
    {"a byte that continues nothing", "\x80ui", "the byte 80, which is no UTF-8", "<80>ui"},
    {"written longer than needed", "\xc1\xa1", "the byte C1, which is no UTF-8", "<C1><A1>"},
    {"three bytes for two", "\xe0\x81\xa1", "the byte E0, which is no UTF-8", "<E0><81><A1>"},
    {"half of a pair", "\xed\xa0\x80", "the byte ED, which is no UTF-8", "<ED><A0><80>"},
    {"beyond the last", "\xf4\x90\x80\x80", "the byte F4, which is no UTF-8", "<F4><90><80><80>"},
    {"only blanks", "   ", "nothing but blanks", "   "},
    {"nothing", "", "nothing but blanks", ""},
    // clang-format on
};

TEST(NameFormTest, WhatCannotBeSeenIsNamedAndWrittenOut) {
  for (const UnseenCase& c : kUnseenCases) {
    EXPECT_EQ(whyUnseen(c.name), c.text) << c.why;
    EXPECT_EQ(visibleName(c.name), c.visible) << c.why;
  }
}

}  // namespace
}  // namespace ConfigSrv
