#include "tests/appconfig/manager/manager_fixture.h"

namespace {

using TestSupport::answerReadsWith;
using TestSupport::Value;
using Options = std::vector<std::string>;

class OptionsTest : public TestSupport::ManagerTest {
 protected:
  OptionsTest() {
    answerReadsWith(pb, {"auto"});
    answerOptionsWith({"auto", "manual"}, 1);
  }

  std::size_t optionReads() const { return count<ConfigIF::GetAttributeOptionsReq>(); }

  Options out{"old"};
  unsigned int index = 9;
};

TEST_F(OptionsTest, TheSecondReadOfOptionsIsAnsweredFromTheCache) {
  Options& returned = manager->getConfigOptions("Net", 0, "MTU", 1, out);
  EXPECT_EQ(&returned, &out);
  EXPECT_EQ(out, (Options{"auto", "manual"}));
  pb.takeSent();
  out = {"old"};
  EXPECT_EQ(manager->getConfigOptions(mtu, out), (Options{"auto", "manual"}));
  EXPECT_TRUE(pb.sent().empty());
}

TEST_F(OptionsTest, ReadingOptionsOfAnUncachedVariableReadsItsValueFirst) {
  manager->getConfigOptions(mtu, out);
  EXPECT_EQ(pb.sent()[0].type, "ConfigIF.ReadReq");
  EXPECT_EQ(cachedValue(mtu), Value{"auto"});
  EXPECT_EQ(manager->retrieveConfigVar(mtu)->second.defaultIndex(), 1U);
}

TEST_F(OptionsTest, AnEntryWithoutOptionsIsNotReadAgain) {
  manager->updateIsDefault(mtu, true);
  manager->getConfigOptions(mtu, out);
  EXPECT_EQ(reads(), 0U);
  EXPECT_EQ(optionReads(), 1U);
}

TEST_F(OptionsTest, AnAnswerWithoutOptionsIsCachedLikeAnyOther) {
  answerOptionsWith({}, 0);
  EXPECT_EQ(manager->getConfigOptions(mtu, out), Options{});
  out = {"old"};
  testing::internal::CaptureStdout();
  EXPECT_EQ(manager->getConfigOptions(mtu, out), Options{});
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "empty in getOptions\n");
  EXPECT_EQ(optionReads(), 1U);
}

TEST_F(OptionsTest, AFailedReadCachesNoOptionsAndLeavesTheIndex) {
  manager->setConfigOptions("net", 0, "mtu", 1, {"a", "b", "c"}, 2);
  pb.failAll();
  EXPECT_EQ(manager->getConfigOptions(mtu, out), Options{});
  EXPECT_EQ(manager->getConfigOptions(mtu, out), Options{});
  EXPECT_EQ(optionReads(), 1U);
  EXPECT_TRUE(manager->getConfigOptionDefaultIndex(mtu, index));
  EXPECT_EQ(index, 2U);
}

TEST_F(OptionsTest, TheListFormAppendsAndTheVectorFormReplaces) {
  Value list{"one", "two"};
  manager->getConfigOptions("net", 0, "mtu", 1, list);
  EXPECT_EQ(list, (Value{"one", "two", "auto", "manual"}));
  manager->getConfigOptions("net", 0, "mtu", 1, out);
  EXPECT_EQ(out, (Options{"auto", "manual"}));
}

TEST_F(OptionsTest, OptionsOfTheLinksOwnNamespaceLieInAnEntryApartFromTheValue) {
  useNamespace(3);
  const ConfigVar own(3, "net", 0, "mtu", 1);
  manager->getConfigOptions(own, out);
  EXPECT_EQ(out, (Options{"auto", "manual"}));
  EXPECT_FALSE(manager->retrieveConfigVar(mtu)->second.hasOptions());
  EXPECT_EQ(cachedValue(mtu), Value{"auto"});
  pb.takeSent();
  manager->getConfigOptions(own, out);
  EXPECT_TRUE(pb.sent().empty());
  EXPECT_EQ(manager->removeVars(""), 2U);
}

TEST_F(OptionsTest, OptionsOfAForeignNamespaceAreCachedUnlikeItsValue) {
  const ConfigVar foreign(7, "net", 0, "mtu", 1);
  manager->getConfigOptions(foreign, out);
  manager->getConfigOptions(foreign, out);
  EXPECT_EQ(optionReads(), 1U);
  EXPECT_EQ(manager->removeVars(""), 1U);
}

// --- The default index ---

TEST_F(OptionsTest, TheIndexOfAnUncachedVariableLoadsValueAndOptions) {
  EXPECT_TRUE(manager->getConfigOptionDefaultIndex("NET", 0, "mtu", 1, index));
  EXPECT_EQ(index, 1U);
  EXPECT_EQ(reads(), 1U);
  EXPECT_EQ(optionReads(), 1U);
}

TEST_F(OptionsTest, TheIndexOfAVariableReadBeforeIsTheStoredOneWithoutFetchingOptions) {
  manager->getConfigVar(mtu);
  EXPECT_TRUE(manager->getConfigOptionDefaultIndex(mtu, index));
  EXPECT_EQ(index, 0U);
  EXPECT_EQ(optionReads(), 0U);
}

// Reading the options makes an entry even when the service has none, so the index of an unknown
// variable is 0 rather than absent.
TEST_F(OptionsTest, TheIndexOfAnUnknownVariableIs0BecauseItsOptionsWereLookedFor) {
  pb.failAll();
  EXPECT_TRUE(manager->getConfigOptionDefaultIndex(mtu, index));
  EXPECT_EQ(index, 0U);
}

// --- Default options ---

