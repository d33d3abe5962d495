// Reading and writing through the real service.
#include "appconfig/wire/protobuf_message_helper.h"
#include "tests/integration/fixture.h"

namespace TestSupport {
namespace {

using AppConfig::ProtobufMessageHelper;
using testing::ElementsAre;
using testing::HasSubstr;

using ValueTest = IntegrationTest;

ConfigIF::Inst instOf(const std::string& group, const std::string& name) {
  ConfigIF::Inst inst;
  ProtobufMessageHelper::addVarName(&inst, ConfigVar(group, 0, name, 0));
  return inst;
}

TEST_F(ValueTest, ADefaultIsReadAndSaysSo) {
  const Outcome outcome = client_.read("net.mtu");
  EXPECT_TRUE(outcome.ok());
  EXPECT_THAT(outcome.values, ElementsAre("1500"));
  EXPECT_TRUE(outcome.isDefault);
}

TEST_F(ValueTest, AWrittenValueIsReadByEverybody) {
  EXPECT_TRUE(client_.write("net.mtu", "1400").ok());
  const Outcome outcome = other_.read("net.mtu");
  EXPECT_THAT(outcome.values, ElementsAre("1400"));
  EXPECT_FALSE(outcome.isDefault);
}

TEST_F(ValueTest, AListAndItsEmptyFormAreKeptApart) {
  EXPECT_TRUE(client_.write("net.servers", std::vector<std::string>{}).ok());
  EXPECT_THAT(client_.read("net.servers").values, ElementsAre());
  EXPECT_TRUE(client_.write("net.servers", std::vector<std::string>{""}).ok());
  EXPECT_THAT(client_.read("net.servers").values, ElementsAre(""));
}

TEST_F(ValueTest, BytesOfAnyKindSurvive) {
  const std::string bytes("\0\xFF\n\x80z", 5);
  EXPECT_TRUE(client_.write("net.name", bytes).ok());
  service_.kill();
  service_.start();
  EXPECT_THAT(client_.read("net.name").values, ElementsAre(bytes));
}

TEST_F(ValueTest, AnAcknowledgedWriteSurvivesAnOrderlyStop) {
  ASSERT_TRUE(client_.write("net.mtu", "1400").ok());
  EXPECT_EQ(service_.terminate(), 0);
  service_.start();
  EXPECT_THAT(client_.read("net.mtu").values, ElementsAre("1400"));
}

TEST_F(ValueTest, AnAcknowledgedWriteSurvivesAKill) {
  for (int i = 0; i < 5; ++i) {
    ASSERT_TRUE(client_.write("net.mtu", std::to_string(1000 + i)).ok());
    service_.kill();
    service_.start();
    EXPECT_THAT(client_.read("net.mtu").values, ElementsAre(std::to_string(1000 + i)));
  }
}

TEST_F(ValueTest, AResetGoesBackToTheDefault) {
  ASSERT_TRUE(client_.write("net.mtu", "1400").ok());
  EXPECT_TRUE(client_.reset("net.mtu").ok());
  EXPECT_TRUE(client_.read("net.mtu").isDefault);
}

TEST_F(ValueTest, AnUnchangedWriteSaysSoAndTakesNoRevision) {
  ASSERT_TRUE(client_.write("net.mtu", "1400").ok());
  const Outcome outcome = client_.write("net.mtu", "1400");
  EXPECT_TRUE(outcome.ok());
  EXPECT_TRUE(outcome.flag);
  ConfigIF::StatusRsp status;
  ASSERT_TRUE(client_.request(ConfigIF::StatusReq(), &status).ok());
  EXPECT_EQ(status.revision(), 1u);
  EXPECT_EQ(status.commits(), 1u);
  EXPECT_EQ(status.unchanged_writes(), 1u);
}

TEST_F(ValueTest, AnUnknownVariableIsNotFoundAndNamed) {
  const Outcome read = client_.read("net.mtuu");
  EXPECT_EQ(read.error, CommonIF::ERROR_NOT_FOUND);
  EXPECT_THAT(read.text, HasSubstr("net.mtuu"));
  EXPECT_EQ(client_.write("3:net.mtu", "1400").error, CommonIF::ERROR_NOT_FOUND);
  EXPECT_EQ(client_.write("net.mtu[1]", "1400").error, CommonIF::ERROR_NOT_FOUND);
}

TEST_F(ValueTest, APathThatNamesNothingIsAnInvalidRequest) {
  ConfigIF::ReadRsp response;
  EXPECT_EQ(client_.request(ConfigIF::ReadReq(), &response).error, CommonIF::ERROR_INVALID_REQUEST);
  ConfigIF::WriteRsp written;
  EXPECT_EQ(client_.request(ConfigIF::WriteReq(), &written).error, CommonIF::ERROR_INVALID_REQUEST);
}

TEST_F(ValueTest, AValueThatDoesNotFitIsRefusedWithItsReason) {
  const Outcome outcome = client_.write("net.mtu", "9001");
  EXPECT_EQ(outcome.error, CommonIF::ERROR_INVALID_VALUE);
  EXPECT_THAT(outcome.text, HasSubstr("9000"));
  EXPECT_EQ(client_.write("device.serial", "1").error, CommonIF::ERROR_READ_ONLY);
}

TEST_F(ValueTest, ARoleThatIsTooLowIsDenied) {
  client_.actAs(CommonIF::SECURITY_ROLE_PUBLIC);
  EXPECT_EQ(client_.write("net.mtu", "1400").error, CommonIF::ERROR_DENIED);
  client_.actAs(CommonIF::SECURITY_ROLE_USER);
  const Outcome read = client_.read("net.secret");
  EXPECT_EQ(read.error, CommonIF::ERROR_DENIED);
  EXPECT_THAT(read.text, testing::Not(HasSubstr("hidden")));
  EXPECT_THAT(read.values, ElementsAre());
  EXPECT_EQ(client_.write("net.admin", "y").error, CommonIF::ERROR_DENIED);
  client_.actAs(CommonIF::SECURITY_ROLE_INSTALLER);
  EXPECT_TRUE(client_.write("net.admin", "y").ok());
  client_.actAs(CommonIF::SECURITY_ROLE_SERVICE);
  EXPECT_TRUE(client_.write("net.admin", "z").ok());
}

TEST_F(ValueTest, AOneWayWriteIsDoneBeforeWhatTheSameThreadAsksNext) {
  EXPECT_EQ(client_.writeOneWay("net.mtu", "1400"), 0);
  // Changes of one variable keep their order, so this one is compared with 1400.
  EXPECT_TRUE(client_.write("net.mtu", "1400").flag);
}

TEST_F(ValueTest, AOneWayWriteThatFailsIsLoggedWithoutItsValue) {
  EXPECT_EQ(client_.writeOneWay("net.mtu", "70000"), 0);
  EXPECT_TRUE(service_.waitForLog("net.mtu: a one-way write by client failed with error 4"));
  EXPECT_EQ(service_.linesWith("70000"), 0);
}

TEST_F(ValueTest, AValidationChangesNothing) {
  EXPECT_TRUE(client_.validate("net.mtu", "1400").ok());
  EXPECT_EQ(client_.validate("net.mtu", "9001").error, CommonIF::ERROR_INVALID_VALUE);
  EXPECT_TRUE(client_.read("net.mtu").isDefault);
}

TEST_F(ValueTest, ABatchIsAnsweredInItsOrderWithAnErrorForEachThatHasNoValue) {
  ConfigIF::BatchReadReq request;
  *request.add_inst() = instOf("net", "secret");
  *request.add_inst() = instOf("net", "mtu");
  *request.add_inst() = instOf("net", "nothing");
  request.add_inst();
  ConfigIF::BatchReadRsp response;
  ASSERT_TRUE(client_.request(request, &response).ok());
  ASSERT_EQ(response.records_size(), 4);
  EXPECT_EQ(response.records(0).error(), CommonIF::ERROR_DENIED);
  EXPECT_EQ(response.records(0).values_size(), 0);
  EXPECT_FALSE(response.records(1).has_error());
  EXPECT_EQ(response.records(1).values(0), "1500");
  EXPECT_EQ(response.records(2).error(), CommonIF::ERROR_NOT_FOUND);
  EXPECT_EQ(response.records(3).error(), CommonIF::ERROR_INVALID_REQUEST);
}

TEST_F(ValueTest, ABatchWhoseAnswerWouldNotFitAFrameIsRefused) {
  ASSERT_TRUE(client_.write("net.name", std::string(1 << 20, 'x')).ok());
  ConfigIF::BatchReadReq request;
  for (int i = 0; i < 20; ++i) *request.add_inst() = instOf("net", "name");
  ConfigIF::BatchReadRsp response;
  EXPECT_EQ(client_.request(request, &response).error, CommonIF::ERROR_LIMIT);
  EXPECT_EQ(response.records_size(), 0);
}

TEST_F(ValueTest, AGroupIsResetAndOnlyWhatChangedIsCounted) {
  ASSERT_TRUE(client_.write("net.mtu", "1400").ok());
  ASSERT_TRUE(client_.write("net.name", "x").ok());
  ASSERT_TRUE(client_.write("test.marker", "7").ok());
  ConfigIF::ResetNodeValueReq request;
  request.set_name("NET");
  ConfigIF::ResetNodeValueRsp response;
  EXPECT_TRUE(client_.request(request, &response).ok());
  EXPECT_EQ(response.changed(), 2u);
  EXPECT_TRUE(client_.read("net.mtu").isDefault);
  EXPECT_FALSE(client_.read("test.marker").isDefault);
}

TEST(BatchTest, AResetOfMoreThanIsUnderWayAtOnceReachesAll) {
  std::string instances;
  for (int i = 0; i < 150; ++i) instances += (i == 0 ? "" : ", ") + std::to_string(i);
  ServiceProcess service(
      "[variable.\"many.v\"]\ntype = \"int\"\ndefault = 0\n"
      "instances = [" +
      instances + "]\n");
  service.start();
  TestClient client("client", service.runtimeDir());
  for (int i = 0; i < 150; ++i)
    ASSERT_TRUE(client.write("many.v[" + std::to_string(i) + "]", "1").ok());
  ConfigIF::ResetNodeValueReq request;
  request.set_name("many");
  ConfigIF::ResetNodeValueRsp response;
  EXPECT_TRUE(client.request(request, &response).ok());
  EXPECT_EQ(response.changed(), 150u);
  ConfigIF::StatusRsp status;
  ASSERT_TRUE(client.request(ConfigIF::StatusReq(), &status).ok());
  EXPECT_EQ(status.changed_variables(), 0u);
}

TEST_F(ValueTest, AResetOfAGroupDoesWhatItCanAndReportsTheRest) {
  client_.actAs(CommonIF::SECURITY_ROLE_INSTALLER);
  ASSERT_TRUE(client_.write("net.admin", "y").ok());
  ASSERT_TRUE(client_.write("net.mtu", "1400").ok());
  client_.actAs(CommonIF::SECURITY_ROLE_USER);
  ConfigIF::ResetNodeValueReq request;
  ConfigIF::ResetNodeValueRsp response;
  const Outcome outcome = client_.request(request, &response);
  EXPECT_EQ(outcome.error, CommonIF::ERROR_DENIED);
  EXPECT_THAT(outcome.text, HasSubstr("net.admin"));
  EXPECT_EQ(response.changed(), 1u);
  EXPECT_TRUE(client_.read("net.mtu").isDefault);
}

TEST_F(ValueTest, AResetBelowANameThatNothingHasIsNotFound) {
  ConfigIF::ResetNodeValueReq request;
  request.set_name("nothing");
  ConfigIF::ResetNodeValueRsp response;
  EXPECT_EQ(client_.request(request, &response).error, CommonIF::ERROR_NOT_FOUND);
}

TEST_F(ValueTest, AListingHoldsWhatTheRoleMayReadAndCountsTheRest) {
  ConfigIF::ListReq request;
  request.set_prefix("net");
  ConfigIF::ListRsp response;
  ASSERT_TRUE(client_.request(request, &response).ok());
  std::vector<std::string> names;
  for (const ConfigIF::ListRecord& record : response.records())
    names.push_back(record.inst().path(1).name());
  EXPECT_THAT(names, ElementsAre("admin", "mode", "mtu", "name", "servers"));
  EXPECT_EQ(response.hidden(), 1u);
  EXPECT_EQ(response.records(2).description(), "Largest packet, in bytes");
}

TEST_F(ValueTest, AttributesTellDefinitionAndState) {
  ASSERT_TRUE(client_.write("net.mtu", "1400").ok());
  ConfigIF::ReadAttributesReq request;
  *request.mutable_inst() = instOf("net", "mtu");
  ConfigIF::ReadAttributesRsp response;
  ASSERT_TRUE(client_.request(request, &response).ok());
  const ConfigIF::Attributes& attributes = response.attributes();
  EXPECT_EQ(attributes.type(), ConfigIF::VALUE_INT);
  EXPECT_EQ(attributes.min(), 68);
  EXPECT_EQ(attributes.max(), 9000);
  EXPECT_EQ(attributes.default_values(0), "1500");
  EXPECT_EQ(attributes.changed_at(), 1u);
  EXPECT_EQ(attributes.defined_at_line(), 2u);
  EXPECT_THAT(attributes.defined_in(), HasSubstr("test.toml"));
  EXPECT_FALSE(attributes.has_provider());
  EXPECT_EQ(attributes.read_role(), CommonIF::SECURITY_ROLE_PUBLIC);
  EXPECT_EQ(attributes.write_role(), CommonIF::SECURITY_ROLE_USER);
}

TEST_F(ValueTest, OptionsAreChangedReadAndReset) {
  ConfigIF::SetAttributeOptionsReq set;
  *set.mutable_inst() = instOf("net", "mode");
  set.add_options("auto");
  set.add_options("off");
  set.set_default_index(1);
  ConfigIF::SetAttributeOptionsRsp setResponse;
  ASSERT_TRUE(client_.request(set, &setResponse).ok());
  EXPECT_TRUE(client_.write("net.mode", "off").ok());
  EXPECT_EQ(client_.write("net.mode", "manual").error, CommonIF::ERROR_INVALID_VALUE);

  ConfigIF::GetAttributeOptionsReq get;
  *get.mutable_inst() = instOf("net", "mode");
  ConfigIF::GetAttributeOptionsRsp options;
  ASSERT_TRUE(client_.request(get, &options).ok());
  EXPECT_THAT(options.options(), ElementsAre("auto", "off"));
  EXPECT_EQ(options.default_index(), 1u);

  ConfigIF::GetDefaultOptionsReq getDefault;
  getDefault.set_name("net.mode");
  ConfigIF::GetDefaultOptionsRsp defaults;
  ASSERT_TRUE(client_.request(getDefault, &defaults).ok());
  EXPECT_THAT(defaults.options(), ElementsAre("auto", "manual"));

  ASSERT_TRUE(client_.write("net.mode", "auto").ok());
  ConfigIF::ResetAttributeReq reset;
  reset.set_name("net.mode");
  ConfigIF::ResetAttributeRsp resetResponse;
  ASSERT_TRUE(client_.request(reset, &resetResponse).ok());
  EXPECT_EQ(resetResponse.changed(), 1u);
  ASSERT_TRUE(client_.request(get, &options).ok());
  EXPECT_THAT(options.options(), ElementsAre("auto", "manual"));
}

TEST_F(ValueTest, AccessLevelsAreChangedVariableByVariable) {
  ConfigIF::SetAccessLevelsReq request;
  *request.add_inst() = instOf("net", "mtu");
  *request.add_inst() = instOf("net", "admin");
  *request.add_inst() = instOf("net", "nothing");
  request.add_inst();
  request.set_write_role(CommonIF::SECURITY_ROLE_PUBLIC);
  ConfigIF::SetAccessLevelsRsp response;
  EXPECT_EQ(client_.request(request, &response).error, CommonIF::ERROR_DENIED);
  ASSERT_EQ(response.records_size(), 4);
  EXPECT_FALSE(response.records(0).has_error());
  EXPECT_EQ(response.records(1).error(), CommonIF::ERROR_DENIED);
  EXPECT_EQ(response.records(2).error(), CommonIF::ERROR_NOT_FOUND);
  EXPECT_EQ(response.records(3).error(), CommonIF::ERROR_INVALID_REQUEST);

  ConfigIF::GetAccessLevelsReq get;
  *get.mutable_inst() = instOf("net", "mtu");
  ConfigIF::GetAccessLevelsRsp levels;
  ASSERT_TRUE(client_.request(get, &levels).ok());
  EXPECT_EQ(levels.write_role(), CommonIF::SECURITY_ROLE_PUBLIC);
  EXPECT_EQ(levels.read_role(), CommonIF::SECURITY_ROLE_PUBLIC);
}

TEST_F(ValueTest, AWholeRecordIsReadAtOnce) {
  ConfigIF::GetValueOptionsAccessReq request;
  *request.mutable_inst() = instOf("net", "mode");
  ConfigIF::GetValueOptionsAccessRsp response;
  ASSERT_TRUE(client_.request(request, &response).ok());
  EXPECT_THAT(response.record().values(), ElementsAre("auto"));
  EXPECT_THAT(response.record().options(), ElementsAre("auto", "manual"));
  EXPECT_EQ(response.record().write_role(), CommonIF::SECURITY_ROLE_USER);

  ConfigIF::BatchGetValueOptionsAccessReq batch;
  *batch.add_inst() = instOf("net", "secret");
  *batch.add_inst() = instOf("net", "mtu");
  ConfigIF::BatchGetValueOptionsAccessRsp records;
  ASSERT_TRUE(client_.request(batch, &records).ok());
  ASSERT_EQ(records.records_size(), 2);
  EXPECT_EQ(records.records(0).error(), CommonIF::ERROR_DENIED);
  EXPECT_THAT(records.records(1).values(), ElementsAre("1500"));
}

TEST_F(ValueTest, TheStatusCountsWhatHappened) {
  client_.read("net.mtu");
  client_.write("net.mtu", "1400");
  client_.write("net.mtu", "70000");
  ConfigIF::StatusRsp status;
  ASSERT_TRUE(client_.request(ConfigIF::StatusReq(), &status).ok());
  EXPECT_EQ(status.reads(), 1u);
  EXPECT_EQ(status.commits(), 1u);
  EXPECT_EQ(status.refused_writes(), 1u);
  EXPECT_EQ(status.variables(), 9u);
  EXPECT_EQ(status.changed_variables(), 1u);
  EXPECT_EQ(status.pid(), static_cast<std::uint64_t>(service_.pid()));
  EXPECT_EQ(status.store_file(), service_.storeFile());
  EXPECT_FALSE(status.version().empty());
}

TEST_F(ValueTest, ADamagedStoreDoesNotKeepTheServiceFromStarting) {
  ASSERT_TRUE(client_.write("net.mtu", "1400").ok());
  ASSERT_EQ(service_.terminate(), 0);
  writeFile(service_.storeFile(), "this is no store");
  service_.start();
  EXPECT_GE(service_.linesWith("damaged"), 1);
  // The snapshot of the orderly stop takes its place.
  EXPECT_THAT(client_.read("net.mtu").values, ElementsAre("1400"));
}

TEST_F(ValueTest, AStoredValueThatNewDefinitionsForbidIsNotServed) {
  ASSERT_TRUE(client_.write("net.mtu", "1400").ok());
  ASSERT_EQ(service_.terminate(), 0);
  service_.redefine("[variable.\"net.mtu\"]\ntype = \"int\"\nmax = 1000\ndefault = 900\n");
  service_.start();
  EXPECT_THAT(client_.read("net.mtu").values, ElementsAre("900"));
  EXPECT_EQ(service_.linesWith("net.mtu: the stored value is not used"), 1);
}

}  // namespace
}  // namespace TestSupport
