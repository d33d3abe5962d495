#include "configsrv/definitions/definitions.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "configsrv/definitions/pattern.h"
#include "tests/configsrv/definitions/definitions_dir.h"

namespace ConfigSrv {
namespace {

VariableDefinition variable(const ConfigVar& key, const VariableShape& shape = {}) {
  return {key, std::make_shared<const VariableShape>(shape)};
}

TEST(DefinitionsTest, FindsByTheWholeKey) {
  const Definitions definitions(
      {variable(keyOf("a.b[2]")), variable(keyOf("a.b")), variable(keyOf("3:a.b"))});
  for (const char* key : {"a.b", "a.b[2]", "3:a.b"}) {
    ASSERT_NE(definitions.find(keyOf(key)), nullptr) << key;
    EXPECT_EQ(AppConfig::formatKey(definitions.find(keyOf(key))->key), key);
  }
  for (const char* key : {"a.b[1]", "2:a.b", "a.c", "a[2].b"}) {
    EXPECT_EQ(definitions.find(keyOf(key)), nullptr) << key;
  }
  EXPECT_EQ(Definitions().find(keyOf("a.b")), nullptr);
}

TEST(DefinitionsTest, IteratesInTheOrderOfTheKeys) {
  const Definitions definitions({variable(keyOf("3:a.a")), variable(keyOf("b.a")),
                                 variable(keyOf("a.b[2]")), variable(keyOf("a.b[-1]"))});
  std::vector<std::string> keys;
  for (const VariableDefinition& definition : definitions) {
    keys.push_back(AppConfig::formatKey(definition.key));
  }
  EXPECT_EQ(keys, (std::vector<std::string>{"a.b[-1]", "a.b[2]", "b.a", "3:a.a"}));
}

VariableShape shapeForDigest() {
  VariableShape shape;
  shape.type = ValueType::Int;
  shape.defaultValue = {"5"};
  shape.options = {"5", "6"};
  shape.min = 1;
  shape.max = 10;
  return shape;
}

std::uint64_t digestOf(const VariableShape& shape) {
  return Definitions({variable(keyOf("network.mtu"), shape)}).digest();
}

// A figure that changed is a store that no longer knows its definitions: the digest is the same on
// every machine and in every version.
TEST(DefinitionsTest, TheDigestOfTheSameContentNeverChanges) {
  EXPECT_EQ(Definitions().digest(), 0xcbf29ce484222325U);
  EXPECT_EQ(digestOf(shapeForDigest()), 4430840466097000474U);
}

TEST(DefinitionsTest, TheDigestDoesNotDependOnOrderPlaceOrDescription) {
  VariableShape described = shapeForDigest();
  described.description = "text";
  described.file = "b.toml";
  described.line = 7;
  EXPECT_EQ(digestOf(described), digestOf(shapeForDigest()));
  EXPECT_EQ(Definitions({variable(keyOf("a.b")), variable(keyOf("a.c"))}).digest(),
            Definitions({variable(keyOf("a.c")), variable(keyOf("a.b"))}).digest());
}

TEST(DefinitionsTest, TheDigestSeesEverythingThatDecidesOverValues) {
  std::string reason;
  const auto pattern = Pattern::compile("a", reason);
  const std::vector<void (*)(VariableShape&)> changes = {
      [](VariableShape& s) { s.type = ValueType::String; },
      [](VariableShape& s) { s.defaultValue = {"6"}; },
      [](VariableShape& s) {
        s.defaultValue = {"5", ""};
      },
      [](VariableShape& s) {
        s.options = {"6", "5"};
      },
      [](VariableShape& s) { s.options = {"56"}; },
      [](VariableShape& s) { s.defaultIndex = 1; },
      [](VariableShape& s) { s.min = 0; },
      [](VariableShape& s) { s.min.reset(); },
      [](VariableShape& s) { s.max = 11; },
      [](VariableShape& s) { s.maxLength = 0; },
      [](VariableShape& s) { s.maxElements = 0; },
      [](VariableShape& s) { s.readRole = AppConfig::eRoleUser; },
      [](VariableShape& s) { s.writeRole = AppConfig::eRoleService; },
      [](VariableShape& s) { s.readOnly = true; },
      [](VariableShape& s) { s.secret = true; },
  };
  std::vector<std::uint64_t> digests = {digestOf(shapeForDigest())};
  for (const auto change : changes) {
    VariableShape shape = shapeForDigest();
    change(shape);
    digests.push_back(digestOf(shape));
  }
  VariableShape patterned = shapeForDigest();
  patterned.pattern = pattern;
  digests.push_back(digestOf(patterned));
  std::sort(digests.begin(), digests.end());
  EXPECT_EQ(std::adjacent_find(digests.begin(), digests.end()), digests.end());
}

TEST(DefinitionsTest, TheDigestSeesEveryPartOfTheKey) {
  std::vector<std::uint64_t> digests;
  for (const char* key : {"a.b", "1:a.b", "a[1].b", "a.b[1]", "a.bc", "ab.c", "a.b.c"}) {
    digests.push_back(Definitions({variable(keyOf(key))}).digest());
  }
  std::sort(digests.begin(), digests.end());
  EXPECT_EQ(std::adjacent_find(digests.begin(), digests.end()), digests.end());
}

}  // namespace
}  // namespace ConfigSrv
