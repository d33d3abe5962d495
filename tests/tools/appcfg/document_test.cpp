#include "tools/appcfg/document.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace AppCfgTool {
namespace {

using Form = DocumentEntry::Form;
using testing::HasSubstr;
using testing::StartsWith;
using Value = std::vector<std::string>;

Document read(const std::string& text) {
  Document document;
  const Outcome outcome = readDocument(text, "file", formatOf(text), document);
  EXPECT_TRUE(outcome.ok()) << outcome.text << " in " << text;
  return document;
}

std::string complaint(const std::string& text) {
  Document document;
  const Outcome outcome = readDocument(text, "file", formatOf(text), document);
  EXPECT_EQ(outcome.code, kExitFailed) << text;
  return outcome.text;
}

const Document kEverything = {
    {"net.host", Form::Text, {"a \"b\" \\ Z\xc3\xbcrich\n\t\x01\x7f"}, ""},
    {"net.zero", Form::Text, {std::string("a\0b", 3)}, ""},
    {"net.bytes", Form::Text, {"\xff\xfe"}, ""},
    {"net.dns", Form::List, {"x", "", "\x80"}, ""},
    {"net.none", Form::List, {}, ""},
    {"net.one", Form::List, {"x"}, ""},
    {"net.dots", Form::Text, {std::string(5000, '.')}, ""},
    {"net.eth[1].mtu", Form::Number, {"-1500"}, ""},
    {"net.on", Form::Bool, {"true"}, ""},
    {"3:engine.sp\xff", Form::Text, {"7"}, ""},
};

TEST(DocumentTest, WhatIsWrittenReadsBackTheSameInBothFormats) {
  const std::string texts[] = {toToml(kEverything), toJsonDocument(kEverything, false),
                               toJsonDocument(kEverything, true)};
  for (const std::string& text : texts) {
    const Document back = read(text);
    ASSERT_EQ(back.size(), kEverything.size()) << text;
    for (std::size_t i = 0; i < back.size(); ++i) {
      EXPECT_EQ(back[i].key, kEverything[i].key);
      EXPECT_EQ(back[i].value, kEverything[i].value) << back[i].key;
      EXPECT_EQ(back[i].form, kEverything[i].form) << back[i].key;
      EXPECT_EQ(back[i].problem, "") << back[i].key;
    }
  }
}

TEST(DocumentTest, LooksAsPeopleWouldWriteIt) {
  const Document document = {{"net.host", Form::Text, {"x"}, ""},
                             {"net.dns", Form::List, {"a", "\xff"}, ""},
                             {"net.mtu", Form::Number, {"1500"}, ""}};
  EXPECT_EQ(toToml(document),
            "\"net.host\" = \"x\"\n"
            "\"net.dns\" = [\"a\", { base64 = \"/w==\" }]\n"
            "\"net.mtu\" = 1500\n");
  EXPECT_EQ(toJsonDocument(document, false),
            "{\n  \"net.host\": \"x\",\n  \"net.dns\": [\"a\", {\"base64\": \"/w==\"}],\n"
            "  \"net.mtu\": 1500\n}\n");
  EXPECT_EQ(toJsonDocument({}, false), "{}\n");
  EXPECT_EQ(toToml({}), "");
}

TEST(DocumentTest, ANumberOrBooleanThatWouldReadBackAsOtherBytesIsText) {
  for (const char* const number : {"+5", "007", "-0", " 1", "0x10", "99999999999999999999", ""}) {
    EXPECT_EQ(toToml({{"a.b", Form::Number, {number}, ""}}),
              "\"a.b\" = \"" + std::string(number) + "\"\n");
  }
  EXPECT_EQ(toToml({{"a.b", Form::Bool, {"yes"}, ""}}), "\"a.b\" = \"yes\"\n");
}

TEST(DocumentTest, TomlTablesNameGroupsAndEntriesKeepTheOrderOfTheFile) {
  const Document document =
      read("z.y = 1\n[net]\nhost = \"x\"\n[net.eth]\nmtu = 2\n[a]\nb = [true]\n");
  ASSERT_EQ(document.size(), 4U);
  EXPECT_EQ(document[0].key, "z.y");
  EXPECT_EQ(document[1].key, "net.host");
  EXPECT_EQ(document[2].key, "net.eth.mtu");
  EXPECT_EQ(document[3].key, "a.b");
  EXPECT_EQ(document[3].value, Value({"true"}));
}

TEST(DocumentTest, AValueThatNoVariableCanHaveSpoilsItsEntryAlone) {
  const char* const texts[] = {
      "a.b = 1.5\nc.d = \"x\"\n",
      "a.b = 1979-05-27\nc.d = \"x\"\n",
      "a.b = [[1]]\nc.d = \"x\"\n",
      "a.b = { base64 = \"*\" }\nc.d = \"x\"\n",
      "a.b = { other = \"//4=\" }\nc.d = \"x\"\n",
      R"({"a.b": 1.5, "c.d": "x"})",
      R"({"a.b": null, "c.d": "x"})",
      R"({"a.b": [["y"]], "c.d": "x"})",
      R"({"a.b": ["y", {"base64": {"base64": ["z"]}}], "c.d": "x"})",
      R"({"a.b": {}, "c.d": "x"})",
      R"({"a.b": {"base64": "*"}, "c.d": "x"})",
      R"({"a.b": {"base64": "//4=", "more": 1}, "c.d": "x"})",
      R"({"a.b": {"base64": "//4=", "base64": "//4="}, "c.d": "x"})",
      R"({"a.b": {"other": "//4="}, "c.d": "x"})",
  };
  for (const char* const text : texts) {
    const Document document = read(text);
    ASSERT_EQ(document.size(), 2U) << text;
    EXPECT_EQ(document[0].problem, kNoValue) << text;
    EXPECT_EQ(document[1].problem, "") << text;
    EXPECT_EQ(document[1].value, Value({"x"})) << text;
  }
}

TEST(DocumentTest, ATextThatIsNoDocumentIsRefusedWithItsPlace) {
  EXPECT_THAT(complaint("a.b = \n"), StartsWith("file:1:"));
  EXPECT_THAT(complaint("a.b = 1\na.b = 2\n"), StartsWith("file:2:"));
  EXPECT_THAT(complaint("{\"a.b\": }"), HasSubstr("line 1"));
  EXPECT_THAT(complaint("{\"a.b\": 1"), HasSubstr("line 1"));
  EXPECT_THAT(complaint("{\"a.b\": \"\xff\"}"), HasSubstr("file: at byte"));
  EXPECT_THAT(complaint("a.b = \"\xff\"\n"), StartsWith("file:1:"));
  Document document;
  for (const char* const text : {"[]", "1", "\"x\"", "null", ""}) {
    EXPECT_EQ(readJson(text, "file", document).code, kExitFailed) << text;
  }
}

TEST(DocumentTest, ALetterOfAnyAlphabetIsNoBlank) {
  for (const char* letter : {"\u00fc", "\u03b1", "\u2e80", "\u30a2", "\ufdf0"}) {
    const Document document = read(std::string("\"a.b\" = \"\"\"\\\n  ") + letter + "\"\"\"\n");
    ASSERT_EQ(document.size(), 1U);
    EXPECT_EQ(document[0].value, Value{letter});
  }
}

TEST(DocumentTest, BothOfTwoEntriesOfOneKeyAreReadFromJson) {
  EXPECT_EQ(read(R"({"a.b": 1, "a.b": 2})").size(), 2U);
}

TEST(DocumentTest, NestingThatWouldExhaustTheStackIsRefused) {
  std::string dotted;
  for (int i = 0; i < 100000; ++i) dotted += "a.";
  EXPECT_THAT(complaint(dotted + "a = 1\n"), HasSubstr("dots"));
  EXPECT_THAT(complaint("x = \"\"\"\n\"\"\"\ny = [\"\"\"\"\"\", {" + dotted + "a = 1}]\n"),
              HasSubstr("dots"));
  complaint("a = " + std::string(100000, '['));
  const Document document =
      read("{\"a.b\": " + std::string(100000, '[') + "1" + std::string(100000, ']') + "}");
  EXPECT_EQ(document[0].problem, kNoValue);
}

TEST(DocumentTest, AnEmptyFileIsADocumentWithoutEntries) {
  EXPECT_TRUE(read("").empty());
  EXPECT_TRUE(read("# nothing\n").empty());
  EXPECT_TRUE(read(" {}").empty());
}

}  // namespace
}  // namespace AppCfgTool
