#include "tests/appconfig/manager/manager_fixture.h"

namespace {

using TestSupport::answerReadsWith;
using TestSupport::Value;
using Errors = std::list<std::pair<ConfigVar, eErrorT>>;

constexpr CommonIF::eSecurityRole kWireService = CommonIF::SECURITY_ROLE_SERVICE;
constexpr CommonIF::eSecurityRole kWireFactory = CommonIF::SECURITY_ROLE_FACTORY;

class AccessLevelsTest : public TestSupport::ManagerTest {
 protected:
  AccessLevelsTest() {
    answerReadsWith(pb, {"1500"});
    answerRolesWith(CommonIF::SECURITY_ROLE_USER, CommonIF::SECURITY_ROLE_INSTALLER);
  }

  void answerChangesWith(CommonIF::eErrorType code) {
    pb.answer<ConfigIF::SetAccessLevelsReq, ConfigIF::SetAccessLevelsRsp>(
        [code](const ConfigIF::SetAccessLevelsReq& request,
               ConfigIF::SetAccessLevelsRsp& response) {
          response.mutable_result()->set_error(code);
          for (const ConfigIF::Inst& inst : request.inst()) {
            ConfigIF::AccessLevelsRecord* const record = response.add_records();
            *record->mutable_inst() = inst;
            record->set_error(code);
          }
        });
  }

  static void addRecord(ConfigIF::SetAccessLevelsRsp& response, const ConfigVar& var,
                        CommonIF::eErrorType code) {
    ConfigIF::AccessLevelsRecord* const record = response.add_records();
    Helper::addVarName(record->mutable_inst(), var);
    record->set_error(code);
  }

  // The last change carried these keys and roles.
  void expectChange(const std::list<ConfigVar>& vars, const CommonIF::eSecurityRole* readRole,
                    const CommonIF::eSecurityRole* writeRole) {
    const ConfigIF::SetAccessLevelsReq expected =
        Helper::getSetAccessLevelsReq(self, role, vars, readRole, writeRole);
    const auto sent = pb.sentOf<ConfigIF::SetAccessLevelsReq>();
    ASSERT_FALSE(sent.empty());
    EXPECT_EQ(sent.back().SerializeAsString(), expected.SerializeAsString());
    pb.takeSent();
  }

  std::size_t roleReads() const { return count<ConfigIF::GetAccessLevelsReq>(); }

