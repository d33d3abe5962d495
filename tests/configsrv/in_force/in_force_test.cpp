#include "configsrv/in_force/in_force.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "tests/support/temp_dir.h"

namespace ConfigSrv {
namespace {

using AppConfig::eRoleInstaller;
using AppConfig::eRoleUser;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr uid_t kTechnician = 61001;
const char* const kGood = "[variable.\"net.mtu\"]\ntype = \"int\"\ndefault = 1500\n";
const char* const kMisspelled = "[variable.\"net.mtu\"]\ntype = \"int\"\ndefualt = 1500\n";
const char* const kRoles = "[users]\n61001 = \"installer\"\n";

class InForceTest : public testing::Test {
 protected:
  InForceTest() {
    std::filesystem::create_directory(directory_.file("d"));
    write("d/a.toml", kGood);
  }
  void write(const std::string& name, const std::string& text) {
    std::ofstream(directory_.file(name), std::ios::binary) << text;
    EXPECT_EQ(chmod(directory_.file(name).c_str(), 0644), 0);
  }
  // As a start of the service does it: whatever is good is kept.
  InForce start() {
    InForceFiles files(
        {{directory_.file("d")}, directory_.file("roles.toml"), directory_.file("store.db")});
    InForce inForce = files.read();
    if (inForce.isComplete) notKept_ = files.keep();
    return inForce;
  }
  static AppConfig::SecurityRole technician(const InForce& inForce) {
    return inForce.access.highestRole(kTechnician, kTechnician);
  }