TEST_F(OptionsTest, DefaultOptionsAreAskedForEveryTimeAndAppended) {
  out.clear();
  manager->getConfigDefaultOptions("NET", 0, "mtu", 1, out);
  Options& returned = manager->getConfigDefaultOptions("NET", 0, "mtu", 1, out);
  EXPECT_EQ(&returned, &out);
  EXPECT_EQ(out, (Options{"auto", "manual", "auto", "manual"}));
  EXPECT_EQ(count<ConfigIF::GetDefaultOptionsReq>(), 2U);
  expectRequest(pb.sent().front(), Helper::getGetDefaultOptionsRequest(self, role, "net.mtu"));
}

TEST_F(OptionsTest, OfDefaultOptionsOnlyTheIndexIsCached) {
  manager->getConfigDefaultOptions("net", 0, "mtu", 1, out);
  EXPECT_FALSE(manager->retrieveConfigVar(mtu)->second.hasOptions());
  EXPECT_TRUE(manager->getConfigOptionDefaultIndex(mtu, index));
  EXPECT_EQ(index, 1U);
  pb.failAll();
  manager->getConfigDefaultOptions("net", 0, "mtu", 1, out);
  EXPECT_EQ(manager->retrieveConfigVar(mtu)->second.defaultIndex(), 1U);
}

// The index that is stored is the one that was cached, 0 when there was none.
TEST_F(OptionsTest, RefusedDefaultOptionsAppendNothingAndStillStoreAnIndex) {
  refuseAll<ConfigIF::GetDefaultOptionsReq, ConfigIF::GetDefaultOptionsRsp>();
  EXPECT_EQ(manager->getConfigDefaultOptions("net", 0, "mtu", 1, out), Options{"old"});
  ASSERT_TRUE(isCached(mtu));
  EXPECT_TRUE(manager->getConfigOptionDefaultIndex(mtu, index));
  EXPECT_EQ(index, 0U);
  EXPECT_EQ(reads(), 0U);
  manager->setConfigOptions("net", 0, "mtu", 1, {"a", "b", "c"}, 2);
  manager->getConfigDefaultOptions("net", 0, "mtu", 1, out);
  EXPECT_TRUE(manager->getConfigOptionDefaultIndex(mtu, index));
  EXPECT_EQ(index, 2U);
}

// --- Changing options ---

TEST_F(OptionsTest, SettingOptionsWithAnIndexCachesTheIndexAtOnceAndNotTheOptions) {
  manager->getConfigOptions(mtu, out);
  pb.takeSent();
  EXPECT_TRUE(manager->setConfigOptions("net", 0, "mtu", 1, {"x", "y", "z"}, 2));
  const unsigned int two = 2;
  expectRequest(pb.takeSent().front(),
                Helper::getSetOptionsRequest(self, role, mtu, {"x", "y", "z"}, &two));
  EXPECT_EQ(manager->getConfigOptions(mtu, out), (Options{"auto", "manual"}));
  EXPECT_TRUE(manager->getConfigOptionDefaultIndex(mtu, index));
  EXPECT_EQ(index, 2U);
}

TEST_F(OptionsTest, SettingOptionsWithoutAnIndexSendsNoneAndCachesNothing) {
  EXPECT_TRUE(manager->setConfigOptions("net", 0, "mtu", 1, {"x"}));
  expectRequest(pb.takeSent().front(),
                Helper::getSetOptionsRequest(self, role, mtu, {"x"}, nullptr));
  EXPECT_FALSE(isCached(mtu));
}

TEST_F(OptionsTest, AfterSettingOptionsOfAnUncachedVariableTheyAreStillAskedFor) {
  EXPECT_TRUE(manager->setConfigOptions("net", 0, "mtu", 1, {"x", "y", "z"}, 2));
  EXPECT_TRUE(isCached(mtu));
  EXPECT_FALSE(manager->retrieveConfigVar(mtu)->second.hasOptions());
  EXPECT_EQ(manager->getConfigOptions(mtu, out), (Options{"auto", "manual"}));
  EXPECT_EQ(optionReads(), 1U);
}

TEST_F(OptionsTest, SettingOptionsWithoutAnIndexLeavesWhatIsCached) {
  manager->getConfigOptions(mtu, out);
  EXPECT_TRUE(manager->setConfigOptions("net", 0, "mtu", 1, {"x"}));
  EXPECT_EQ(manager->getConfigOptions(mtu, out), (Options{"auto", "manual"}));
  EXPECT_TRUE(manager->getConfigOptionDefaultIndex(mtu, index));
  EXPECT_EQ(index, 1U);
}

TEST_F(OptionsTest, RefusedOptionsChangeNothingInTheCache) {
  refuseAll<ConfigIF::SetAttributeOptionsReq, ConfigIF::SetAttributeOptionsRsp>();
  EXPECT_FALSE(manager->setConfigOptions("net", 0, "mtu", 1, {"x"}, 1));
  EXPECT_FALSE(manager->setConfigOptions("net", 0, "mtu", 1, {"x"}));
  EXPECT_FALSE(isCached(mtu));
}

TEST_F(OptionsTest, StoringAnnouncedOptionsLeavesTheIndexAndAsksNobody) {
  manager->setConfigOptions("net", 0, "mtu", 1, {"a", "b"}, 1);
  pb.takeSent();
  manager->updateConfigVarOptions("NET", 0, "Mtu", 1, {"c"});
  EXPECT_EQ(manager->getConfigOptions(mtu, out), Options{"c"});
  EXPECT_TRUE(manager->getConfigOptionDefaultIndex(mtu, index));
  EXPECT_EQ(index, 1U);
  EXPECT_TRUE(pb.sent().empty());
}

}  // namespace
