#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <random>

#include "configsrv/definitions/pattern.h"
#include "tests/configsrv/definitions/definitions_dir.h"

namespace ConfigSrv {
namespace {

using Value = std::list<std::string>;

class LoadDefinitionsTest : public testing::Test {
 protected:
  // The shape of a variable that has to exist.
  VariableShape shapeOf(const std::string& key) {
    definitions_ = directory_.definitions();
    const VariableDefinition* const found = definitions_.find(keyOf(key));
    EXPECT_NE(found, nullptr) << key;
    return found == nullptr ? VariableShape() : *found->shape;
  }
  std::vector<std::string> keys() {
    std::vector<std::string> keys;
    definitions_ = directory_.definitions();
    for (const VariableDefinition& definition : definitions_) {
      keys.push_back(AppConfig::formatKey(definition.key));
    }
    return keys;
  }

  DefinitionsDir directory_;
  Definitions definitions_;
};

TEST_F(LoadDefinitionsTest, EveryFieldReachesTheShape) {
  directory_.with("a.toml", R"(
[variable."Network.HostName"]
type = "string"
default = "gateway"
max-length = 63
pattern = "[a-z]+"
options = ["gateway", "other"]
read-role = "user"
write-role = "installer"
read-only = true
secret = true
description = "Name of the device"

[variable."network.mtu"]
type = "int"
default = 1500
min = 576
max = 9000

[variable."network.servers"]
type = "list"
default = ["a", "b"]
max-elements = 4

[variable."network.up"]
type = "bool"
default = true
)");
  const VariableShape hostname = shapeOf("network.hostname");
  EXPECT_EQ(hostname.type, ValueType::String);
  EXPECT_EQ(hostname.defaultValue, Value{"gateway"});
  EXPECT_EQ(hostname.maxLength, 63U);
  ASSERT_NE(hostname.pattern, nullptr);
  EXPECT_EQ(hostname.pattern->text(), "[a-z]+");
  EXPECT_EQ(hostname.options, (std::vector<std::string>{"gateway", "other"}));
  EXPECT_EQ(hostname.readRole, AppConfig::eRoleUser);
  EXPECT_EQ(hostname.writeRole, AppConfig::eRoleInstaller);
  EXPECT_TRUE(hostname.readOnly);
  EXPECT_TRUE(hostname.secret);
  EXPECT_EQ(hostname.description, "Name of the device");
  EXPECT_EQ(hostname.file, directory_.path() + "/a.toml");
  EXPECT_EQ(hostname.line, 2U);
  const VariableShape mtu = shapeOf("network.mtu");
  EXPECT_EQ(mtu.type, ValueType::Int);
  EXPECT_EQ(mtu.defaultValue, Value{"1500"});
  EXPECT_EQ(mtu.min, 576);
  EXPECT_EQ(mtu.max, 9000);
  const VariableShape servers = shapeOf("network.servers");
  EXPECT_EQ(servers.defaultValue, (Value{"a", "b"}));
  EXPECT_EQ(servers.maxElements, 4U);
  EXPECT_EQ(shapeOf("network.up").defaultValue, Value{"true"});
}

TEST_F(LoadDefinitionsTest, WhatIsLeftOutHasTheDocumentedValue) {
  directory_.with("a.toml", R"(
variable."a.string" = { type = "string" }
variable."a.int" = { type = "int" }
variable."a.bool" = { type = "bool" }
variable."a.list" = { type = "list" }
variable."a.choice" = { type = "enumeration", options = ["x", "y"] }
variable."a.index" = { type = "enumeration", options = ["x", "y"], default-index = 1 }
variable."a.named" = { type = "enumeration", options = ["x", "y"], default = "y" }
variable."a.hidden" = { type = "string", secret = true, write-role = "service" }
variable."a.shown" = { type = "string", secret = true, read-role = "public" }
)");
  EXPECT_EQ(shapeOf("a.string").defaultValue, Value{""});
  EXPECT_EQ(shapeOf("a.int").defaultValue, Value{"0"});
  EXPECT_EQ(shapeOf("a.bool").defaultValue, Value{"false"});
  EXPECT_EQ(shapeOf("a.list").defaultValue, Value{});
  EXPECT_EQ(shapeOf("a.choice").defaultValue, Value{"x"});
  EXPECT_EQ(shapeOf("a.index").defaultValue, Value{"y"});
  EXPECT_EQ(shapeOf("a.named").defaultIndex, 1U);
  EXPECT_EQ(shapeOf("a.string").readRole, AppConfig::eRolePublic);
  EXPECT_EQ(shapeOf("a.string").writeRole, AppConfig::eRoleUser);
  EXPECT_EQ(shapeOf("a.hidden").readRole, AppConfig::eRoleService);
  EXPECT_EQ(shapeOf("a.shown").readRole, AppConfig::eRolePublic);
}

TEST_F(LoadDefinitionsTest, InstancesAreListedOrCountedAndCombined) {
  directory_.with("a.toml", R"(
variable."a.b" = { type = "int", group-instances = [5, -1], instances = { from = 0, to = 2 } }
)");
  EXPECT_EQ(keys(), (std::vector<std::string>{"a[-1].b", "a[-1].b[1]", "a[-1].b[2]", "a[5].b",
                                              "a[5].b[1]", "a[5].b[2]"}));
}

TEST_F(LoadDefinitionsTest, InstancesOfOneDefinitionShareItsShape) {
  directory_.with("a.toml", "variable.\"a.b\" = { type = \"int\", instances = [0, 1] }\n");
  const Definitions definitions = directory_.definitions();
  EXPECT_EQ(definitions.find(keyOf("a.b"))->shape, definitions.find(keyOf("a.b[1]"))->shape);
}

TEST_F(LoadDefinitionsTest, TheNamespaceStandsInTheKeyOrInAField) {
  directory_.with("a.toml", R"(
variable."3:a.b" = { type = "int" }
variable."a.b" = { type = "int", namespace = 4 }
variable."5:a.b" = { type = "int", namespace = 5 }
)");
  EXPECT_EQ(keys(), (std::vector<std::string>{"3:a.b", "4:a.b", "5:a.b"}));
}

TEST_F(LoadDefinitionsTest, ALaterFileChangesSingleFields) {
  directory_
      .with("10-product.toml", R"(
[variable."network.mtu"]
type = "int"
default = 1500
max = 9000
)")
      .with("50-vendor.toml", "[variable.\"Network.MTU\"]\nmax = 1500\n");
  const VariableShape mtu = shapeOf("network.mtu");
  EXPECT_EQ(mtu.max, 1500);
  EXPECT_EQ(mtu.defaultValue, Value{"1500"});
  EXPECT_EQ(mtu.file, directory_.path() + "/10-product.toml");
}

TEST_F(LoadDefinitionsTest, FilesFollowEachOtherInByteOrderOfTheirNames) {
  const char* const names[] = {"10.toml", "9.toml", "B.toml", "a.toml"};
  for (int i = 3; i >= 0; --i) {
    directory_.with(names[i],
                    "variable.\"a.b\" = { type = \"int\", default = " + std::to_string(i) + " }\n");
    EXPECT_EQ(shapeOf("a.b").defaultValue, Value{"3"});
  }
}

TEST_F(LoadDefinitionsTest, ALaterDefaultReplacesAnEarlierIndexAndTheReverse) {
  directory_
      .with("1.toml", R"(
variable."a.b" = { type = "enumeration", options = ["x", "y"], default-index = 0 }
variable."a.c" = { type = "enumeration", options = ["x", "y"], default = "x" }
)")
      .with("2.toml", R"(
variable."a.b".default = "y"
variable."a.c".default-index = 1
)");
  EXPECT_EQ(shapeOf("a.b").defaultIndex, 1U);
  EXPECT_EQ(shapeOf("a.c").defaultValue, Value{"y"});
}

TEST_F(LoadDefinitionsTest, ALaterFileMayCountOtherInstances) {
  directory_.with("1.toml", "variable.\"a.b\" = { type = \"int\", instances = [0, 1] }\n")
      .with("2.toml", "variable.\"a.b\" = { instances = [1, 2] }\n");
  EXPECT_EQ(keys(), (std::vector<std::string>{"a.b[1]", "a.b[2]"}));
}

TEST_F(LoadDefinitionsTest, ADefinitionThatNamesAnInstanceRefinesTheOneThatCountsIt) {
  directory_
      .with("1.toml", R"(
variable."a.b[1]".max = 7
variable."a[2].b".max = 8
variable."a[2].b[1]".min = -5
[variable."a.b"]
type = "int"
max = 5
group-instances = [0, 2]
instances = [0, 1]
)")
      .with("2.toml", "variable.\"a.b\".max = 6\nvariable.\"a[2].b\".instances = [0]\n");
  EXPECT_EQ(shapeOf("a.b").max, 6);
  EXPECT_EQ(shapeOf("a.b[1]").max, 7);
  EXPECT_EQ(shapeOf("a[2].b").max, 8);
  EXPECT_EQ(shapeOf("a[2].b[1]").max, 6);
  EXPECT_EQ(shapeOf("a[2].b[1]").min, -5);
}

TEST_F(LoadDefinitionsTest, AnInstanceThatNobodyCountsIsAVariableOfItsOwn) {
  directory_.with("1.toml", "variable.\"a.b[4]\" = { type = \"int\" }\n");
  EXPECT_EQ(keys(), std::vector<std::string>{"a.b[4]"});
}

TEST_F(LoadDefinitionsTest, AMistakeThatALayerMakesIsReportedInThatLayer) {
  directory_.with("1.toml", "variable.\"a.b\" = { type = \"int\", default = 50 }\n")
      .with("2.toml", "\nvariable.\"a.b\".max = 40\n");
  EXPECT_EQ(directory_.mistakes(),
            "2.toml:2:16: variable \"a.b\": \"default\": \"50\" is more than 40, the largest value "
            "allowed\n");
}

TEST_F(LoadDefinitionsTest, AllMistakesOfAllFilesAreFoundInOneRun) {
  directory_.with("1.toml", "variable.\"a.b\".type = \"integer\"\nvariable.\"a\" = {}\n")
      .with("2.toml", "variable.\"a.c\" = { type = \"int\", mni = 5 }\n")
      .with("3.toml", "variable.\"a.d\" = { type = \"bool\", min = 5 }\n");
  const std::string mistakes = directory_.mistakes();
  EXPECT_EQ(std::count(mistakes.begin(), mistakes.end(), '\n'), 4) << mistakes;
}

TEST_F(LoadDefinitionsTest, AMistakeOfManyInstancesIsSaidOnce) {
  directory_.with("1.toml", R"(
variable."a.b" = { type = "int", min = 5, instances = { from = 0, to = 999 } }
variable."a.b[5]" = { max = 100 }
)");
  const std::string mistakes = directory_.mistakes();
  EXPECT_EQ(std::count(mistakes.begin(), mistakes.end(), '\n'), 2) << mistakes;
}

TEST_F(LoadDefinitionsTest, WhatOnlyAMissingFileMakesWrongIsNotReported) {
  directory_.with("1.toml", "[variable.\"a.b\"\ntype = \"int\"\n")
      .with("2.toml", "variable.\"a.b\".max = 40\nvariable.\"a.c\".mxa = 5\n");
  EXPECT_EQ(directory_.mistakes(),
            "1.toml:1:16: Error while parsing table header: expected ']', saw '\\n'\n"
            "2.toml:2:16: variable \"a.c\": \"mxa\" is no field, did you mean \"max\"?\n");
}

TEST_F(LoadDefinitionsTest, OneMistakeMeansNoDefinitionsAtAll) {
  directory_.with("1.toml", "variable.\"a.b\".type = \"int\"\n").with("2.toml", "nonsense = 1\n");
  const LoadResult result = directory_.load();
  EXPECT_EQ(result.mistakes.size(), 1U);
  EXPECT_TRUE(result.definitions.empty());
}

TEST_F(LoadDefinitionsTest, ADirectoryWithoutDefinitionFilesIsAMistake) {
  directory_.with("readme.txt", "").with(".hidden.toml", "").with(".toml", "");
  const LoadResult result = directory_.load();
  EXPECT_EQ(formatMistakes(result.mistakes),
            directory_.path() +
                ": the directory holds no file that ends in \".toml\", and so no variable\n");
}

TEST_F(LoadDefinitionsTest, ADirectoryThatCannotBeReadIsAMistake) {
  const LoadResult result = loadDefinitions({directory_.path() + "/none"});
  EXPECT_EQ(formatMistakes(result.mistakes),
            directory_.path() + "/none: the directory cannot be read: No such file or directory\n");
}

TEST_F(LoadDefinitionsTest, AFileThatCannotBeReadIsAMistake) {
  std::filesystem::create_directory(directory_.path() + "/1.toml");
  std::filesystem::create_symlink("/nowhere", directory_.path() + "/2.toml");
  EXPECT_EQ(directory_.mistakes(),
            "1.toml: cannot be read: it is no regular file\n"
            "2.toml: cannot be read: No such file or directory\n");
}

TEST_F(LoadDefinitionsTest, AFileWithoutVariablesIsAllowed) {
  directory_.with("1.toml", "# nothing yet\n");
  EXPECT_TRUE(directory_.definitions().empty());
}

TEST_F(LoadDefinitionsTest, TheLargestNumberOfVariablesLoadsAndOneMoreDoesNot) {
  std::string text;
  for (const char* name : {"a", "b", "c", "d"}) {
    text += std::string("variable.\"x.") + name +
            "\" = { type = \"bool\", instances = { from = 0, to = 65535 } }\n";
  }
  directory_.with("1.toml", text);
  EXPECT_EQ(directory_.definitions().size(), kMaxVariables);
  directory_.with("2.toml", "variable.\"x.e\".type = \"bool\"\n");
  EXPECT_EQ(directory_.mistakes(),
            "2.toml:1:10: variable \"x.e\": with its instances there are more than 262144 "
            "variables, the most allowed\n");
}

TEST_F(LoadDefinitionsTest, AVeryLongListOfOptionsIsRefused) {
  std::string options;
  for (std::size_t i = 0; i <= kMaxOptions; ++i) options += "\"" + std::to_string(i) + "\",\n";
  directory_.with("1.toml", "[variable.\"a.b\"]\ntype = \"string\"\noptions = [" + options + "]\n");
  EXPECT_EQ(directory_.mistakes(),
            "1.toml:3:1: variable \"a.b\": \"options\" has 1025 entries, and 1024 at most are "
            "allowed\n");
}

// Pieces that nearly make a definition, so that the rubbish gets past the parser.
TEST_F(LoadDefinitionsTest, RubbishIsRefusedOrLoadedAndNeverMore) {
  std::mt19937 random(8);
  const char* const pieces[] = {"[variable.\"a.b\"]\n",
                                "[variable.\"a.b[1]\"]\n",
                                "type = \"int\"\n",
                                "type = \"list\"\n",
                                "min = 5\n",
                                "max = -9223372036854775808\n",
                                "default = 5\n",
                                "default = [\"x\"]\n",
                                "options = [\"x\"]\n",
                                "options = []\n",
                                "default-index = 9\n",
                                "pattern = \"(\"\n",
                                "namespace = 1\n",
                                "instances = {}\n",
                                "instances = [0, 1]\n",
                                "group-instances = {from = 0, to = 3}\n",
                                "max-length = 0\n",
                                "= \x01\n"};
  for (int round = 0; round < 1000; ++round) {
    std::string text = pieces[random() % 2];
    for (std::uint32_t count = random() % 8; count > 0; --count) {
      text += pieces[random() % std::size(pieces)];
    }
    directory_.with("1.toml", text);
    const LoadResult result = directory_.load();
    EXPECT_NE(result.mistakes.empty(), result.definitions.empty()) << text;
  }
}

TEST_F(LoadDefinitionsTest, TenThousandDefinitionsLoad) {
  std::string text;
  for (int i = 1; i <= 10000; ++i) {
    const std::string number = std::to_string(i);
    text += "[variable.\"group" + std::to_string(i % 100) + ".name" + number +
            "\"]\ntype = \"int\"\ndefault = 5\nmin = 0\nmax = " + number +
            "0\nwrite-role = \"installer\"\ndescription = \"The variable of number " + number +
            "\"\n\n";
  }
  directory_.with("1.toml", text);
  EXPECT_EQ(directory_.definitions().size(), 10000U);
  EXPECT_EQ(shapeOf("group99.name9999").max, 99990);
}

}  // namespace
}  // namespace ConfigSrv
