#include "configsrv/access/image_users.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "tests/support/temp_dir.h"

namespace ConfigSrv {
namespace {

class ImageUsersTest : public testing::Test {
 protected:
  ImageUsersTest() { std::filesystem::create_directory(root_.file("etc")); }
  void write(const std::string& name, const std::string& text) {
    std::ofstream(root_.file("etc/" + name)) << text;
  }

  TestSupport::TempDir root_;
};

TEST_F(ImageUsersTest, KnowsTheUsersAndGroupsOfTheImageAndNotOfThisMachine) {
  write("passwd", "thermostat:x:61001:61001::/:/bin/false\nui:x:61002:100::/:/bin/false");
  write("group", "netdev:x:61101:thermostat\n");
  const ImageUsers users(root_.path());
  EXPECT_EQ(users.whyUnreadable(), "");
  EXPECT_EQ(users.userId("thermostat"), 61001U);
  EXPECT_EQ(users.userId("ui"), 61002U);
  EXPECT_EQ(users.groupId("netdev"), 61101U);
  EXPECT_EQ(users.userId("root"), std::nullopt);
  EXPECT_EQ(users.groupId("thermostat"), std::nullopt);
}

TEST_F(ImageUsersTest, LinesThatAreNoneAreNobodys) {
  write("passwd", "\n:::\nshort\na:x:\nb:x:12c:\nc:x:-1:\nd:x:99999999999:\n\x01\xff\ngood:x:7:\n");
  write("group", "");
  const ImageUsers users(root_.path());
  for (const char* name : {"", "short", "a", "b", "c", "d"})
    EXPECT_EQ(users.userId(name), std::nullopt) << name;
  EXPECT_EQ(users.userId("good"), 7U);
}

TEST_F(ImageUsersTest, AFileThatIsNotThereIsNamed) {
  write("passwd", "");
  EXPECT_EQ(ImageUsers(root_.path()).whyUnreadable(),
            root_.file("etc/group") + ": cannot be read: No such file or directory");
}

}  // namespace
}  // namespace ConfigSrv
