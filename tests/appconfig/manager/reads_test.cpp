#include <climits>

#include "tests/appconfig/manager/manager_fixture.h"

namespace {

using TestSupport::answerReadsWith;
using TestSupport::Value;

class ReadsTest : public TestSupport::ManagerTest {
 protected:
  int readAsInt(const std::string& text) {
    manager->updateConfigVar(mtu, {text});
    return manager->getConfigVarInt(mtu);
  }
  bool readAsBool(const std::string& text) {
    manager->updateConfigVar(mtu, {text});
    return manager->getConfigVarBool(mtu);
  }
};

TEST_F(ReadsTest, TheFirstReadAsksAndTheSecondInOtherCaseIsAnsweredFromTheCache) {
  answerReadsWith(pb, {"a", "b"}, true);
  Value out{"old"};
  EXPECT_EQ(manager->getConfigVar("Net", 0, "MTU", 1, out), (Value{"a", "b"}));
  EXPECT_EQ(out, (Value{"a", "b"}));
  EXPECT_EQ(pb.takeSent().size(), 2U);  // the read and its registration
  Value again;
  EXPECT_EQ(manager->getConfigVar("NET", 0, "mtu", 1, again), (Value{"a", "b"}));
  EXPECT_EQ(again, (Value{"a", "b"}));
  EXPECT_TRUE(pb.sent().empty());
  EXPECT_TRUE(manager->retrieveConfigVar(mtu)->second.isDefault());
}

TEST_F(ReadsTest, TheRequestCarriesTheCallersKey) {
  manager->getConfigVar(mtu);
  expectRequest(pb.sent().front(), Helper::getReadRequest(self, role, mtu));
}

TEST_F(ReadsTest, OtherInstancesAreOtherVariables) {
  answerReadsWith(pb, {"a"});
  manager->getConfigVar("net", 0, "mtu", 1);
  manager->getConfigVar("net", 0, "mtu", 2);
  manager->getConfigVar("net", 1, "mtu", 1);
  EXPECT_EQ(reads(), 3U);
}

TEST_F(ReadsTest, AForeignNamespaceAlwaysAsksAndIsNeverCached) {
  answerReadsWith(pb, {"a"});
  const ConfigVar foreign(7, "net", 0, "mtu", 1);
  Value out;
  EXPECT_EQ(manager->getConfigVar(foreign, out), Value{"a"});
  EXPECT_EQ(manager->getConfigVar(foreign), "a");
  EXPECT_EQ(reads(), 2U);
  EXPECT_EQ(manager->removeVars(""), 0U);
}

TEST_F(ReadsTest, AForeignNamespaceIsNotAnsweredFromTheEntryOfItsName) {
  manager->updateConfigVar(mtu, {"ours"});
  answerReadsWith(pb, {"theirs"});
  EXPECT_EQ(manager->getConfigVar(ConfigVar(7, "net", 0, "mtu", 1)), "theirs");
  EXPECT_EQ(manager->getConfigVar(mtu), "ours");
}

TEST_F(ReadsTest, NoNamespaceAndTheLinksOwnShareOneEntry) {
  useNamespace(3);
  answerReadsWith(pb, {"a"});
  const ConfigVar own(3, "net", 0, "mtu", 1);
  EXPECT_EQ(manager->getConfigVar(own), "a");
  EXPECT_EQ(manager->getConfigVar(mtu), "a");
  EXPECT_EQ(manager->getConfigVarInt(own), 0);
  EXPECT_EQ(reads(), 1U);
  EXPECT_TRUE(isCached(own));
  EXPECT_EQ(manager->retrieveConfigVar(own)->first.nameSpace(), 0);
}

TEST_F(ReadsTest, AnEmptyAnswerReadsAsOneEmptyStringAndIsNotCached) {
  answerReadsWith(pb, {}, true);
  Value out{"old", "older"};
  EXPECT_EQ(manager->getConfigVar(mtu, out), Value{""});
  EXPECT_EQ(out, Value{""});
  EXPECT_FALSE(isCached(mtu));
  manager->getConfigVar(mtu, out);
  EXPECT_EQ(reads(), 2U);
}

TEST_F(ReadsTest, AFailedReadIsNotCachedEither) {
  pb.failAll();
  EXPECT_EQ(manager->getConfigVar(mtu), "");
  pb.succeed();
  answerReadsWith(pb, {"1500"});
  EXPECT_EQ(manager->getConfigVar(mtu), "1500");
}

TEST_F(ReadsTest, AnAnswerOfOneEmptyStringIsAValue) {
  answerReadsWith(pb, {""});
  EXPECT_EQ(manager->getConfigVar(mtu), "");
  EXPECT_EQ(manager->getConfigVar(mtu), "");
  EXPECT_EQ(reads(), 1U);
}

TEST_F(ReadsTest, AnEntryWithoutAValueCountsAsAMiss) {
  manager->updateIsDefault(mtu, true);
  answerReadsWith(pb, {"1500"});
  EXPECT_EQ(manager->getConfigVar(mtu), "1500");
  EXPECT_EQ(reads(), 1U);
}

TEST_F(ReadsTest, TheStringFormsGiveTheFirstString) {
  answerReadsWith(pb, {"a", "b"});
  EXPECT_EQ(manager->getConfigVar(mtu), "a");
  EXPECT_EQ(manager->getConfigVar("net", 0, "mtu", 1), "a");
  EXPECT_EQ(reads(), 1U);
}

TEST_F(ReadsTest, AnIntIsWhatTheTextBeginsWithInItsBase) {
  const struct {
    const char* text;
    int number;
  } cases[] = {
      {"0x10", 16},
      {"010", 8},
      {"-5", -5},
      {"abc", 0},
      {"0x1F", 31},
      {"12abc", 12},
      {"  7", 7},
      {"+3", 3},
      {"", 0},
      {"2147483647", INT_MAX},
      {"-2147483648", INT_MIN},
  };
  for (const auto& c : cases) EXPECT_EQ(readAsInt(c.text), c.number) << c.text;
}

TEST_F(ReadsTest, AnIntThatDoesNotFit32BitsIsTheNearestThatDoes) {
  const struct {
    const char* text;
    int number;
  } cases[] = {
      {"0x80000000", INT_MAX},           {"4294967295", INT_MAX},
      {"2147483648", INT_MAX},           {"-2147483649", INT_MIN},
      {"99999999999999999999", INT_MAX}, {"-99999999999999999999", INT_MIN},
  };
  for (const auto& c : cases) EXPECT_EQ(readAsInt(c.text), c.number) << c.text;
}

TEST_F(ReadsTest, TheIntOfAnUnreadableVariableIs0AndNotMinus1) {
  pb.failAll();
  EXPECT_EQ(manager->getConfigVarInt(mtu), 0);
  EXPECT_EQ(manager->getConfigVarInt("net", 0, "mtu", 1), 0);
  pb.succeed();
  answerReadsWith(pb, {});
  EXPECT_EQ(manager->getConfigVarInt(mtu), 0);
  manager->updateConfigVar(mtu, {});
  EXPECT_EQ(manager->getConfigVarInt(mtu), 0);
}

TEST_F(ReadsTest, AnIntIsCachedLikeAnyValue) {
  answerReadsWith(pb, {"42"});
  EXPECT_EQ(manager->getConfigVarInt("NET", 0, "MTU", 1), 42);
  EXPECT_EQ(manager->getConfigVarInt(mtu), 42);
  EXPECT_EQ(reads(), 1U);
}

TEST_F(ReadsTest, ABoolIsTrueForTrueInAnyCaseAndNothingElse) {
  for (const char* text : {"true", "TRUE", "True", "tRuE"}) EXPECT_TRUE(readAsBool(text)) << text;
  for (const char* text : {"1", "yes", " true", "", "true ", "false"})
    EXPECT_FALSE(readAsBool(text)) << text;
}

TEST_F(ReadsTest, TheBoolOfAnUnreadableVariableIsFalse) {
  pb.failAll();
  EXPECT_FALSE(manager->getConfigVarBool(mtu));
  EXPECT_FALSE(manager->getConfigVarBool("net", 0, "mtu", 1));
}

TEST_F(ReadsTest, RetrievingNeitherAsksNorCreates) {
  EXPECT_FALSE(isCached(mtu));
  manager->updateConfigVar(mtu, {"1500"});
  ASSERT_TRUE(isCached(ConfigVar("NET", 0, "Mtu", 1)));
  EXPECT_EQ(manager->retrieveConfigVar(mtu)->second.getValue(), Value{"1500"});
  EXPECT_FALSE(isCached(ConfigVar(7, "net", 0, "mtu", 1)));
  EXPECT_TRUE(pb.sent().empty());
}

// --- isDefault ---

TEST_F(ReadsTest, TheDefaultFlagComesWithTheValueAndIsAskedForOnce) {
  answerReadsWith(pb, {"1500"}, true);
  EXPECT_TRUE(manager->isDefault("net", 0, "mtu", 1));
  EXPECT_TRUE(manager->isDefault("NET", 0, "mtu", 1));
  EXPECT_EQ(reads(), 1U);
  answerReadsWith(pb, {"eth"}, false);
  EXPECT_FALSE(manager->isDefault("net", 0, "name", 0));
}

TEST_F(ReadsTest, AVariableTheServiceDoesNotKnowCountsAsDefault) {
  refuseAll<ConfigIF::ReadReq, ConfigIF::ReadRsp>(CommonIF::ERROR_NOT_FOUND);
  EXPECT_TRUE(manager->isDefault("net", 0, "mtu", 1));
  EXPECT_FALSE(isCached(mtu));
}

TEST_F(ReadsTest, AnEntryMadeByOtherThingsAnswersWithItsFlagWithoutARead) {
  manager->updateConfigVarOptions("net", 0, "mtu", 1, {"a"});
  EXPECT_FALSE(manager->isDefault("net", 0, "mtu", 1));
  EXPECT_EQ(reads(), 0U);
}

// --- The whole record ---

TEST_F(ReadsTest, TheFullRecordLoadsWhatIsMissingAndNothingElse) {
  answerReadsWith(pb, {"auto"}, true);
  answerRolesWith(CommonIF::SECURITY_ROLE_USER, CommonIF::SECURITY_ROLE_FACTORY);
  answerOptionsWith({"auto", "manual"}, 1);
  const ConfigValue record = manager->getConfigValue("Net", 0, "MTU", 1);
  EXPECT_EQ(record.getValue(), Value{"auto"});
  EXPECT_TRUE(record.isDefault());
  EXPECT_EQ(record.readRole(), AppConfig::eRoleUser);
  EXPECT_EQ(record.writeRole(), AppConfig::eRoleFactory);
  EXPECT_TRUE(record.hasAccessLevels());
  EXPECT_EQ(record.getOptions(), (std::vector<std::string>{"auto", "manual"}));
  EXPECT_EQ(record.defaultIndex(), 1U);
  EXPECT_EQ(pb.takeSent().size(), 6U);  // three requests and their three registrations
  EXPECT_EQ(manager->getConfigValue("net", 0, "mtu", 1).getValue(), Value{"auto"});
  EXPECT_TRUE(pb.sent().empty());
}

TEST_F(ReadsTest, TheFullRecordOfAnEntryWithoutAValueIsNotReadAgain) {
  manager->updateIsDefault(mtu, true);
  EXPECT_FALSE(manager->getConfigValue("net", 0, "mtu", 1).hasValue());
  EXPECT_EQ(reads(), 0U);
  EXPECT_EQ(count<ConfigIF::GetAccessLevelsReq>(), 1U);
  EXPECT_EQ(count<ConfigIF::GetAttributeOptionsReq>(), 1U);
}

TEST_F(ReadsTest, TheFullRecordOfAnUnknownVariableIsEmpty) {
  pb.failAll();
  const ConfigValue record = manager->getConfigValue("net", 0, "mtu", 1);
  EXPECT_FALSE(record.hasValue());
  EXPECT_FALSE(record.hasOptions());
  EXPECT_FALSE(record.hasAccessLevels());
  EXPECT_FALSE(record.isDefault());
  EXPECT_EQ(record.defaultIndex(), 0U);
  EXPECT_EQ(pb.sent().size(), 1U);  // neither roles nor options are asked for
  EXPECT_FALSE(isCached(mtu));
}

TEST_F(ReadsTest, TheFullRecordLeavesOutRolesThatCannotBeRead) {
  answerReadsWith(pb, {"auto"});
  answerOptionsWith({"auto", "manual"}, 1);
  refuseAll<ConfigIF::GetAccessLevelsReq, ConfigIF::GetAccessLevelsRsp>();
  const ConfigValue record = manager->getConfigValue("net", 0, "mtu", 1);
  EXPECT_EQ(record.getValue(), Value{"auto"});
  EXPECT_EQ(record.getOptions(), (std::vector<std::string>{"auto", "manual"}));
  EXPECT_FALSE(record.hasAccessLevels());
}

TEST_F(ReadsTest, TheFullRecordOfAVariableWithoutOptionsKnowsThatThereAreNone) {
  answerReadsWith(pb, {"auto"});
  refuseAll<ConfigIF::GetAttributeOptionsReq, ConfigIF::GetAttributeOptionsRsp>();
  EXPECT_TRUE(manager->getConfigValue("net", 0, "mtu", 1).hasOptions());
  manager->getConfigValue("net", 0, "mtu", 1);
  EXPECT_EQ(count<ConfigIF::GetAttributeOptionsReq>(), 1U);
}

TEST_F(ReadsTest, TheFullRecordOfAVariableThatIsRemovedMeanwhileIsEmpty) {
  manager->updateConfigVar(mtu, {"auto"});
  manager->updateConfigVarOptions("net", 0, "mtu", 1, {"auto"});
  pb.answer<ConfigIF::GetAccessLevelsReq, ConfigIF::GetAccessLevelsRsp>(
      [this](const auto&, auto& response) {
        manager->removeVars("net");
        TestSupport::refuse(response.mutable_result(), CommonIF::ERROR_NOT_FOUND);
      });
  const ConfigValue record = manager->getConfigValue("net", 0, "mtu", 1);
  EXPECT_FALSE(record.hasValue());
  EXPECT_FALSE(record.hasOptions());
}

TEST_F(ReadsTest, TheFullRecordIsACopy) {
  answerReadsWith(pb, {"auto"});
  ConfigValue record = manager->getConfigValue("net", 0, "mtu", 1);
  record.setValue({"changed"});
  EXPECT_EQ(manager->getConfigVar(mtu), "auto");
}

}  // namespace
