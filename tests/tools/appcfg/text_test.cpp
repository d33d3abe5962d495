#include "tools/appcfg/text.h"

#include <gtest/gtest.h>

namespace AppCfgTool {
namespace {

using namespace std::string_literals;

TEST(TextTest, Utf8IsToldFromOtherBytes) {
  const struct {
    const char* why;
    std::string bytes;
    bool isUtf8;
  } cases[] = {
      {"nothing", "", true},
      {"ASCII", "abc", true},
      {"a zero byte is a character", "a\0b"s, true},
      {"two bytes", "\xc3\xa4", true},
      {"three bytes", "\xe2\x82\xac", true},
      {"four bytes", "\xf0\x9f\x98\x80", true},
      {"the last character", "\xf4\x8f\xbf\xbf", true},
      {"past the last character", "\xf4\x90\x80\x80", false},
      {"cut off", "\xe2\x82", false},
      {"a byte that only continues", "\x80", false},
      {"overlong in two bytes", "\xc0\xaf", false},
      {"overlong in three bytes", "\xe0\x80\xaf", false},
      {"overlong in four bytes", "\xf0\x80\x80\xaf", false},
      {"a surrogate", "\xed\xa0\x80", false},
      {"no lead byte at all", "\xff", false},
      {"ASCII where a byte should continue", "\xe2\x28\xa1", false},
  };
  for (const auto& c : cases) EXPECT_EQ(isUtf8(c.bytes), c.isUtf8) << c.why;
}

TEST(TextTest, ALineIsNeverBrokenByWhatItHolds) {
  const struct {
    std::string bytes;
    std::string line;
  } cases[] = {
      {"plain text, as it is", "plain text, as it is"},
      {"Z\xc3\xbcrich", "Z\xc3\xbcrich"},
      {"a\nb\tc\rd\\e", "a\\nb\\tc\\rd\\\\e"},
      {"\x1b[2J"s, "\\x1b[2J"},
      {"a\0b"s, "a\\x00b"},
      {"\x7f", "\\x7f"},
      {"\xff\xfe", "\\xff\\xfe"},
      {"\xe2\x82", "\\xe2\\x82"},
      // A control character in two bytes, which terminals obey.
      {"\xc2\x9b", "\\xc2\\x9b"},
  };
  for (const auto& c : cases) EXPECT_EQ(escapeLine(c.bytes), c.line);
}

TEST(TextTest, AnEscapedTextIsAlwaysOneLineOfUtf8) {
  std::string all;
  for (int i = 0; i < 256; ++i) all += static_cast<char>(i);
  const std::string line = escapeLine(all);
  EXPECT_TRUE(isUtf8(line));
  EXPECT_EQ(line.find_first_of("\n\r\x1b"), std::string::npos);
}

TEST(TextTest, ASingleElementStandsAloneAndAnyOtherNumberInBrackets) {
  EXPECT_EQ(valueOnOneLine({"1500"}), "1500");
  EXPECT_EQ(valueOnOneLine({""}), "");
  EXPECT_EQ(valueOnOneLine({}), "[]");
  EXPECT_EQ(valueOnOneLine({"a", ""}), "[\"a\", \"\"]");
  EXPECT_EQ(valueOnOneLine({"say \"x\"", "a\nb"}), "[\"say \\\"x\\\"\", \"a\\nb\"]");
}

TEST(TextTest, Base64IsThatOfItsStandard) {
  EXPECT_EQ(base64(""), "");
  EXPECT_EQ(base64("f"), "Zg==");
  EXPECT_EQ(base64("fo"), "Zm8=");
  EXPECT_EQ(base64("foo"), "Zm9v");
  EXPECT_EQ(base64("foob"), "Zm9vYg==");
  EXPECT_EQ(base64("fooba"), "Zm9vYmE=");
  EXPECT_EQ(base64("foobar"), "Zm9vYmFy");
  EXPECT_EQ(base64("\xff\xfe\x00"s), "//4A");
}

TEST(TextTest, Base64IsReadBackAndNoOtherTextIs) {
  std::string bytes;
  for (int i = 0; i < 256; ++i) {
    EXPECT_EQ(fromBase64(base64(bytes)), bytes);
    bytes += static_cast<char>(i);
  }
  for (const char* const text :
       {"Z", "Zg", "Zg=", "Zg===", "Zh==", "Z===", "Zg==Zg==", "*g==", "Zg==\n"}) {
    EXPECT_FALSE(fromBase64(text).has_value()) << text;
  }
}

TEST(TextTest, AnEscapedLineIsReadBackAndNoOtherEscapeIs) {
  std::string bytes;
  for (int i = 0; i < 256; ++i) bytes += static_cast<char>(i);
  EXPECT_EQ(unescapeLine(escapeLine(bytes)), bytes);
  EXPECT_EQ(unescapeLine("plain"), "plain");
  for (const char* const text : {"\\", "\\q", "\\x", "\\x4", "\\xg0", "\\xFF"}) {
    EXPECT_FALSE(unescapeLine(text).has_value()) << text;
  }
}

TEST(TextTest, ColumnsAreAsWideAsTheirWidestCellInCharacters) {
  EXPECT_EQ(alignColumns({{"a", "1", "x"}, {"\xc3\xa4\xc3\xa4\xc3\xa4", "22"}}),
            "a    1   x\n\xc3\xa4\xc3\xa4\xc3\xa4  22\n");
}

TEST(TextTest, TheWidestColumnsAreCutUntilALineFits) {
  const std::string wide(40, 'x');
  EXPECT_EQ(alignColumns({{"key", wide, "[default]"}}, 40),
            "key  " + std::string(21, 'x') + "...  [default]\n");
  EXPECT_EQ(alignColumns({{"key", wide}}, 47), "key  " + wide + '\n');
  EXPECT_EQ(alignColumns({{"\xc3\xa4\xc3\xa4\xc3\xa4" + wide}}, 12),
            "\xc3\xa4\xc3\xa4\xc3\xa4xxxxxx...\n");
}

TEST(TextTest, AKeyIsNeverCut) {
  const std::string key(30, 'k');
  EXPECT_EQ(alignColumns({{key, std::string(20, 'v')}}, 40, 1), key + "  vvvvvvv...\n");
  EXPECT_EQ(alignColumns({{key}}, 20, 1), key + '\n');
}

TEST(TextTest, WhatIsNarrowAlreadyIsNotCutFurther) {
  EXPECT_EQ(alignColumns({{"0123456789", "0123456789"}}, 5), "0123456789  0123456789\n");
  EXPECT_EQ(alignColumns({{}}, 5), "\n");
}

TEST(TextTest, NoRowsAreNoText) { EXPECT_EQ(alignColumns({}), ""); }

}  // namespace
}  // namespace AppCfgTool