  SecurityRole read = AppConfig::eRoleFactory;
  SecurityRole write = AppConfig::eRoleFactory;
  eErrorT error = eErrConflict;
  Errors errors;
};

TEST_F(AccessLevelsTest, TheSecondReadOfRolesIsAnsweredFromTheCache) {
  EXPECT_TRUE(manager->getAccessLevels("NET", 0, "mtu", 1, &read, &write));
  EXPECT_EQ(read, AppConfig::eRoleUser);
  EXPECT_EQ(write, AppConfig::eRoleInstaller);
  EXPECT_EQ(reads(), 1U);  // which made the entry
  pb.takeSent();
  read = write = AppConfig::eRoleFactory;
  EXPECT_TRUE(manager->getAccessLevels(mtu, &read, &write));
  EXPECT_EQ(read, AppConfig::eRoleUser);
  EXPECT_EQ(write, AppConfig::eRoleInstaller);
  EXPECT_TRUE(pb.sent().empty());
}

TEST_F(AccessLevelsTest, WithBothOutputsNullAKnownVariableIsTrueAndTheCacheIsFilled) {
  EXPECT_TRUE(manager->getAccessLevels(mtu, nullptr, nullptr));
  EXPECT_TRUE(manager->retrieveConfigVar(mtu)->second.hasAccessLevels());
  EXPECT_TRUE(manager->getAccessLevels(mtu, nullptr, nullptr));
  EXPECT_EQ(roleReads(), 1U);
}

TEST_F(AccessLevelsTest, EitherOutputMayBeNull) {
  EXPECT_TRUE(manager->getAccessLevels(mtu, nullptr, &write));
  EXPECT_EQ(write, AppConfig::eRoleInstaller);
  EXPECT_TRUE(manager->getAccessLevels(mtu, &read, nullptr));
  EXPECT_EQ(read, AppConfig::eRoleUser);
}

TEST_F(AccessLevelsTest, AnUnknownVariableIsFalseAndItsRolesAreNotAskedFor) {
  refuseAll<ConfigIF::ReadReq, ConfigIF::ReadRsp>(CommonIF::ERROR_NOT_FOUND);
  EXPECT_FALSE(manager->getAccessLevels(mtu, &read, &write));
  EXPECT_EQ(read, AppConfig::eRoleFactory);
  EXPECT_EQ(write, AppConfig::eRoleFactory);
  EXPECT_EQ(roleReads(), 0U);
}

TEST_F(AccessLevelsTest, RolesThatCannotBeReadAreFalseAndNotStored) {
  refuseAll<ConfigIF::GetAccessLevelsReq, ConfigIF::GetAccessLevelsRsp>();
  EXPECT_FALSE(manager->getAccessLevels(mtu, &read, &write));
  EXPECT_EQ(read, AppConfig::eRoleFactory);
  EXPECT_FALSE(manager->retrieveConfigVar(mtu)->second.hasAccessLevels());
  EXPECT_FALSE(manager->getAccessLevels(mtu, &read, &write));
  EXPECT_EQ(roleReads(), 2U);
}

TEST_F(AccessLevelsTest, OneKnownRoleIsNotEnough) {
  AppConfig::ConfigAccessLevels levels;
  levels.readRole = AppConfig::eRoleService;
  levels.readRoleSet = true;
  manager->updateConfigVarAccessLevels("NET", 0, "mtu", 1, levels);
  EXPECT_TRUE(manager->getAccessLevels(mtu, &read, &write));
  EXPECT_EQ(read, AppConfig::eRoleUser);
  EXPECT_EQ(roleReads(), 1U);
  EXPECT_EQ(reads(), 0U);
}

// The value read that is to make the entry stores it under namespace 0.
TEST_F(AccessLevelsTest, AKeyOfTheLinksOwnNamespaceFindsRolesOnlyBesideItsOptions) {
  useNamespace(3);
  const ConfigVar own(3, "net", 0, "mtu", 1);
  EXPECT_FALSE(manager->getAccessLevels(own, &read, &write));
  EXPECT_EQ(roleReads(), 0U);
  std::vector<std::string> unused;
  manager->getConfigOptions(own, unused);
  EXPECT_TRUE(manager->getAccessLevels(own, &read, &write));
  EXPECT_TRUE(manager->getAccessLevels(mtu, &read, &write));
}

TEST_F(AccessLevelsTest, ASetLeavesTheCachedRolesUntilTheNoticeIsStored) {
  manager->getAccessLevels(mtu, &read, &write);
  answerChangesWith(CommonIF::ERROR_NONE);
  const SecurityRole factory = AppConfig::eRoleFactory;
  EXPECT_TRUE(manager->setAccessLevels(mtu, &factory, &factory, error));
  EXPECT_TRUE(manager->getAccessLevels(mtu, &read, &write));
  EXPECT_EQ(read, AppConfig::eRoleUser);
  EXPECT_EQ(write, AppConfig::eRoleInstaller);
  AppConfig::ConfigAccessLevels levels;
  levels.writeRole = AppConfig::eRoleFactory;
  levels.writeRoleSet = true;
  manager->updateConfigVarAccessLevels("net", 0, "mtu", 1, levels);
  EXPECT_TRUE(manager->getAccessLevels(mtu, &read, &write));
  EXPECT_EQ(read, AppConfig::eRoleUser);
  EXPECT_EQ(write, AppConfig::eRoleFactory);
}

TEST_F(AccessLevelsTest, HidingSendsReadRole3AndNoWriteRole) {
  EXPECT_TRUE(manager->setAccessHidden(std::list<ConfigVar>{mtu, name}, errors));
  expectChange({mtu, name}, &kWireService, nullptr);
  EXPECT_TRUE(manager->setAccessHidden(mtu, error));
  expectChange({mtu}, &kWireService, nullptr);
  EXPECT_TRUE(manager->setAccessHidden("NET", 0, "mtu", 1, error));
  expectChange({mtu}, &kWireService, nullptr);
}

TEST_F(AccessLevelsTest, MakingReadOnlySendsNoReadRoleAndWriteRole4) {
  EXPECT_TRUE(manager->setAccessReadOnly(std::list<ConfigVar>{mtu, name}, errors));
  expectChange({mtu, name}, nullptr, &kWireFactory);
  EXPECT_TRUE(manager->setAccessReadOnly(mtu, error));
  expectChange({mtu}, nullptr, &kWireFactory);
  EXPECT_TRUE(manager->setAccessReadOnly("NET", 0, "mtu", 1, error));
  expectChange({mtu}, nullptr, &kWireFactory);
}

TEST_F(AccessLevelsTest, FormsWithoutErrorsAreOneWay) {
  const SecurityRole service = AppConfig::eRoleService;
  const SecurityRole factory = AppConfig::eRoleFactory;
  EXPECT_TRUE(manager->setAccessLevels(std::list<ConfigVar>{mtu, name}, &service, &factory));
  EXPECT_TRUE(pb.sent().back().isOneWay);
  expectChange({mtu, name}, &kWireService, &kWireFactory);
  EXPECT_TRUE(manager->setAccessLevels(mtu, &service, nullptr));
  EXPECT_TRUE(pb.sent().back().isOneWay);
  expectChange({mtu}, &kWireService, nullptr);
  EXPECT_TRUE(manager->setAccessLevels("NET", 0, "mtu", 1, nullptr, &factory));
  expectChange({mtu}, nullptr, &kWireFactory);
  pb.failAll();
  EXPECT_FALSE(manager->setAccessLevels(mtu, &service, nullptr));
}

TEST_F(AccessLevelsTest, TheSingleFormKeepsTheNamespaceOfItsKey) {
  const ConfigVar foreign(7, "net", 0, "mtu", 1);
  const SecurityRole service = AppConfig::eRoleService;
  manager->setAccessLevels(foreign, &service, nullptr);
  expectChange({foreign}, &kWireService, nullptr);
}

TEST_F(AccessLevelsTest, TheErrorIs0WhenTheServiceReportsNone) {
  EXPECT_TRUE(manager->setAccessLevels(mtu, nullptr, nullptr, error));
  EXPECT_EQ(error, eErrNone);
  error = eErrConflict;
  pb.failAll();
  EXPECT_FALSE(manager->setAccessLevels(mtu, nullptr, nullptr, error));
  EXPECT_EQ(error, eErrNone);
}

TEST_F(AccessLevelsTest, TheErrorIsThatOfTheOneVariable) {
  answerChangesWith(CommonIF::ERROR_DENIED);
  EXPECT_FALSE(manager->setAccessLevels("net", 0, "mtu", 1, nullptr, nullptr, error));
  EXPECT_EQ(error, eErrDenied);
  EXPECT_FALSE(manager->setAccessHidden(mtu, error));
  EXPECT_EQ(error, eErrDenied);
}

TEST_F(AccessLevelsTest, OfSeveralCodesTheSingleFormsGiveTheFirst) {
  pb.answer<ConfigIF::SetAccessLevelsReq, ConfigIF::SetAccessLevelsRsp>(
      [this](const ConfigIF::SetAccessLevelsReq&, ConfigIF::SetAccessLevelsRsp& response) {
        addRecord(response, mtu, CommonIF::ERROR_READ_ONLY);
        addRecord(response, name, CommonIF::ERROR_DENIED);
        addRecord(response, name, CommonIF::ERROR_NONE);
      });
  EXPECT_TRUE(manager->setAccessLevels(mtu, nullptr, nullptr, error));
  EXPECT_EQ(error, eErrReadOnly);
  error = eErrConflict;
  EXPECT_TRUE(manager->setAccessLevels("net", 0, "mtu", 1, nullptr, nullptr, error));
  EXPECT_EQ(error, eErrReadOnly);
  error = eErrConflict;
  EXPECT_TRUE(manager->setAccessReadOnly(mtu, error));
  EXPECT_EQ(error, eErrReadOnly);
}

TEST_F(AccessLevelsTest, TheListFormReportsEveryVariable) {
  answerChangesWith(CommonIF::ERROR_NONE);
  EXPECT_TRUE(manager->setAccessLevels(std::list<ConfigVar>{mtu, name}, nullptr, nullptr, errors));
  ASSERT_EQ(errors.size(), 2U);
  EXPECT_EQ(errors.front().first.dottedName(), "net.mtu");
  EXPECT_EQ(errors.back().first.dottedName(), "net.name");
  EXPECT_EQ(errors.back().second, eErrNone);
}

}  // namespace
