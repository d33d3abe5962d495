#include "tools/appcfg/places.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <fstream>

#include "tests/support/child.h"
#include "tests/support/temp_dir.h"

namespace AppCfgTool {
namespace {

using testing::Test;
using TestSupport::Child;

class PlacesTest : public Test {
 protected:
  std::string place(const std::string& name) const {
    const std::string path = dir_.file(name);
    EXPECT_EQ(::mkdir(path.c_str(), 0755), 0);
    return path;
  }

  TestSupport::TempDir dir_;
};

TEST_F(PlacesTest, TheFirstThatHoldsSuchASocketIsTheOne) {
  const std::string own = place("own");
  const std::string devices = place("devices");
  EXPECT_EQ(placeOf({own, devices}, "ConfigSrvc"), devices);
  std::ofstream(devices + "/ConfigSrvc");
  EXPECT_EQ(placeOf({own, devices}, "ConfigSrvc"), devices);
  std::ofstream(own + "/ConfigSrvc");
  EXPECT_EQ(placeOf({own, devices}, "ConfigSrvc"), own);
  EXPECT_EQ(placeOf({own, devices}, "/engine/ConfigSrvc"), devices);
  EXPECT_EQ(placeOf({own}, "/engine/ConfigSrvc"), own);
}

std::string joined(const std::vector<std::string>& places) {
  std::string text;
  for (const std::string& place : places) text += place + ';';
  return text;
}

std::string placesWith(const char* runtimeDir, const char* session, const std::string& option) {
  runtimeDir == nullptr ? ::unsetenv("APPCONFIG_RUNTIME_DIR")
                        : ::setenv("APPCONFIG_RUNTIME_DIR", runtimeDir, 1);
  session == nullptr ? ::unsetenv("XDG_RUNTIME_DIR") : ::setenv("XDG_RUNTIME_DIR", session, 1);
  Settings settings;
  settings.runtimeDir = option;
  return joined(placesToLook(settings));
}

TEST_F(PlacesTest, AnOrdinaryUserLooksForTheirOwnServiceAndThenForTheDevices) {
  if (!TestSupport::canBecomeOthers()) GTEST_SKIP() << "only root can become somebody else";
  const Child user(TestSupport::kOneUser, [](Child::Parent& test) {
    test.say(placesWith(nullptr, "/run/user/1", ""));
    test.say(placesWith(nullptr, nullptr, ""));
  });
  EXPECT_EQ(user.hear(), "/run/user/1/appconfig;/run/appconfig;");
  EXPECT_EQ(user.hear(), "/run/appconfig;");
  EXPECT_EQ(placesWith(nullptr, "/run/user/1", ""), "/run/appconfig;");
}

TEST_F(PlacesTest, APlaceThatIsNamedIsTheOnlyOne) {
  EXPECT_EQ(placesWith("/a", "/run/user/1", ""), "/a;");
  EXPECT_EQ(placesWith("/a", "/run/user/1", "/b"), "/b;");
  EXPECT_EQ(placesWith(nullptr, "/run/user/1", "/b"), "/b;");
}

}  // namespace
}  // namespace AppCfgTool
