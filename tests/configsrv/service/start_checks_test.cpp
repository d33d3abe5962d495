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
    makeDirectory(options_.definitionsDir);
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
    options.definitionsDir = directory_.file("d");
    options.runtimeDir = directory_.file("run");
    return options;
  }();
};

TEST_F(StartChecksTest, FilesWithoutMistakesAreReadAndNothingIsSaid) {
  const CheckedFiles files = checkFiles(options_, log_);
  EXPECT_THAT(files.mistakes, IsEmpty());
  EXPECT_EQ(files.definitions.size(), 1U);
  EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(StartChecksTest, MistakesOfDefinitionsAndRolesAreToldTogether) {
  write("d/a.toml", "[variable.\"net.mtu\"]\ntype = \"none\"\n");
  write("roles", "nonsense = 1\n");
  options_.rolesFile = directory_.file("roles");
  EXPECT_THAT(checkFiles(options_, log_).mistakes,
              testing::AllOf(testing::Contains(HasSubstr("a.toml")),
                             testing::Contains(HasSubstr("roles:1"))));
}

TEST_F(StartChecksTest, DefinitionsThatOthersCouldWriteAreUsedAndWarnedOf) {
  allow("d/a.toml", 0622);
  EXPECT_THAT(checkFiles(options_, log_).mistakes, IsEmpty());
  EXPECT_THAT(lines_, ElementsAre(AllOf(HasSubstr("d/a.toml: this definition can be written by"),
                                        HasSubstr("make it root's alone"))));
  allow("d/a.toml", 0600);
  allow("d", 0777);
  lines_.clear();
  checkFiles(options_, log_);
  EXPECT_THAT(lines_, ElementsAre(HasSubstr("/d: this definition can be written by")));
}

TEST_F(StartChecksTest, HiddenFilesAmongTheDefinitionsAreNotLookedAt) {
  write("d/.swap", "");
  allow("d/.swap", 0666);
  checkFiles(options_, log_);
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

TEST_F(StartChecksTest, DefinitionsAreCheckedWithoutAService) {
  std::size_t variables = 0;
  EXPECT_THAT(checkDefinitions(options_.definitionsDir, variables), IsEmpty());
  EXPECT_EQ(variables, 1U);
  EXPECT_THAT(checkDefinitions(directory_.file("none"), variables), testing::SizeIs(1));
}

TEST_F(StartChecksTest, AServiceThatCannotStartSaysWhichFilesToCorrect) {
  options_.storeFile = directory_.file("d/a.toml/store.db");
  EXPECT_EQ(Service::start(options_, log_).status, StartStatus::BadStore);
  options_.storeFile = directory_.file("store.db");
  options_.endpointPrefix = "../elsewhere";
  EXPECT_EQ(Service::start(options_, log_).status, StartStatus::BadSocket);
  write("d/a.toml", "nonsense");
  const StartedService started = Service::start(options_, log_);
  EXPECT_EQ(started.status, StartStatus::BadDefinitions);
  EXPECT_EQ(started.service, nullptr);
  EXPECT_THAT(started.lines, testing::Contains(HasSubstr("a.toml:1")));
}

}  // namespace
}  // namespace ConfigSrv
