#include "appconfig/core/role_names.h"

#include <gtest/gtest.h>

namespace AppConfig {
namespace {

TEST(RoleNamesTest, EveryRoleHasANameThatReadsAsThatRole) {
  for (const SecurityRole role :
       {eRolePublic, eRoleUser, eRoleInstaller, eRoleService, eRoleFactory}) {
    EXPECT_EQ(parseRole(roleName(role)), role) << roleName(role);
    EXPECT_NE(kRoleNames.find(roleName(role)), std::string_view::npos) << roleName(role);
  }
}

TEST(RoleNamesTest, NamesAreTheFiveInTheOrderOfTheirRights) {
  EXPECT_EQ(roleName(eRolePublic), "public");
  EXPECT_EQ(roleName(eRoleUser), "user");
  EXPECT_EQ(roleName(eRoleInstaller), "installer");
  EXPECT_EQ(roleName(eRoleService), "service");
  EXPECT_EQ(roleName(eRoleFactory), "factory");
}

TEST(RoleNamesTest, NoOtherTextIsARole) {
  for (const char* text : {"", "User", "USER", "user ", " user", "root", "1", "unknown role"}) {
    EXPECT_EQ(parseRole(text), std::nullopt) << text;
  }
}

TEST(RoleNamesTest, ANumberOutsideTheFiveIsNamedUnknown) {
  EXPECT_EQ(roleName(static_cast<SecurityRole>(5)), "unknown role");
  EXPECT_EQ(roleName(static_cast<SecurityRole>(-1)), "unknown role");
}

}  // namespace
}  // namespace AppConfig
