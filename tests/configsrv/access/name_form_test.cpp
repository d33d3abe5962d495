#include "configsrv/access/name_form.h"

#include <gtest/gtest.h>

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
