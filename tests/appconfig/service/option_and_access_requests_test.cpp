#include "appconfig/service/platform_cfg_service.h"
#include "tests/appconfig/service/link_fixture.h"
#include "tests/support/recording_handlers.h"

namespace {

using AppConfig::SecurityRole;
using TestSupport::refuse;
using TestSupport::SentRequest;
using TestSupport::Value;
using Errors = std::list<std::pair<ConfigVar, eErrorT>>;

class OptionRequestsTest : public TestSupport::LinkTest {
 protected:
  template <typename Request, typename Response>
  void answerWithOptions() {
    pb.answer<Request, Response>([](const Request&, Response& response) {
      response.add_options("auto");
      response.add_options("manual");
      response.set_default_index(1);
    });
  }
  void answerOptions() {
    answerWithOptions<ConfigIF::GetAttributeOptionsReq, ConfigIF::GetAttributeOptionsRsp>();
    answerWithOptions<ConfigIF::GetDefaultOptionsReq, ConfigIF::GetDefaultOptionsRsp>();
  }

  Value options{"old"};
  unsigned int index = 7;
};

TEST_F(OptionRequestsTest, ReadingOptionsReplacesTheListSetsTheIndexAndRegisters) {
  answerOptions();
  Value& returned = link->getConfigOptions(mtu, options, index);
  EXPECT_EQ(&returned, &options);
  EXPECT_EQ(options, (Value{"auto", "manual"}));
  EXPECT_EQ(index, 1U);
  const std::vector<SentRequest> sent = pb.takeSent();
  ASSERT_EQ(sent.size(), 2U);
  expectRequest(sent[0], Helper::getGetOptionsRequest(self, role, mtu));
  expectRequest(sent[1], Helper::getRegClientCallbackRequest(self, role, "net.mtu",
                                                             ConfigIF::CALLBACK_OPTIONS_CHANGED,
                                                             TestSupport::linkName(0)));
}

TEST_F(OptionRequestsTest, ReadingWhoseOnlyHandlerWasUnregisteredMeanwhileRegistersForItself) {
  TestSupport::RecordingConsumer consumer;
  link->registerHandler("net", "mtu", &consumer);
  pb.takeSent();
  pb.answer<ConfigIF::GetAttributeOptionsReq, ConfigIF::GetAttributeOptionsRsp>(
      [&](const auto&, auto&) { link->unregisterHandler("net", "mtu", &consumer); });
  link->getConfigOptions(mtu, options, index);
  EXPECT_EQ(pb.sentOf<ConfigIF::RegisterClientCallbackReq>().size(), 1U);
  EXPECT_TRUE(link->isHandlerRegistered(mtu, ConfigRegistrar::eOptionsChanged));
}

TEST_F(OptionRequestsTest, OldContentsAreDiscardedAlsoWhenTheRequestFails) {
  pb.fail<ConfigIF::GetAttributeOptionsReq>();
  EXPECT_EQ(link->getConfigOptions(mtu, options, index), Value{});
  pb.succeed();
  pb.answer<ConfigIF::GetAttributeOptionsReq, ConfigIF::GetAttributeOptionsRsp>(
      [](const auto&, auto& response) {
        response.add_options("auto");
        refuse(response.mutable_result(), CommonIF::ERROR_DENIED);
      });
  options = {"old"};
  EXPECT_EQ(link->getConfigOptions(mtu, options, index), Value{});
  EXPECT_EQ(index, 7U);
  EXPECT_TRUE(pb.sentOf<ConfigIF::RegisterClientCallbackReq>().empty());
}

TEST_F(OptionRequestsTest, DefaultOptionsAreAskedByDottedNameAndRegisterNothing) {
  answerOptions();
  Value& returned = link->getConfigDefaultOptions(mtu, options, index);
  EXPECT_EQ(&returned, &options);
  EXPECT_EQ(options, (Value{"auto", "manual"}));
  EXPECT_EQ(index, 1U);
  expectOnly(Helper::getGetDefaultOptionsRequest(self, role, "net.mtu"));
  pb.failAll();
  EXPECT_EQ(link->getConfigDefaultOptions(mtu, options, index), Value{});
}

TEST_F(OptionRequestsTest, RefusedDefaultOptionsAreEmptyAndLeaveTheIndex) {
  pb.answer<ConfigIF::GetDefaultOptionsReq, ConfigIF::GetDefaultOptionsRsp>(
      [](const auto&, auto& response) {
        response.add_options("auto");
        response.set_default_index(1);
        refuse(response.mutable_result(), CommonIF::ERROR_DENIED);
      });
  EXPECT_EQ(link->getConfigDefaultOptions(mtu, options, index), Value{});
  EXPECT_EQ(index, 7U);
}

TEST_F(OptionRequestsTest, DefaultOptionsOfAKeyWithoutANameAreAskedByItsGroup) {
  link->getConfigDefaultOptions(ConfigVar("net", 0, "", 0), options, index);
  expectOnly(Helper::getGetDefaultOptionsRequest(self, role, "net"));
}

TEST_F(OptionRequestsTest, ANullIndexIsNotSentAndAnIndexOf0Is) {
  EXPECT_TRUE(link->setConfigOptions(mtu, {"a", "b"}, nullptr));
  const ConfigIF::SetAttributeOptionsReq without =
      pb.sent().back().as<ConfigIF::SetAttributeOptionsReq>();
  EXPECT_FALSE(without.has_default_index());
  expectOnly(Helper::getSetOptionsRequest(self, role, mtu, {"a", "b"}, nullptr));
  index = 0;
  EXPECT_TRUE(link->setConfigOptions(mtu, {"a", "b"}, &index));
  expectOnly(Helper::getSetOptionsRequest(self, role, mtu, {"a", "b"}, &index));
}

TEST_F(OptionRequestsTest, RefusedOptionsReturnFalse) {
  pb.answer<ConfigIF::SetAttributeOptionsReq, ConfigIF::SetAttributeOptionsRsp>(
      [](const auto&, auto& response) {
        refuse(response.mutable_result(), CommonIF::ERROR_INVALID_VALUE);
      });
  EXPECT_FALSE(link->setConfigOptions(mtu, {"a"}, nullptr));
  pb.failAll();
  EXPECT_FALSE(link->setConfigOptions(mtu, {"a"}, nullptr));
}

TEST_F(OptionRequestsTest, OnALinkOfNamespace2RolesAreAskedUnder2AndOptionsUnderTheKeysOwn) {
  useLink(2);
  const ConfigVar inTwo(2, "net", 0, "mtu", 1);
  link->getAccessLevels(mtu, nullptr, nullptr);
  expectRequest(pb.takeSent().front(), Helper::getGetAccessLevelsReq(self, role, inTwo));
  link->getConfigOptions(mtu, options, index);
  expectRequest(pb.takeSent().front(), Helper::getGetOptionsRequest(self, role, mtu));
  link->setConfigOptions(mtu, {"a"}, nullptr);
  expectOnly(Helper::getSetOptionsRequest(self, role, mtu, {"a"}, nullptr));
  const SecurityRole read = AppConfig::eRoleService;
  link->setAccessLevels({mtu}, &read, nullptr);
  const CommonIF::eSecurityRole wireRead = CommonIF::SECURITY_ROLE_SERVICE;
  expectOnly(Helper::getSetAccessLevelsReq(self, role, {inTwo}, &wireRead, nullptr));
}

TEST_F(OptionRequestsTest, WithoutAnEndpointNothingIsSentAndListsAreEmptied) {
  Link detached(0, "", "");
  Errors errors;
  EXPECT_EQ(detached.getConfigOptions(mtu, options, index), Value{});
  options = {"old"};
  EXPECT_EQ(detached.getConfigDefaultOptions(mtu, options, index), Value{});
  EXPECT_EQ(index, 7U);
  EXPECT_FALSE(detached.setConfigOptions(mtu, {"a"}, nullptr));
  EXPECT_FALSE(detached.getAccessLevels(mtu, nullptr, nullptr));
  EXPECT_FALSE(detached.setAccessLevels({mtu}, nullptr, nullptr));
  EXPECT_FALSE(detached.setAccessLevels({mtu}, nullptr, nullptr, errors));
  EXPECT_TRUE(errors.empty());
}

class AccessRequestsTest : public TestSupport::LinkTest {
 protected:
  static void addRecord(ConfigIF::SetAccessLevelsRsp& response, const ConfigVar& var,
                        CommonIF::eErrorType error) {
    ConfigIF::AccessLevelsRecord* const record = response.add_records();
    Helper::addVarName(record->mutable_inst(), var);
    record->set_error(error);
  }

