#include "appconfig/core/security_role.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <type_traits>

namespace {

static_assert(std::is_same_v<std::underlying_type_t<AppConfig::SecurityRole>, std::int32_t>);
static_assert(std::is_aggregate_v<AppConfig::ConfigAccessLevels>);

TEST(SecurityRoleTest, TheFiveRolesAreNumberedFromZeroByRisingRights) {
  EXPECT_EQ(AppConfig::eRolePublic, 0);
  EXPECT_EQ(AppConfig::eRoleUser, 1);
  EXPECT_EQ(AppConfig::eRoleInstaller, 2);
  EXPECT_EQ(AppConfig::eRoleService, 3);
  EXPECT_EQ(AppConfig::eRoleFactory, 4);
}

TEST(ConfigAccessLevelsTest, FreshOnesKnowNeitherRole) {
  const AppConfig::ConfigAccessLevels levels;
  EXPECT_EQ(levels.readRole, 0);
  EXPECT_EQ(levels.writeRole, 0);
  EXPECT_FALSE(levels.readRoleSet);
  EXPECT_FALSE(levels.writeRoleSet);
}

TEST(ConfigAccessLevelsTest, TheFieldsComeInTheOrderReadRoleWriteRoleReadRoleSetWriteRoleSet) {
  const AppConfig::ConfigAccessLevels levels{AppConfig::eRoleUser, AppConfig::eRoleFactory, true,
                                             false};
  EXPECT_EQ(levels.readRole, AppConfig::eRoleUser);
  EXPECT_EQ(levels.writeRole, AppConfig::eRoleFactory);
  EXPECT_TRUE(levels.readRoleSet);
  EXPECT_FALSE(levels.writeRoleSet);
}

}  // namespace
