#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>

#include "configsrv/access/access_policy.h"

namespace ConfigSrv {
namespace {

TEST(SystemUserDatabaseTest, KnowsRootByName) {
  EXPECT_EQ(systemUserDatabase().userId("root"), uid_t{0});
  EXPECT_EQ(systemUserDatabase().groupId("root"), gid_t{0});
}

TEST(SystemUserDatabaseTest, DoesNotKnowWhatDoesNotExist) {
  EXPECT_EQ(systemUserDatabase().userId("no such user"), std::nullopt);
  EXPECT_EQ(systemUserDatabase().groupId("no such group"), std::nullopt);
}

TEST(SystemUserDatabaseTest, AUserIsInThePrimaryGroupThatTheKernelTells) {
  const std::vector<gid_t> groups = systemUserDatabase().groupsOf(0, 4711);
  EXPECT_NE(std::find(groups.begin(), groups.end(), 4711U), groups.end());
}

TEST(SystemUserDatabaseTest, AUserWithoutANameIsInThePrimaryGroupAlone) {
  EXPECT_EQ(systemUserDatabase().groupsOf(4000000000U, 4711), std::vector<gid_t>{4711});
}

}  // namespace
}  // namespace ConfigSrv
