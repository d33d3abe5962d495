#include "configsrv/service/internal/start_checks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "configsrv/service/service.h"
#include "tests/support/temp_dir.h"

namespace ConfigSrv {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class StartChecksTest : public testing::Test {
 protected:
  StartChecksTest() {
    makeDirectory(options_.definitionsDirs.front());
    makeDirectory(options_.runtimeDir);
    write("d/a.toml", "[variable.\"net.mtu\"]\ntype = \"int\"\ndefault = 1500\n");
  }
  static void makeDirectory(const std::string& path) {
    EXPECT_EQ(mkdir(path.c_str(), 0700), 0);
    EXPECT_EQ(chmod(path.c_str(), 0700), 0);
  }
  void write(const std::string& name, const std::string& text) {
    std::ofstream(directory_.file(name)) << text;
    allow(name, 0600);
  }
  void allow(const std::string& name, mode_t mode) {
    EXPECT_EQ(chmod(directory_.file(name).c_str(), mode), 0);
  }

  TestSupport::TempDir directory_;
  std::vector<std::string> lines_;
  const Log log_{LogLevel::Info,
                 [this](LogLevel, const std::string& line) { lines_.push_back(line); }};
  ServiceOptions options_ = [this] {
    ServiceOptions options;
    options.definitionsDirs = {directory_.file("d")};
    options.runtimeDir = directory_.file("run");
    return options;
  }();
};

TEST_F(StartChecksTest, DefinitionsThatOthersCouldWriteAreWarnedOf) {
  allow("d/a.toml", 0622);
  warnOfDefinitions(options_, log_);
  EXPECT_THAT(lines_, ElementsAre(AllOf(HasSubstr("d/a.toml: this definition can be written by"),
                                        HasSubstr("make it root's alone"))));
  allow("d/a.toml", 0600);
  allow("d", 0777);
  lines_.clear();
  warnOfDefinitions(options_, log_);
  EXPECT_THAT(lines_, ElementsAre(HasSubstr("/d: this definition can be written by")));
}

TEST_F(StartChecksTest, HiddenFilesAmongTheDefinitionsAreNotLookedAt) {
  write("d/.swap", "");
  allow("d/.swap", 0666);
  warnOfDefinitions(options_, log_);
  EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(StartChecksTest, ARuntimeDirectoryThatOthersCouldWriteIsWarnedOf) {
  warnOfRuntimeDir(options_, log_);
  EXPECT_THAT(lines_, IsEmpty());
  allow("run", 0777);
  warnOfRuntimeDir(options_, log_);
  EXPECT_THAT(lines_, ElementsAre(HasSubstr("run: the socket's directory can be written by")));
  lines_.clear();
  options_.listenFd = 5;
  warnOfRuntimeDir(options_, log_);
  EXPECT_THAT(lines_, IsEmpty()) << "a socket that was handed over stands where its maker says";
}

class CheckFilesTest : public StartChecksTest {
 protected:
  CheckFilesTest() {
    makeDirectory(directory_.file("image"));
    makeDirectory(directory_.file("image/etc"));
    write("image/etc/passwd", "panel:x:61001:61001::/:\n");
    write("image/etc/group", "netdev:x:61101:\n");
    files_.rolesFile = directory_.file("roles");
  }
  std::vector<std::string> check() { return checkFiles(files_, variables_); }

  FilesToCheck files_{{directory_.file("d")}, "", ""};
  std::size_t variables_ = 0;
};

TEST_F(CheckFilesTest, DefinitionsAreCheckedWithoutAService) {
  files_.rolesFile.clear();
  EXPECT_THAT(check(), IsEmpty());
  EXPECT_EQ(variables_, 1U);
  files_.definitionsDirs = {directory_.file("none")};
  EXPECT_THAT(check(), testing::SizeIs(1));
}

TEST_F(CheckFilesTest, MistakesOfDefinitionsAndRolesAreToldTogether) {
  write("d/a.toml", "[variable.\"net.mtu\"]\ntype = \"none\"\n");
  write("roles", "nonsense = 1\n");
  EXPECT_THAT(check(), ElementsAre(HasSubstr("a.toml:2"), HasSubstr("roles:1")));
}

TEST_F(CheckFilesTest, SomebodyWhomNobodyKnowsHereIsAMistake) {
  write("roles", "[users]\nno-such-user-here = \"installer\"\n");
  EXPECT_THAT(check(), ElementsAre(HasSubstr("roles:2:1: no user \"no-such-user-here\"")));
}

TEST_F(CheckFilesTest, UsersAndGroupsAreThoseOfTheImage) {
  files_.sysroot = directory_.file("image");
  write("roles", "[users]\npanel = \"installer\"\n[groups]\nnetdev = \"user\"\n");
  EXPECT_THAT(check(), IsEmpty());
  write("roles", "[users]\nroot = \"installer\"\n");
  EXPECT_THAT(check(), ElementsAre(HasSubstr("no user \"root\" is known here")));
  files_.sysroot = directory_.file("none");
  EXPECT_THAT(check(), ElementsAre(HasSubstr("none/etc/passwd: cannot be read")));
}

TEST_F(CheckFilesTest, ATableThatIsNotThereOrThatOthersMayWriteIsAMistake) {
  EXPECT_THAT(check(), ElementsAre(HasSubstr("roles: there is no such file")));
  write("roles", "");
  allow("roles", 0666);
  EXPECT_THAT(check(), ElementsAre(HasSubstr("can be written by everybody")));
}

TEST_F(StartChecksTest, AServiceThatCannotStartSaysWhichFilesToCorrect) {
  options_.storeFile = directory_.file("d/a.toml/store.db");
  EXPECT_EQ(Service::start(options_, log_).status, StartStatus::BadStore);
  options_.storeFile = directory_.file("store.db");
  options_.endpointPrefix = "../elsewhere";
  EXPECT_EQ(Service::start(options_, log_).status, StartStatus::BadSocket);
  // Beside this one nothing good was ever kept.
  options_.storeFile = directory_.file("other.db");
  write("d/a.toml", "nonsense");
  const StartedService started = Service::start(options_, log_);
  EXPECT_EQ(started.status, StartStatus::BadDefinitions);
  EXPECT_EQ(started.service, nullptr);
  EXPECT_THAT(started.lines, testing::Contains(HasSubstr("a.toml:1")));
}

}  // namespace
}  // namespace ConfigSrv
