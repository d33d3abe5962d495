#include "configsrv/audit/internal/json_object.h"

#include <gtest/gtest.h>

namespace ConfigSrv {
namespace {

std::string shown(const std::string& text) { return JsonObject().add("a", text).text(); }

TEST(JsonObjectTest, FieldsStandInTheirOrder) {
  JsonObject inner;
  inner.add("x", std::uint64_t{7});
  JsonObject object;
  object.add("s", "text").add("l", std::vector<std::string>{"a", ""}).add("o", inner);
  object.addNull("n").addTrue("t").add("big", ~std::uint64_t{0});
  EXPECT_EQ(
      object.text(),
      R"({"s":"text","l":["a",""],"o":{"x":7},"n":null,"t":true,"big":18446744073709551615})");
  EXPECT_EQ(JsonObject().text(), "{}");
}

TEST(JsonObjectTest, WhatCouldEndALineOrMoveATerminalIsEscaped) {
  EXPECT_EQ(shown("a\nb\r\"\\\t"), R"({"a":"a\u000ab\u000d\"\\\u0009"})");
  EXPECT_EQ(shown(std::string("\0\x1b[2J\x7f", 6)), R"({"a":"\u0000\u001b[2J\u007f"})");
  EXPECT_EQ(shown("\xC2\x85\xC2\x9B"), R"({"a":"\u0085\u009b"})");
  EXPECT_EQ(shown("\xE2\x80\xA8\xE2\x80\xA9"), R"({"a":"\u2028\u2029"})");
}

TEST(JsonObjectTest, Utf8StandsAsItIs) {
  const std::string text = "\xC3\xBC \xE2\x82\xAC \xF0\x9F\x98\x80 \xED\x9F\xBF \xF4\x8F\xBF\xBF";
  EXPECT_EQ(shown(text), "{\"a\":\"" + text + "\"}");
}

TEST(JsonObjectTest, AByteThatIsNoUtf8StandsAsALoneSurrogate) {
  EXPECT_EQ(shown("\xFF"), R"({"a":"\udcff"})");
  EXPECT_EQ(shown("\xC3"), R"({"a":"\udcc3"})") << "cut short";
  EXPECT_EQ(shown("\xC0\x80"), R"({"a":"\udcc0\udc80"})") << "overlong";
  EXPECT_EQ(shown("\xE0\x80\x80"), R"({"a":"\udce0\udc80\udc80"})") << "overlong";
  EXPECT_EQ(shown("\xED\xA0\x80"), R"({"a":"\udced\udca0\udc80"})") << "a surrogate";
  EXPECT_EQ(shown("\xF4\x90\x80\x80"), R"({"a":"\udcf4\udc90\udc80\udc80"})") << "past the end";
  EXPECT_EQ(shown("\xE2\x82"), R"({"a":"\udce2\udc82"})") << "cut short";
}

}  // namespace
}  // namespace ConfigSrv
