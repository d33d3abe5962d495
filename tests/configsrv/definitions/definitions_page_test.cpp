// The TOML of the reference page works: its blocks are loaded as files that follow each other.
#include <gtest/gtest.h>

#include <set>

#include "configsrv/definitions/internal/layers.h"
#include "tests/configsrv/definitions/definitions_dir.h"
#include "tests/support/man_page.h"

namespace ConfigSrv {
namespace {

std::vector<std::string> tomlBlocks(const std::string& page) {
  const std::string opening = "```toml\n";
  std::vector<std::string> blocks;
  std::size_t at = page.find(opening);
  while (at != std::string::npos) {
    const std::size_t begin = at + opening.size();
    const std::size_t end = page.find("```", begin);
    blocks.push_back(page.substr(begin, end - begin));
    at = page.find(opening, end);
  }
  return blocks;
}

Definitions loadPage() {
  DefinitionsDir directory;
  int number = 10;
  for (const std::string& block : tomlBlocks(readFile(DEFINITIONS_PAGE))) {
    directory.with(std::to_string(number++) + ".toml", block);
  }
  return directory.definitions();
}

TEST(DefinitionsPageTest, EveryBlockLoadsOnTopOfTheOnesBefore) {
  const Definitions definitions = loadPage();
  EXPECT_EQ(definitions.size(), 17U);
  const VariableDefinition* mode = definitions.find(keyOf("network.mode"));
  ASSERT_NE(mode, nullptr);
  EXPECT_EQ(mode->shape->defaultValue, std::list<std::string>{"static"});
  EXPECT_EQ(mode->shape->options.size(), 3U);
  const VariableDefinition* oven = definitions.find(keyOf("sensors.temp[7]"));
  ASSERT_NE(oven, nullptr);
  EXPECT_EQ(oven->shape->max, 400);
  EXPECT_EQ(oven->shape->min, -40);
  EXPECT_NE(definitions.find(keyOf("4:engine.speed")), nullptr);
}

// The first column of the table of fields.
std::set<std::string> fieldsOfTable(const std::string& page) {
  std::set<std::string> fields;
  std::istringstream table(
      page.substr(page.find("## Fields"), page.find("## Values") - page.find("## Fields")));
  for (std::string line; std::getline(table, line);) {
    if (line.rfind("| `", 0) != 0) continue;
    std::istringstream cell(line.substr(0, line.find('|', 1)));
    for (std::string piece; std::getline(cell, piece, '`');) {
      if (std::getline(cell, piece, '`')) fields.insert(piece);
    }
  }
  return fields;
}

std::set<std::string> knownFields() {
  const std::vector<std::string_view> names = fieldNames();
  return {names.begin(), names.end()};
}

// Whoever adds a field writes it into both pages, and whoever drops one takes it out.
TEST(DefinitionsPageTest, ItsTableHasTheFieldsThatAreKnownAndNoOthers) {
  EXPECT_EQ(fieldsOfTable(readFile(DEFINITIONS_PAGE)), knownFields());
}

TEST(DefinitionsPageTest, TheManualPageHasTheFieldsThatAreKnownAndNoOthers) {
  EXPECT_EQ(TestSupport::manPageTags(readFile(DEFINITIONS_MAN_PAGE), "FIELDS"), knownFields());
}

// What the pages say in numbers.
TEST(DefinitionsPageTest, ItsLimitsAreTheOnesInForce) {
  for (const char* name : {DEFINITIONS_PAGE, DEFINITIONS_MAN_PAGE}) {
    const std::string page = readFile(name);
    for (const std::size_t limit :
         {kMaxValueBytes, kMaxElements, kMaxDescriptionBytes, kMaxInstances, kMaxVariables}) {
      EXPECT_NE(page.find(std::to_string(limit)), std::string::npos) << name << ": " << limit;
    }
  }
}

}  // namespace
}  // namespace ConfigSrv
