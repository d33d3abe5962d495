// A stale line in the definitions or the table of roles does not take the configuration away: the real
// service, with files as people and updates leave them.
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "tests/integration/fixture.h"

namespace TestSupport {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const char* const kMisspelled = "[variable.\"net.mtu\"]\ntype = \"int\"\ndefualt = 1280\n";

class LastGoodDefinitionsTest : public IntegrationTest {
 protected:
  ConfigIF::StatusRsp status() {
    ConfigIF::StatusRsp status;
    EXPECT_TRUE(client_.request(ConfigIF::StatusReq(), &status).ok());
    return status;
  }
  std::vector<std::string> mistakes() {
    const ConfigIF::StatusRsp now = status();
    return {now.mistakes().begin(), now.mistakes().end()};
  }
  void restartWith(const std::string& definitions) {
    ASSERT_EQ(service_.terminate(), 0);
    service_.redefine(definitions);
    service_.start();
  }
  std::string mtu() { return testing::PrintToString(client_.read("net.mtu").values); }
  std::string kept() const { return service_.storeFile() + ".definitions"; }
};

TEST_F(LastGoodDefinitionsTest, AMisspelledKeyLeavesEverythingAsItWasAndIsSaid) {
  ASSERT_TRUE(client_.write("net.mtu", "1400").ok());
  restartWith(kMisspelled);
  EXPECT_EQ(mtu(), "{ \"1400\" }");
  EXPECT_TRUE(client_.read("net.name").ok());
  EXPECT_TRUE(status().last_good_definitions());
  EXPECT_FALSE(status().last_good_roles());
  EXPECT_THAT(mistakes(), ElementsAre(HasSubstr("test.toml:3:1: ")));
  EXPECT_EQ(
      service_.linesWith("error: " + service_.directory().file("definitions.d/test.toml:3:1")), 1)
      << service_.log();
  EXPECT_EQ(service_.linesWith("error: the definitions have a mistake (see above): the last good"),
            1);
}

TEST_F(LastGoodDefinitionsTest, CorrectedDefinitionsAreInForceAtTheNextStart) {
  restartWith(kMisspelled);
  restartWith("[variable.\"net.mtu\"]\ntype = \"int\"\ndefault = 1280\n");
  EXPECT_EQ(mtu(), "{ \"1280\" }");
  EXPECT_FALSE(status().last_good_definitions());
  EXPECT_THAT(mistakes(), IsEmpty());
}

TEST_F(LastGoodDefinitionsTest, ClientsKeepTheirEpochOverAStartWithTheLastGoodOnes) {
  ASSERT_TRUE(client_.registerFor(ConfigIF::CALLBACK_VALUE_CHANGED, "net.mtu").ok());
  restartWith("\xff\x01 rubbish");
  ASSERT_TRUE(other_.write("net.mtu", "1300").ok());
  ASSERT_TRUE(client_.waitForNotice("value net.mtu = 1300"));
  EXPECT_THAT(client_.notices(), ElementsAre("value net.mtu = 1300"))
      << "the same definitions: nothing has to be told anew";
}

TEST_F(LastGoodDefinitionsTest, NeitherAMissingNorAnEmptyNorAnUnreadableDirectoryEndsTheService) {
  const std::string directory = service_.directory().file("definitions.d");
  ASSERT_EQ(service_.terminate(), 0);
  std::filesystem::remove(directory + "/test.toml");
  service_.start();
  EXPECT_THAT(mistakes(), ElementsAre(HasSubstr("holds no file that ends in \".toml\"")));
  ASSERT_EQ(service_.terminate(), 0);
  std::filesystem::remove(directory);
  service_.start();
  EXPECT_THAT(mistakes(), ElementsAre(HasSubstr("No such file or directory")));
  ASSERT_EQ(service_.terminate(), 0);
  ASSERT_EQ(symlink("/proc/self/mem", directory.c_str()), 0);
  service_.start();
  EXPECT_THAT(mistakes(), ElementsAre(HasSubstr("Not a directory")));
  EXPECT_EQ(mtu(), "{ \"1500\" }");
}

TEST_F(LastGoodDefinitionsTest, WhatIsKeptIsForTheServiceAlone) {
  struct stat status {};
  ASSERT_EQ(stat(kept().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
}

// Small disks: the store gets through, the definitions do not, for they are longer.
TEST_F(LastGoodDefinitionsTest, AFullDiskKeepsTheOnesBeforeAndTheServiceRuns) {
  ASSERT_EQ(service_.terminate(), 0);
  const std::string before = readFile(kept());
  const std::string longer =
      std::string(kDefinitions) + "# " + std::string(std::size_t{2} << 20, 'x') + "\n";
  service_.redefine(longer);
  rlimit usual{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &usual), 0);
  const rlimit tight{std::size_t{1} << 20, usual.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &tight), 0);
  service_.start();
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &usual), 0);
  EXPECT_EQ(readFile(kept()), before);
  EXPECT_EQ(service_.linesWith("could not be kept for a day when it is not: File too large"), 1);
  EXPECT_TRUE(client_.write("net.mtu", "1300").ok());
}

