#include "configsrv/toml/document.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <random>

#include "tests/support/temp_dir.h"

namespace ConfigSrv {
namespace {

TomlValue rootOf(const std::string& text) {
  TomlDocument document = parseToml(text, "test.toml");
  EXPECT_FALSE(document.mistake) << document.mistake->text;
  return document.root.value_or(TomlValue());
}

std::string mistakeIn(const TomlDocument& document) {
  EXPECT_FALSE(document.root);
  return document.mistake ? formatMistake(*document.mistake) : "no mistake";
}

TEST(TomlDocumentTest, GivesEachKindOfValueItsMember) {
  const TomlValue root = rootOf(
      "s = \"text\"\ni = -5\nf = 1.5\nb = true\nd = 2024-01-01\na = [1, \"x\"]\n[t]\nin = 0x10\n");
  ASSERT_EQ(root.table.size(), 7U);
  EXPECT_EQ(root.table[0].value.string, "text");
  EXPECT_EQ(root.table[1].value.integer, -5);
  EXPECT_EQ(root.table[2].value.kind, TomlKind::Float);
  EXPECT_TRUE(root.table[3].value.boolean);
  EXPECT_EQ(root.table[4].value.kind, TomlKind::DateTime);
  ASSERT_EQ(root.table[5].value.array.size(), 2U);
  EXPECT_EQ(root.table[5].value.array[1].string, "x");
  ASSERT_EQ(root.table[6].value.table.size(), 1U);
  EXPECT_EQ(root.table[6].value.table[0].value.integer, 16);
}

TEST(TomlDocumentTest, EntriesStandInTheOrderOfTheFileWithTheirPlaces) {
  const TomlValue root = rootOf("z = 1\n  a = 2\n");
  ASSERT_EQ(root.table.size(), 2U);
  EXPECT_EQ(root.table[0].name, "z");
  EXPECT_EQ(root.table[1].name, "a");
  EXPECT_EQ(root.table[1].line, 2U);
  EXPECT_EQ(root.table[1].column, 3U);
  EXPECT_EQ(root.table[1].value.column, 7U);
}

TEST(TomlDocumentTest, AnEmptyTextIsAnEmptyTable) { EXPECT_TRUE(rootOf("").table.empty()); }

TEST(TomlDocumentTest, WhatIsNotTomlIsReportedWithItsPlace) {
  EXPECT_EQ(mistakeIn(parseToml("a = 1\nb = \n", "x.toml")).substr(0, 11), "x.toml:2:5:");
}

// The parser's own table of blanks has no answer for these, which its compiler was told never come.
TEST(TomlDocumentTest, ALetterOfAnyAlphabetIsNoBlank) {
  for (const char* letter : {"\u00fc", "\u03b1", "\u2e80", "\u30a2", "\ufdf0"}) {
    const TomlValue root = rootOf(std::string("a = \"\"\"\\\n  ") + letter + "\"\"\"\n");
    EXPECT_EQ(root.table.at(0).value.string, letter);
    EXPECT_NE(mistakeIn(parseToml(std::string("x = 1\n") + letter + " = 2\n", "test.toml")),
              "no mistake");
  }
}

TEST(TomlDocumentTest, DepthByBracketsAndByDotsIsRefused) {
  const auto repeated = [](const std::string& text, int times) {
    std::string out;
    for (int i = 0; i < times; ++i) out += text;
    return out;
  };
  for (const std::string& text :
       {"a = " + repeated("[", 100000), "a = " + repeated("{a = ", 100000),
        repeated("a.", 100000) + "a = 1", "[" + repeated("a.", 100000) + "a]",
        repeated("a = [{" + repeated("a.", 199) + "a = [\n", 100)}) {
    EXPECT_NE(mistakeIn(parseToml(text, "deep.toml")), "no mistake") << text.substr(0, 20);
  }
}

// The deepest text that is let through: every level of brackets with all its dots.
TEST(TomlDocumentTest, DepthWithinTheLimitsIsReadAndReleased) {
  std::string dots;
  for (std::size_t i = 0; i < kMaxDotsPerLine; ++i) dots += "a.";
  std::string text = "[" + dots + "a]\n" + dots + "a = ";
  std::string closing;
  for (int level = 0; level < 7; ++level) {
    text += "[\n{" + dots + "a = ";
    closing += "}\n]";
  }
  EXPECT_EQ(rootOf(text + "1" + closing + "\n").table.size(), 1U);
}

TEST(TomlDocumentTest, RubbishIsAMistakeOrATreeAndNeverMore) {
  std::mt19937 random(5);
  const std::string alphabet = "ab.=[]{}\"'\n#,1-+_ \\\t\xff";
  for (int round = 0; round < 20000; ++round) {
    std::string text(random() % 60, '\0');
    for (char& c : text) c = alphabet[random() % alphabet.size()];
    const TomlDocument document = parseToml(text, "rubbish.toml");
    EXPECT_NE(document.root.has_value(), document.mistake.has_value()) << text;
  }
}

class TomlFileTest : public testing::Test {
 protected:
  std::string write(const std::string& name, const std::string& text) {
    std::ofstream(directory_.file(name), std::ios::binary) << text;
    return directory_.file(name);
  }
  TestSupport::TempDir directory_;
};

TEST_F(TomlFileTest, IsReadWhole) {
  const std::string text = "a = \"" + std::string(300000, 'x') + "\"\n";
  const TomlDocument document = readToml(write("a.toml", text));
  ASSERT_TRUE(document.root);
  EXPECT_EQ(document.root->table[0].value.string.size(), 300000U);
}

TEST_F(TomlFileTest, AMissingFileIsAMistake) {
  const std::string path = directory_.file("none.toml");
  EXPECT_EQ(mistakeIn(readToml(path)), path + ": cannot be read: No such file or directory");
}

TEST_F(TomlFileTest, ADirectoryOrAPipeIsRefusedWithoutWaiting) {
  ASSERT_EQ(::mkfifo(directory_.file("pipe.toml").c_str(), 0600), 0);
  for (const std::string& path : {directory_.path(), directory_.file("pipe.toml")}) {
    EXPECT_EQ(mistakeIn(readToml(path)), path + ": cannot be read: it is no regular file");
  }
}

TEST_F(TomlFileTest, AFileOfTheLargestSizeIsReadAndOneByteMoreIsNot) {
  std::string text(kMaxTomlBytes, '#');
  EXPECT_TRUE(readToml(write("full.toml", text)).root);
  text += '#';
  EXPECT_EQ(mistakeIn(readToml(write("over.toml", text))),
            directory_.file("over.toml") +
                ": the file is larger than 4194304 bytes, the most that is read: spread it over "
                "several files");
}

}  // namespace
}  // namespace ConfigSrv
