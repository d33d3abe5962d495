// The TOML of the reference page works: its blocks are loaded as files that follow each other.
#include <gtest/gtest.h>

#include "tests/configsrv/definitions/definitions_dir.h"

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

// Whoever adds a field writes it into the page: the loader suggests only fields that it knows.
TEST(DefinitionsPageTest, TheFieldsItListsAreKnown) {
  const std::string page = readFile(DEFINITIONS_PAGE);
  for (const char* field :
       {"type", "default", "min", "max", "max-length", "max-elements", "pattern", "options",
        "default-index", "read-role", "write-role", "read-only", "secret", "namespace",
        "group-instances", "instances", "description"}) {
    EXPECT_NE(page.find('`' + std::string(field) + '`'), std::string::npos) << field;
    DefinitionsDir directory;
    directory.with("a.toml", "[variable.\"a.b\"]\n" + std::string(field) + " = 1.5\n");
    EXPECT_EQ(directory.mistakes().find("is no field"), std::string::npos) << field;
  }
}

// What the page says in numbers.
TEST(DefinitionsPageTest, ItsLimitsAreTheOnesInForce) {
  const std::string page = readFile(DEFINITIONS_PAGE);
  for (const std::size_t limit :
       {kMaxValueBytes, kMaxElements, kMaxDescriptionBytes, kMaxInstances, kMaxVariables}) {
    EXPECT_NE(page.find(std::to_string(limit)), std::string::npos) << limit;
  }
}

}  // namespace
}  // namespace ConfigSrv
