// LinkTest: a link of the test's own to a scripted service.
#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "appconfig/service/platform_cfg_service.h"
#include "tests/support/scripted_service.h"

namespace TestSupport {

class LinkTest : public ::testing::Test {
 protected:
  using Link = AppConfig::PlatformCfgService;
  using Helper = AppConfig::ProtobufMessageHelper;

  LinkTest() { useLink(0); }

  // The link under test from now on.
  void useLink(int nameSpace) {
    link = std::make_unique<Link>(nameSpace, "", "");
    link->setPbInterface(&pb);
  }

  // One request, the whole message.
  void expectOnly(const google::protobuf::MessageLite& expected) {
    const std::vector<SentRequest> sent = pb.takeSent();
    ASSERT_EQ(sent.size(), 1U);
    expectRequest(sent.front(), expected);
  }

  ScriptedPbUtils pb;
  std::unique_ptr<Link> link;
  const std::string self = "thermostat-ui";
  const CommonIF::eSecurityRole role = CommonIF::SECURITY_ROLE_USER;
  const ConfigVar mtu{"net", 0, "mtu", 1};
};

}  // namespace TestSupport
