// ManagerTest: a facade and a link of the test's own over a scripted service.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "appconfig/manager/app_cfg_manager.h"
#include "appconfig/service/platform_cfg_service.h"
#include "tests/support/scripted_service.h"

namespace TestSupport {

class ManagerTest : public ::testing::Test {
 protected:
  using AppCfgManager = AppConfig::AppCfgManager;
  using ConfigValue = AppConfig::ConfigValue;
  using Helper = AppConfig::ProtobufMessageHelper;
  using Link = AppConfig::PlatformCfgService;
  using SecurityRole = AppConfig::SecurityRole;

  ManagerTest() { useNamespace(0); }

  // Link and facade under test from now on.
  void useNamespace(int nameSpace) {
    link = std::make_unique<Link>(nameSpace, "", "");
    link->setPbInterface(&pb);
    manager = std::make_unique<AppCfgManager>(link.get());
  }

  bool isCached(const ConfigVar& var) const {
    const ConfigVar foreign(99, "", 0, "", 0);  // always ends where the cache does
    return manager->retrieveConfigVar(var) != manager->retrieveConfigVar(foreign);
  }

  // What is cached of the variable's value; empty when nothing is.
  Value cachedValue(const ConfigVar& var) const {
    return isCached(var) ? manager->retrieveConfigVar(var)->second.getValue() : Value{};
  }

  template <typename Request>
  std::size_t count() const {
    return pb.sentOf<Request>().size();
  }

  std::size_t reads() const { return count<ConfigIF::ReadReq>(); }

  void answerOptionsWith(const Value& options, unsigned int index) {
    answerOptions<ConfigIF::GetAttributeOptionsReq, ConfigIF::GetAttributeOptionsRsp>(options,
                                                                                      index);
    answerOptions<ConfigIF::GetDefaultOptionsReq, ConfigIF::GetDefaultOptionsRsp>(options, index);
  }

  void answerRolesWith(CommonIF::eSecurityRole read, CommonIF::eSecurityRole write) {
    pb.answer<ConfigIF::GetAccessLevelsReq, ConfigIF::GetAccessLevelsRsp>(
        [=](const auto&, auto& response) {
          response.set_read_role(read);
          response.set_write_role(write);
        });
  }

  template <typename Request, typename Response>
  void refuseAll(CommonIF::eErrorType error = CommonIF::ERROR_DENIED) {
    pb.answer<Request, Response>([error](const Request&, Response& response) {
      refuse(response.mutable_result(), error, "no");
    });
  }

  ScriptedPbUtils pb;
  std::unique_ptr<Link> link;
  std::unique_ptr<AppCfgManager> manager;
  const std::string self = "thermostat-ui";
  const CommonIF::eSecurityRole role = CommonIF::SECURITY_ROLE_USER;
  const ConfigVar mtu{"net", 0, "mtu", 1};
  const ConfigVar name{"net", 0, "name", 0};

 private:
  template <typename Request, typename Response>
  void answerOptions(const Value& options, unsigned int index) {
    pb.answer<Request, Response>([=](const Request&, Response& response) {
      for (const std::string& option : options) response.add_options(option);
      response.set_default_index(index);
    });
  }
};

}  // namespace TestSupport
