#include "platform/messaging/wire/runtime_dir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

#include "tests/support/child.h"

namespace PbUtility {
namespace {

using testing::HasSubstr;

struct NameCase {
  const char* why;
  std::string name;
  std::string path;
  std::string problem;
};

TEST(RuntimeDirTest, ANameIsAPathBelowTheDirectoryOrIsRefusedWithItsReason) {
  const std::string longName(128, 'n');
  const NameCase cases[] = {
      {"a bare name", "ConfigSrvc", "/run/a/ConfigSrvc", ""},
      {"a leading slash adds none", "/engine/ConfigSrvc", "/run/a/engine/ConfigSrvc", ""},
      {"dots inside a step are ordinary", "a..b", "/run/a/a..b", ""},
      {"empty", "", "", "names no endpoint"},
      {"a directory", "engine/", "", "names no endpoint"},
      {"leaves the directory", "../ConfigSrvc", "", "would leave"},
      {"leaves it further in", "a/../../b", "", "would leave"},
      {"a lone dot", "./b", "", "would leave"},
      {"a NUL byte", std::string("a\0b", 3), "", "NUL"},
      {"too long a name", longName, "", "longer than 127"},
  };
  for (const NameCase& c : cases) {
    std::string path;
    const Base::Status<> named = socketPath("/run/a", c.name, path);
    EXPECT_EQ(named.ok(), c.problem.empty()) << c.why;
    EXPECT_THAT(named.text, HasSubstr(c.problem)) << c.why;
    if (named.ok()) {
      EXPECT_EQ(path, c.path) << c.why;
    }
  }
}

TEST(RuntimeDirTest, APathLongerThanASocketAddressIsRefused) {
  std::string path;
  const std::string directory = "/" + std::string(100, 'd');
  EXPECT_THAT(socketPath(directory, "ConfigSrvc", path).text, HasSubstr("107"));
}

TEST(RuntimeDirTest, WithoutADirectoryTheTextSaysWhatToSet) {
  std::string path;
  EXPECT_THAT(socketPath("", "a", path).text, HasSubstr("APPCONFIG_RUNTIME_DIR"));
}

TEST(RuntimeDirTest, TheEnvironmentComesBeforeTheSystemsPlaces) {
  ::setenv("APPCONFIG_RUNTIME_DIR", "/somewhere", 1);
  EXPECT_EQ(defaultRuntimeDir(), "/somewhere");
  ::unsetenv("APPCONFIG_RUNTIME_DIR");
  ::setenv("XDG_RUNTIME_DIR", "/run/user/1", 1);
  EXPECT_EQ(defaultRuntimeDir(), ::geteuid() == 0 ? "/run/appconfig" : "/run/user/1/appconfig");
}

// As an ordinary user, and as the programs that a device starts under a user of their own.
TEST(RuntimeDirTest, AUserOutsideOfALoginSessionFindsTheDevices) {
  if (!TestSupport::canBecomeOthers()) GTEST_SKIP() << "only root can become somebody else";
  const TestSupport::Child user(TestSupport::kOneUser, [](TestSupport::Child::Parent& test) {
    ::unsetenv("APPCONFIG_RUNTIME_DIR");
    ::setenv("XDG_RUNTIME_DIR", "/run/user/61001", 1);
    test.say(defaultRuntimeDir() + " " + usersRuntimeDir());
    ::unsetenv("XDG_RUNTIME_DIR");
    test.say(defaultRuntimeDir() + " " + usersRuntimeDir());
  });
  EXPECT_EQ(user.hear(), "/run/user/61001/appconfig /run/user/61001/appconfig");
  EXPECT_EQ(user.hear(), "/run/appconfig ");
  EXPECT_EQ(usersRuntimeDir(), "");
}

}  // namespace
}  // namespace PbUtility
