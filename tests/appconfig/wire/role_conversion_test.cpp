#include "appconfig/wire/role_conversion.h"

#include <gtest/gtest.h>

#include <utility>

#include "platform/schema/common_if.pb.h"

namespace AppConfig {
namespace {

TEST(RoleConversionTest, InstallerAndServiceAreCrossedBetweenWireAndLibrary) {
  const std::pair<CommonIF::eSecurityRole, SecurityRole> pairs[] = {
      {CommonIF::SECURITY_ROLE_PUBLIC, eRolePublic},
      {CommonIF::SECURITY_ROLE_USER, eRoleUser},
      {CommonIF::SECURITY_ROLE_SERVICE, eRoleService},
      {CommonIF::SECURITY_ROLE_INSTALLER, eRoleInstaller},
      {CommonIF::SECURITY_ROLE_FACTORY, eRoleFactory},
  };
  for (const auto& [wire, library] : pairs) {
    EXPECT_EQ(fromWire(wire), library);
    EXPECT_EQ(toWire(library), wire);
  }
}

TEST(RoleConversionTest, WhatIsNoRoleIsThePublicOne) {
  for (const int role : {25, 0, -1, 60, 1})
    EXPECT_EQ(fromWire(static_cast<CommonIF::eSecurityRole>(role)), eRolePublic) << role;
  for (const int role : {9, 5, -1, 40})
    EXPECT_EQ(toWire(static_cast<SecurityRole>(role)), CommonIF::SECURITY_ROLE_PUBLIC) << role;
}

}  // namespace
}  // namespace AppConfig
