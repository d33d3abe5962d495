#include <gtest/gtest.h>

#include "appconfig/service/platform_cfg_service.h"
#include "platform/schema/config_if.pb.h"

namespace {

using Link = AppConfig::PlatformCfgService;
using AppConfig::SecurityRole;
using CommonIF::eSecurityRole;
using ConfigIF::CallbackType;
using Consumer = ConfigRegistrar::ConsumerCallbackType;

template <typename To, typename From>
int translated(int from) {
  const To to = Link::enumTranslate(static_cast<From>(from));
  return static_cast<int>(to);
}

TEST(EnumTranslateTest, WireRoles30And40AreLibraryRoles3And2) {
  const int cases[][2] = {{10, 0}, {20, 1}, {30, 3}, {40, 2}, {50, 4}};
  for (const auto& c : cases) {
    EXPECT_EQ((translated<SecurityRole, eSecurityRole>(c[0])), c[1]) << c[0];
    EXPECT_EQ((translated<eSecurityRole, SecurityRole>(c[1])), c[0]) << c[1];
  }
}

TEST(EnumTranslateTest, AnUnknownRoleIsThePublicOne) {
  for (const int role : {25, 0, -1, 60, 1}) {
    EXPECT_EQ((translated<SecurityRole, eSecurityRole>(role)), 0) << role;
  }
  for (const int role : {9, 5, -1, 40}) {
    EXPECT_EQ((translated<eSecurityRole, SecurityRole>(role)), 10) << role;
  }
}

TEST(EnumTranslateTest, ConsumerTypes0To4AreWireTypes3To7) {
  for (int type = 0; type <= 4; ++type) {
    EXPECT_EQ((translated<CallbackType, Consumer>(type)), type + 3);
    EXPECT_EQ((translated<Consumer, CallbackType>(type + 3)), type);
  }
}

TEST(EnumTranslateTest, AnUnknownCallbackTypeIsSubmitInBothDirections) {
  for (const int type : {5, -1, 99}) EXPECT_EQ((translated<CallbackType, Consumer>(type)), 6);
  for (const int type : {8, 0, 1, 2, -1}) EXPECT_EQ((translated<Consumer, CallbackType>(type)), 3);
}

TEST(EnumTranslateTest, ASubmitTypeIs0OrElse1) {
  const int cases[][2] = {{0, 0}, {1, 1}, {2, 1}, {-1, 1}};
  for (const auto& c : cases) EXPECT_EQ((translated<int, ConfigIF::SubmitType>(c[0])), c[1]);
}

}  // namespace
