#include "configsrv/changes/wire_forms.h"

#include <gtest/gtest.h>

#include "appconfig/core/key_notation.h"
#include "platform/schema/config_if.pb.h"
#include "tests/support/definition_builder.h"

namespace ConfigSrv {
namespace {

using TestSupport::keyOf;

TEST(WireFormsTest, AKeyWrittenAndReadBackIsTheSame) {
  for (const char* text : {"net.mtu", "net.eth[2].mtu[-3]", "7:net.eth.mtu"}) {
    ConfigIF::Inst inst;
    fillInst(&inst, keyOf(text));
    const std::optional<ConfigVar> key = readInst(inst);
    ASSERT_TRUE(key) << text;
    EXPECT_EQ(AppConfig::formatKey(*key), text);
  }
}

TEST(WireFormsTest, OnlyAVariableOfANamespaceHasAScope) {
  ConfigIF::Inst without;
  fillInst(&without, keyOf("net.mtu"));
  EXPECT_FALSE(without.has_scope());
  ConfigIF::Inst with;
  fillInst(&with, keyOf("7:net.mtu"));
  EXPECT_EQ(with.scope(), ConfigIF::SCOPE_NAMESPACE);
}

TEST(WireFormsTest, APathThatNamesNothingIsNoKey) {
  ConfigIF::Inst inst;
  EXPECT_FALSE(readInst(inst));
  ConfigIF::Node* node = inst.add_path();
  node->set_name("cfg");
  node->set_instance(3);
  EXPECT_FALSE(readInst(inst));
}

TEST(WireFormsTest, InstallerAndServiceAreCrossedBetweenWireAndLibrary) {
  const std::pair<CommonIF::eSecurityRole, AppConfig::SecurityRole> pairs[] = {
      {CommonIF::SECURITY_ROLE_PUBLIC, AppConfig::eRolePublic},
      {CommonIF::SECURITY_ROLE_USER, AppConfig::eRoleUser},
      {CommonIF::SECURITY_ROLE_SERVICE, AppConfig::eRoleService},
      {CommonIF::SECURITY_ROLE_INSTALLER, AppConfig::eRoleInstaller},
      {CommonIF::SECURITY_ROLE_FACTORY, AppConfig::eRoleFactory},
  };
  for (const auto& [wire, library] : pairs) {
    EXPECT_EQ(fromWire(wire), library);
    EXPECT_EQ(toWire(library), wire);
  }
}

}  // namespace
}  // namespace ConfigSrv