  SecurityRole read = AppConfig::eRolePublic;
  SecurityRole write = AppConfig::eRolePublic;
  const ConfigVar name{"net", 0, "name", 0};
};

TEST_F(AccessRequestsTest, RolesAreTranslatedAndChangesOfThemRegistered) {
  pb.answer<ConfigIF::GetAccessLevelsReq, ConfigIF::GetAccessLevelsRsp>(
      [](const auto&, auto& response) {
        response.set_read_role(CommonIF::SECURITY_ROLE_INSTALLER);
        response.set_write_role(CommonIF::SECURITY_ROLE_SERVICE);
      });
  EXPECT_TRUE(link->getAccessLevels(mtu, &read, &write));
  EXPECT_EQ(read, AppConfig::eRoleInstaller);
  EXPECT_EQ(write, AppConfig::eRoleService);
  const std::vector<SentRequest> sent = pb.takeSent();
  ASSERT_EQ(sent.size(), 2U);
  expectRequest(sent[0], Helper::getGetAccessLevelsReq(self, role, mtu));
  expectRequest(sent[1], Helper::getRegClientCallbackRequest(
                             self, role, "net.mtu", ConfigIF::CALLBACK_ACCESS_LEVELS_CHANGED,
                             TestSupport::linkName(0)));
}

TEST_F(AccessRequestsTest, ReadingWhoseOnlyHandlerWasUnregisteredMeanwhileRegistersForItself) {
  TestSupport::RecordingConsumer consumer;
  link->registerHandler("net", "mtu", &consumer);
  pb.takeSent();
  pb.answer<ConfigIF::GetAccessLevelsReq, ConfigIF::GetAccessLevelsRsp>(
      [&](const auto&, auto&) { link->unregisterHandler("net", "mtu", &consumer); });
  EXPECT_TRUE(link->getAccessLevels(mtu, &read, &write));
  EXPECT_EQ(pb.sentOf<ConfigIF::RegisterClientCallbackReq>().size(), 1U);
  EXPECT_TRUE(link->isHandlerRegistered(mtu, ConfigRegistrar::eAccessLevelsChanged));
}

TEST_F(AccessRequestsTest, EitherOutputMayBeNull) {
  pb.answer<ConfigIF::GetAccessLevelsReq, ConfigIF::GetAccessLevelsRsp>(
      [](const auto&, auto& response) {
        response.set_read_role(CommonIF::SECURITY_ROLE_FACTORY);
        response.set_write_role(CommonIF::SECURITY_ROLE_FACTORY);
      });
  EXPECT_TRUE(link->getAccessLevels(mtu, nullptr, &write));
  EXPECT_EQ(write, AppConfig::eRoleFactory);
  EXPECT_TRUE(link->getAccessLevels(mtu, &read, nullptr));
  EXPECT_EQ(read, AppConfig::eRoleFactory);
  EXPECT_TRUE(link->getAccessLevels(mtu, nullptr, nullptr));
}

TEST_F(AccessRequestsTest, AnAnswerWithoutRolesGivesTheSchemasDefault) {
  read = write = AppConfig::eRoleFactory;
  EXPECT_TRUE(link->getAccessLevels(mtu, &read, &write));
  EXPECT_EQ(read, AppConfig::eRolePublic);
  EXPECT_EQ(write, AppConfig::eRolePublic);
}

TEST_F(AccessRequestsTest, AFailedReadLeavesTheRolesAndRegistersNothing) {
  read = write = AppConfig::eRoleFactory;
  pb.fail<ConfigIF::GetAccessLevelsReq>();
  EXPECT_FALSE(link->getAccessLevels(mtu, &read, &write));
  pb.succeed();
  pb.answer<ConfigIF::GetAccessLevelsReq, ConfigIF::GetAccessLevelsRsp>(
      [](const auto&, auto& response) {
        refuse(response.mutable_result(), CommonIF::ERROR_NOT_FOUND);
      });
  EXPECT_FALSE(link->getAccessLevels(mtu, &read, &write));
  EXPECT_EQ(read, AppConfig::eRoleFactory);
  EXPECT_EQ(write, AppConfig::eRoleFactory);
  EXPECT_TRUE(pb.sentOf<ConfigIF::RegisterClientCallbackReq>().empty());
}

TEST_F(AccessRequestsTest, ANullWriteRoleChangesTheReadRoleAlone) {
  read = AppConfig::eRoleInstaller;
  EXPECT_TRUE(link->setAccessLevels({mtu, name}, &read, nullptr));
  const std::vector<SentRequest> sent = pb.takeSent();
  ASSERT_EQ(sent.size(), 1U);
  EXPECT_TRUE(sent[0].isOneWay);
  const CommonIF::eSecurityRole wireRead = CommonIF::SECURITY_ROLE_INSTALLER;
  expectRequest(sent[0],
                Helper::getSetAccessLevelsReq(self, role, {mtu, name}, &wireRead, nullptr));
  EXPECT_FALSE(sent[0].as<ConfigIF::SetAccessLevelsReq>().has_write_role());
}

TEST_F(AccessRequestsTest, TheOneWayChangeTellsWhetherItWasSentAndRegistersNothing) {
  EXPECT_TRUE(link->setAccessLevels({mtu}, nullptr, &write));
  EXPECT_EQ(pb.takeSent().size(), 1U);
  pb.failAll();
  EXPECT_FALSE(link->setAccessLevels({mtu}, nullptr, &write));
}

TEST_F(AccessRequestsTest, EveryRecordBecomesACodeAndAcceptedOnesAreRegistered) {
  pb.answer<ConfigIF::SetAccessLevelsReq, ConfigIF::SetAccessLevelsRsp>(
      [this](const auto&, auto& response) {
        refuse(response.mutable_result(), CommonIF::ERROR_DENIED);
        addRecord(response, mtu, CommonIF::ERROR_NONE);
        response.add_records()->set_error(CommonIF::ERROR_NONE);  // names no variable
        addRecord(response, name, CommonIF::ERROR_DENIED);
      });
  Errors errors{{ConfigVar("kept", 0, "", 0), eErrLimit}};
  write = AppConfig::eRoleFactory;
  EXPECT_FALSE(link->setAccessLevels({mtu, name}, nullptr, &write, errors));
  ASSERT_EQ(errors.size(), 3U);
  auto error = errors.begin();
  EXPECT_EQ(error->first.group(), "kept");
  ++error;
  EXPECT_EQ(error->first.dottedName(), "net.mtu");
  EXPECT_EQ(error->first.nameInstance(), 1);
  EXPECT_EQ(error->second, eErrNone);
  ++error;
  EXPECT_EQ(error->first.dottedName(), "net.name");
  EXPECT_EQ(error->second, eErrDenied);
  const auto registered = pb.sentOf<ConfigIF::RegisterClientCallbackReq>();
  ASSERT_EQ(registered.size(), 1U);
  EXPECT_EQ(registered[0].name(), "net.mtu");
  EXPECT_EQ(registered[0].type(), ConfigIF::CALLBACK_ACCESS_LEVELS_CHANGED);
}

TEST_F(AccessRequestsTest, KeysOfAnswersCarryNoNamespaceAndSuccessIsTheResultsCode) {
  useLink(2);
  pb.answer<ConfigIF::SetAccessLevelsReq, ConfigIF::SetAccessLevelsRsp>(
      [](const auto&, auto& response) {
        addRecord(response, ConfigVar(2, "net", 0, "mtu", 1), CommonIF::ERROR_NONE);
      });
  Errors errors;
  EXPECT_TRUE(link->setAccessLevels({mtu}, &read, &write, errors));
  ASSERT_EQ(errors.size(), 1U);
  EXPECT_EQ(errors.front().first.nameSpace(), 0);
}

TEST_F(AccessRequestsTest, MoreVariablesThanARequestTakesAreChangedBySeveral) {
  std::list<ConfigVar> vars;
  for (int i = 0; i < 1'025; ++i) vars.emplace_back("net", 0, "v", i);
  pb.answer<ConfigIF::SetAccessLevelsReq, ConfigIF::SetAccessLevelsRsp>(
      [](const auto& request, auto& response) {
        const bool isFirst = request.inst_size() == 1'024;
        if (isFirst) response.mutable_result()->set_error(CommonIF::ERROR_DENIED);
        addRecord(response, ConfigVar("net", 0, isFirst ? "first" : "second", 0),
                  isFirst ? CommonIF::ERROR_DENIED : CommonIF::ERROR_NONE);
      });
  Errors errors;
  EXPECT_FALSE(link->setAccessLevels(vars, &read, nullptr, errors));
  ASSERT_EQ(errors.size(), 2U);
  EXPECT_EQ(errors.front().second, eErrDenied);
  EXPECT_EQ(errors.back().second, eErrNone);
  EXPECT_TRUE(link->setAccessLevels(vars, &read, nullptr));
  const auto sent = pb.sentOf<ConfigIF::SetAccessLevelsReq>();
  ASSERT_EQ(sent.size(), 4U);
  for (const std::size_t i : {0U, 2U}) {
    EXPECT_EQ(sent[i].inst_size(), 1'024);
    EXPECT_EQ(sent[i + 1].inst_size(), 1);
  }
}

TEST_F(AccessRequestsTest, AChangeThatCannotBeSentReportsNoErrors) {
  pb.failAll();
  Errors errors;
  EXPECT_FALSE(link->setAccessLevels({mtu}, &read, &write, errors));
  EXPECT_TRUE(errors.empty());
}

}  // namespace