// Wherever a kill comes in the writing, the next start has the old ones or the new ones, whole.
TEST_F(LastGoodDefinitionsTest, AKillWhileTheyAreKeptLeavesTheOldOnesOrTheNewOnes) {
  const std::string filler = "# " + std::string(std::size_t{1} << 20, 'x') + "\n";
  std::string last = mtu();
  for (int round = 0; round < 12; ++round) {
    ASSERT_EQ(service_.terminate(), 0);
    service_.redefine("[variable.\"net.mtu\"]\ntype = \"int\"\ndefault = " +
                      std::to_string(1000 + round) + "\n" + filler);
    // Too late to see it being written is as good as in the midst.
    const std::string before = readFile(kept());
    service_.startAndKillWhen(
        [&] { return std::filesystem::exists(kept() + ".new") || readFile(kept()) != before; });
    service_.redefine(kMisspelled);
    service_.start();
    EXPECT_TRUE(status().last_good_definitions());
    const std::string now = mtu();
    const std::string next = "{ \"" + std::to_string(1000 + round) + "\" }";
    EXPECT_TRUE(now == next || now == last) << now << " in round " << round;
    last = now;
  }
}

class LastGoodRolesTest : public testing::Test {
 protected:
  LastGoodRolesTest() { setRoles("[users]\n" + std::to_string(getuid()) + " = \"user\"\n"); }
  void setRoles(const std::string& text) {
    writeFile(directory_.file("roles.toml"), text);
    ASSERT_EQ(chmod(directory_.file("roles.toml").c_str(), 0644), 0);
  }
  // Of the user of this test, who would otherwise be the service's own.
  bool mayActAsInstaller() {
    TestClient client("client", service_.runtimeDir());
    client.actAs(CommonIF::SECURITY_ROLE_INSTALLER);
    return client.read("net.mtu").ok();
  }
  void restartWith(const std::string& roles) {
    ASSERT_EQ(service_.terminate(), 0);
    setRoles(roles);
    service_.start();
  }

  TempDir directory_;
  ServiceProcess service_{kDefinitions, {"--roles", directory_.file("roles.toml")}};
};

TEST_F(LastGoodRolesTest, ATableThatDoesNotParseLeavesTheLastGoodOneInForce) {
  service_.start();
  EXPECT_FALSE(mayActAsInstaller());
  restartWith("[users\n");
  EXPECT_FALSE(mayActAsInstaller());
  EXPECT_EQ(
      service_.linesWith("error: the table of roles has a mistake (see above): the last good"), 1)
      << service_.log();
  restartWith("");
  EXPECT_TRUE(mayActAsInstaller());
}

TEST_F(LastGoodRolesTest, ALineForSomebodyWhoIsGoneGrantsNothingAndTheOthersHold) {
  setRoles("[users]\nwas-here = \"factory\"\n" + std::to_string(getuid()) + " = \"user\"\n");
  service_.start();
  EXPECT_FALSE(mayActAsInstaller());
  EXPECT_EQ(service_.linesWith("warning: " + directory_.file("roles.toml") +
                               ":2:1: no user \"was-here\" is known here"),
            1)
      << service_.log();
}

