// The manual page of the table of roles tells of what the reader of the file knows.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <sstream>

#include "appconfig/core/role_names.h"
#include "configsrv/access/access_policy.h"
#include "tests/support/man_page.h"

namespace ConfigSrv {
namespace {

std::string page() {
  std::ostringstream text;
  text << std::ifstream(ROLES_MAN_PAGE).rdbuf();
  return text.str();
}

TEST(RolesManPageTest, HasTheKeysThatAreKnownAndNoOthers) {
  const std::vector<std::string_view> keys = accessFileKeys();
  EXPECT_EQ(TestSupport::manPageTags(page(), "KEYS"),
            std::set<std::string>(keys.begin(), keys.end()));
}

TEST(RolesManPageTest, NamesEveryRole) {
  for (int role = AppConfig::eRolePublic; role <= AppConfig::eRoleFactory; ++role) {
    const auto name = AppConfig::roleName(static_cast<AppConfig::SecurityRole>(role));
    EXPECT_THAT(page(), testing::HasSubstr(std::string(name)));
  }
}

}  // namespace
}  // namespace ConfigSrv