  const TestSupport::TempDir directory_;
  std::vector<std::string> notKept_;
};

TEST_F(InForceTest, GoodFilesAreInForceAndNothingIsSaid) {
  write("roles.toml", kRoles);
  const InForce inForce = start();
  EXPECT_EQ(inForce.definitions.size(), 1U);
  EXPECT_EQ(technician(inForce), eRoleInstaller);
  EXPECT_THAT(inForce.errors, IsEmpty());
  EXPECT_THAT(inForce.warnings, IsEmpty());
  EXPECT_THAT(inForce.standing.mistakes, IsEmpty());
  EXPECT_THAT(notKept_, IsEmpty());
}

TEST_F(InForceTest, AMistakeLeavesTheLastGoodDefinitionsInForceAndIsSaid) {
  start();
  write("d/a.toml", kMisspelled);
  const InForce inForce = start();
  ASSERT_TRUE(inForce.isComplete);
  EXPECT_EQ(inForce.definitions.size(), 1U);
  EXPECT_TRUE(inForce.standing.lastGoodDefinitions);
  EXPECT_FALSE(inForce.standing.lastGoodRoles);
  EXPECT_THAT(inForce.standing.mistakes, ElementsAre(HasSubstr("d/a.toml:3:1: ")));
  EXPECT_THAT(
      inForce.errors,
      ElementsAre(HasSubstr("d/a.toml:3:1: "),
                  "the definitions have a mistake (see above): the last good ones, kept in " +
                      directory_.file("store.db.definitions") +
                      ", stay in force until the files are correct and the service is "
                      "started anew"));
}

TEST_F(InForceTest, WhatIsCorrectedIsInForceAgainAndKept) {
  start();
  write("d/a.toml", kMisspelled);
  start();
  write("d/a.toml", std::string(kGood) + "[variable.\"net.name\"]\ntype = \"string\"\n");
  EXPECT_EQ(start().definitions.size(), 2U);
  write("d/a.toml", "\xff\x01 rubbish");
  EXPECT_EQ(start().definitions.size(), 2U);
}

TEST_F(InForceTest, AMistakeIsNeverKept) {
  start();
  for (int i = 0; i < 3; ++i) {
    write("d/a.toml", kMisspelled);
    EXPECT_EQ(start().definitions.size(), 1U);
  }
}

TEST_F(InForceTest, DefinitionsThatAreGoneStayInForce) {
  start();
  std::filesystem::remove(directory_.file("d/a.toml"));
  EXPECT_EQ(start().definitions.size(), 1U);
  std::filesystem::remove(directory_.file("d"));
  const InForce inForce = start();
  EXPECT_EQ(inForce.definitions.size(), 1U);
  EXPECT_THAT(inForce.standing.mistakes, ElementsAre(HasSubstr("the directory cannot be read")));
}

TEST_F(InForceTest, WithoutAnythingGoodBeforeThereIsNothingToRunBy) {
  write("d/a.toml", kMisspelled);
  const InForce inForce = start();
  EXPECT_FALSE(inForce.isComplete);
  EXPECT_THAT(inForce.errors, ElementsAre(HasSubstr("d/a.toml:3:1: ")));
}

TEST_F(InForceTest, ADamagedMemoryIsSaidAndNotUsed) {
  start();
  write("store.db.definitions", "damaged");
  write("d/a.toml", kMisspelled);
  const InForce inForce = start();
  EXPECT_FALSE(inForce.isComplete);
  EXPECT_THAT(inForce.errors,
              ElementsAre(HasSubstr("d/a.toml:3:1: "),
                          directory_.file("store.db.definitions") +
                              ": what was good last cannot be used: it is damaged"));
}

TEST_F(InForceTest, ATableThatDoesNotParseLeavesTheLastGoodOneInForce) {
  write("roles.toml", kRoles);
  start();
  for (const char* bad : {"[users\n", "\xff\xfe rubbish", "[users]\n61001 = \"king\"\n"}) {
    write("roles.toml", bad);
    const InForce inForce = start();
    ASSERT_TRUE(inForce.isComplete) << bad;
    EXPECT_EQ(technician(inForce), eRoleInstaller) << bad;
    EXPECT_TRUE(inForce.standing.lastGoodRoles);
    EXPECT_FALSE(inForce.standing.lastGoodDefinitions);
    EXPECT_THAT(inForce.errors.back(), HasSubstr("the table of roles has a mistake"));
  }
}

TEST_F(InForceTest, TheLastGoodTableGrantsNothingToUsersWhoAreGone) {
  const std::string user = "somebody-who-was-here";
  write("roles.toml", std::string(kRoles) + user + " = \"factory\"\n");
  EXPECT_THAT(start().warnings, ElementsAre(HasSubstr("no user \"" + user + "\" is known here")));
  write("roles.toml", "[users\n");
  const InForce inForce = start();
  EXPECT_EQ(technician(inForce), eRoleInstaller);
  EXPECT_THAT(inForce.warnings, ElementsAre(HasSubstr("no user \"" + user + "\" is known here")));
}

TEST_F(InForceTest, ThatThereWasNoTableIsGoodAsWell) {
  start();
  write("roles.toml", "[users\n");
  const InForce inForce = start();
  ASSERT_TRUE(inForce.isComplete);
  EXPECT_EQ(technician(inForce), eRoleUser);
  EXPECT_TRUE(inForce.standing.lastGoodRoles);
}

TEST_F(InForceTest, ATableThatOthersMayWriteIsNeitherUsedNorKept) {
  write("roles.toml", kRoles);
  start();
  write("roles.toml", "[users]\n61001 = \"factory\"\n");
  ASSERT_EQ(chmod(directory_.file("roles.toml").c_str(), 0666), 0);
  const InForce distrusted = start();
  EXPECT_EQ(technician(distrusted), eRoleUser);
  EXPECT_THAT(distrusted.errors, ElementsAre(HasSubstr("can be written by")));
  write("roles.toml", "[users\n");
  EXPECT_EQ(technician(start()), eRoleInstaller);
}

TEST_F(InForceTest, WhatCannotBeKeptIsSaidAndStopsNobody) {
  std::filesystem::create_directory(directory_.file("store.db.definitions"));
  const InForce inForce = start();
  EXPECT_TRUE(inForce.isComplete);
  EXPECT_THAT(notKept_, ElementsAre(HasSubstr("store.db.definitions: what is good now could not be "
                                              "kept for a day when it is not: Is a directory")));
}

}  // namespace
}  // namespace ConfigSrv