TEST_F(LastGoodRolesTest, AByteOrderMarkMakesNoDifference) {
  setRoles("\xEF\xBB\xBF[users]\n" + std::to_string(getuid()) + " = \"user\"\n");
  service_.start();
  EXPECT_FALSE(mayActAsInstaller());
}

TEST_F(LastGoodRolesTest, ATableThatNeverWasGoodEndsTheFirstStart) {
  setRoles("[users\n");
  EXPECT_EQ(service_.startAndWait(), 3);
}

class SeveralDirectoriesTest : public testing::Test {
 protected:
  SeveralDirectoriesTest() { std::filesystem::create_directory(device()); }
  std::string device() const { return directory_.file("device"); }
  std::string mtu() {
    TestClient client("client", service_.runtimeDir());
    return testing::PrintToString(client.read("net.mtu").values);
  }

  TempDir directory_;
  ServiceProcess service_{kDefinitions, {"--definitions", directory_.file("device")}};
};

TEST_F(SeveralDirectoriesTest, ALaterOneReplacesAFileOfItsNameAndAddsOthers) {
  service_.start();
  EXPECT_EQ(mtu(), "{ \"1500\" }");
  EXPECT_EQ(service_.terminate(), 0);
  writeFile(device() + "/test.toml", "[variable.\"net.mtu\"]\ntype = \"int\"\ndefault = 9\n");
  service_.start();
  EXPECT_EQ(mtu(), "{ \"9\" }");
  EXPECT_EQ(service_.terminate(), 0);
  writeFile(device() + "/zz.toml", "[variable.\"net.mtu\"]\ndefault = 10\n");
  service_.start();
  EXPECT_EQ(mtu(), "{ \"10\" }");
  TestClient client("client", service_.runtimeDir());
  ConfigIF::StatusRsp status;
  EXPECT_TRUE(client.request(ConfigIF::StatusReq(), &status).ok());
  EXPECT_EQ(status.definitions_dir(), service_.directory().file("definitions.d") + ":" + device());
}

TEST_F(SeveralDirectoriesTest, ALinkToTheNullDeviceTakesAFileAway) {
  writeFile(device() + "/other.toml", "[variable.\"net.mtu\"]\ntype = \"int\"\ndefault = 7\n");
  ASSERT_EQ(symlink("/dev/null", (device() + "/test.toml").c_str()), 0);
  service_.start();
  EXPECT_EQ(mtu(), "{ \"7\" }");
  TestClient client("client", service_.runtimeDir());
  EXPECT_EQ(client.read("net.name").error, CommonIF::ERROR_NOT_FOUND);
}

TEST(CheckTest, RolesAreCheckedAgainstTheUsersOfAnImage) {
  TempDir image;
  std::filesystem::create_directory(image.file("etc"));
  writeFile(image.file("etc/passwd"), "panel:x:61001:61001::/:\n");
  writeFile(image.file("etc/group"), "");
  writeFile(image.file("roles.toml"), "[users]\npanel = \"installer\"\n");
  ASSERT_EQ(chmod(image.file("roles.toml").c_str(), 0644), 0);
  ServiceProcess good(kDefinitions);
  const std::string definitions = good.directory().file("definitions.d");
  const std::string roles = image.file("roles.toml");
  ServiceProcess here(kDefinitions, {"--check", definitions, "--roles", roles});
  EXPECT_EQ(here.startAndWait(), 3);
  EXPECT_THAT(here.log(), HasSubstr("roles.toml:2:1: no user \"panel\" is known here"));
  ServiceProcess there(kDefinitions,
                       {"--check", definitions, "--roles", roles, "--sysroot", image.path()});
  EXPECT_EQ(there.startAndWait(), 0) << there.log();
  EXPECT_EQ(ServiceProcess(kDefinitions, {"--sysroot", image.path()}).startAndWait(), 2);
}

}  // namespace
}  // namespace TestSupport
