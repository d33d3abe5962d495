// Each file in bad/ is loaded alone, and has beside it what is then printed: NAME.toml and
// NAME.expected. A bad file that is found in the field is added there and stays.
#include <gtest/gtest.h>

#include <filesystem>
#include <set>

#include "tests/configsrv/definitions/definitions_dir.h"

namespace ConfigSrv {
namespace {

std::set<std::string> namesEndingIn(const std::string& ending) {
  std::set<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(BAD_FILES_DIR)) {
    if (entry.path().extension() == ending) names.insert(entry.path().stem());
  }
  return names;
}

TEST(BadDefinitionFilesTest, EachHasItsExpectation) {
  EXPECT_EQ(namesEndingIn(".toml"), namesEndingIn(".expected"));
}

class BadFileTest : public testing::TestWithParam<std::string> {};

TEST_P(BadFileTest, IsRefusedWithTheExpectedMistakes) {
  const std::string path = std::string(BAD_FILES_DIR) + "/" + GetParam();
  DefinitionsDir directory;
  directory.with(GetParam() + ".toml", readFile(path + ".toml"));
  const std::string expected = readFile(path + ".expected");
  EXPECT_NE(expected, "");
  EXPECT_EQ(directory.mistakes(), expected);
}

INSTANTIATE_TEST_SUITE_P(All, BadFileTest, testing::ValuesIn(namesEndingIn(".toml")),
                         [](const auto& file) { return file.param; });

}  // namespace
}  // namespace ConfigSrv
