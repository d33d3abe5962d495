#include "configsrv/audit/audit_trail.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "configsrv/model/model.h"
#include "tests/support/definition_builder.h"
#include "tests/support/temp_dir.h"

namespace ConfigSrv {
namespace {

using testing::HasSubstr;
using testing::Not;
using TestSupport::defined;
using TestSupport::keyOf;

class AuditTrailTest : public testing::Test {
 protected:
  // One record, without its line break and its time.
  std::string recorded(StoreChange change, const ChangeOutcome& outcome, const Variable* variable) {
    trail_.changeEnds(by_, std::move(change), variable, outcome);
    return lastWithoutTime();
  }
  std::string recorded(const std::string& key, decltype(StoreChange::what) what,
                       const ChangeOutcome& outcome = made()) {
    return recorded({keyOf(key), std::move(what)}, outcome, model_.find(keyOf(key)));
  }
  std::string lastWithoutTime() {
    std::ifstream file(directory_.file("audit"));
    std::string line;
    std::string last;
    while (std::getline(file, line)) last = line;
    static const std::regex time(R"re("time":"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z",)re");
    EXPECT_TRUE(std::regex_search(last, time)) << last;
    return std::regex_replace(last, time, "");
  }
  static ChangeOutcome made() { return {{}, false, {}, 8}; }
  static ChangeOutcome failed(eErrorT error) { return {{error, "because"}}; }

  TestSupport::TempDir directory_;
  Log log_{LogLevel::Info, [](LogLevel, const std::string& line) { ADD_FAILURE() << line; }};
  Model model_{Definitions({
      defined("net.mtu").ofType(ValueType::Int).withDefault({"1500"}),
      defined("net.servers").ofType(ValueType::List).withDefault({"a", "b"}),
      defined("net.mode").withDefault({"auto"}).withOptions({"auto", "manual"}, 1),
      defined("net.key").withDefault({"hunter1"}).secret(),
  })};
  AuditTrail trail_{directory_.file("audit"), log_};
  Requester by_{7, "prefix/ui", AppConfig::eRoleUser, false,
                std::make_shared<PbUtility::Peer>(PbUtility::Peer{7, "ui", 1000, 100, 1234})};
  const std::string who_ =
      R"({"uid":1000,"gid":100,"pid":1234,"endpoint":"ui","client":"prefix/ui","role":"user",)";
};

TEST_F(AuditTrailTest, AChangeIsRecordedWithWhoWhatFromWhatToWhatAndHowItEnded) {
  EXPECT_EQ(recorded("net.mtu", StoreChange::SetValue{{"1400"}}),
            who_ + R"("variable":"net.mtu","action":"set","old":["1500"],"new":["1400"],)"
                   R"("outcome":"changed","revision":8})");
}

TEST_F(AuditTrailTest, EachKindOfChangeHasItsAction) {
  EXPECT_THAT(recorded("net.servers", StoreChange::ResetValue{}),
              HasSubstr(R"("action":"reset","old":["a","b"],"new":["a","b"])"));
  EXPECT_THAT(recorded("net.mode", StoreChange::SetOptions{{{"auto"}}, 0}),
              HasSubstr(R"("action":"set-options",)"
                        R"("old":{"options":["auto","manual"],"default-index":1},)"
                        R"("new":{"options":["auto"],"default-index":0})"));
  EXPECT_THAT(recorded("net.mtu", StoreChange::SetAccess{AppConfig::eRoleFactory, {}}),
              HasSubstr(R"("action":"set-access","old":{"read":"public","write":"user"},)"
                        R"("new":{"read":"factory","write":"user"})"));
  EXPECT_THAT(recorded("net.mtu", StoreChange::ResetAttributes{}),
              HasSubstr(R"("action":"reset-attributes","old":{"read":"public","write":"user"})"));
}

TEST_F(AuditTrailTest, AFailureIsRecordedWithItsReason) {
  EXPECT_THAT(recorded("net.mtu", StoreChange::SetValue{{"1"}}, failed(eErrDenied)),
              HasSubstr(R"("new":["1"],"outcome":"denied","reason":"because"})"));
  EXPECT_THAT(recorded("net.mtu", StoreChange::SetValue{{"1"}}, failed(eErrVetoed)),
              HasSubstr(R"("outcome":"vetoed")"));
  EXPECT_THAT(recorded("net.mtu", StoreChange::SetValue{{"1"}}, failed(eErrStorage)),
              HasSubstr(R"("outcome":"not-stored")"));
  EXPECT_THAT(recorded("net.mtu", StoreChange::SetValue{{"1500"}}, {{}, true}),
              HasSubstr(R"("outcome":"unchanged"})"));
}

TEST_F(AuditTrailTest, OfASecretVariableNoValueAndNoReasonIsRecorded) {
  const std::string record = recorded("net.key", StoreChange::SetValue{{"hunter2"}},
                                      {{eErrVetoed, "the provider says hunter2 is bad"}});
  EXPECT_EQ(record, who_ + R"("variable":"net.key","action":"set","old":null,"new":null,)"
                           R"("masked":true,"outcome":"vetoed"})");
  recorded("net.key", StoreChange::ResetValue{});
  recorded("net.key", StoreChange::SetOptions{{{"hunter2"}}, 0});
  recorded("net.key", StoreChange::SetAccess{AppConfig::eRoleFactory, {}});
  recorded("net.key", StoreChange::ResetAttributes{});
  std::ostringstream all;
  all << std::ifstream(directory_.file("audit")).rdbuf();
  EXPECT_THAT(all.str(), Not(HasSubstr("hunter")));
}

TEST_F(AuditTrailTest, WhatWasSentForAVariableThatDoesNotExistIsMasked) {
  for (const auto& what : std::vector<decltype(StoreChange::what)>{
           StoreChange::SetValue{{"hunter2"}}, StoreChange::ResetValue{},
           StoreChange::SetOptions{{{"hunter2"}}, {}}, StoreChange::SetAccess{},
           StoreChange::ResetAttributes{}}) {
    const std::string record = recorded("net.kye", what, failed(eErrNotFound));
    EXPECT_THAT(record, HasSubstr(R"("old":null,"new":null,"masked":true,"outcome":"not-found")"));
    EXPECT_THAT(record, Not(HasSubstr("hunter2")));
  }
}

TEST_F(AuditTrailTest, ALongValueIsCutAndTheRecordSaysSo) {
  const std::string record =
      recorded("net.servers", StoreChange::SetValue{{std::string(5000, 'x'), "y"}});
  EXPECT_THAT(record, HasSubstr("\"" + std::string(AuditTrail::kMaxValueBytes, 'x') + "\"]"));
  EXPECT_THAT(record, HasSubstr(R"("cut":true)"));
  const std::list<std::string> many(100000, "");
  EXPECT_THAT(recorded("net.servers", StoreChange::SetValue{many}), HasSubstr(R"("cut":true)"));
  const std::list<std::string> fits{std::string(1000, 'x'), "", "y"};
  EXPECT_THAT(recorded("net.servers", StoreChange::SetValue{fits}), Not(HasSubstr("cut")));
}

TEST_F(AuditTrailTest, ARecordIsOneLineWhateverItsStringsHold) {
  by_.clientName = "evil\n{\"forged\":true}\xFF";
  const std::string record = recorded("net.servers", StoreChange::SetValue{{"\n", "\xC3\x28"}});
  EXPECT_THAT(record, HasSubstr(R"("client":"evil\u000a{\"forged\":true}\udcff")"));
  EXPECT_THAT(record, HasSubstr(R"("new":["\u000a","\udcc3("])"));
}

TEST_F(AuditTrailTest, AChangeOfAllBelowANameThatWasRefusedIsOneRecord) {
  trail_.refusedBelow(by_, "reset", "net", failed(eErrDenied));
  EXPECT_EQ(lastWithoutTime(), who_ + R"("variable":"net","action":"reset","outcome":"denied",)"
                                      R"("reason":"because"})");
}

class AuditRepairTest : public AuditTrailTest {
 protected:
  // The record of a change as the store keeps it.
  std::string record(const std::string& value) {
    const ConfigVar key = keyOf("net.mtu");
    return trail_.changeCommits(by_, {key, StoreChange::SetValue{{value}}}, *model_.find(key));
  }
  std::vector<std::string> lines() const {
    std::ifstream file(directory_.file("audit"));
    std::vector<std::string> all;
    for (std::string line; std::getline(file, line);) all.push_back(line);
    return all;
  }
  std::vector<std::string> said_;
  Log noting_{LogLevel::Info, [this](LogLevel, const std::string& line) { said_.push_back(line); }};
};

TEST_F(AuditRepairTest, ACommittedChangeHasTheLineThatWasKeptAndItsRevision) {
  const std::string kept = record("1400");
  trail_.changeCommitted(kept, 8);
  EXPECT_EQ(lines(), std::vector<std::string>{kept + ",\"revision\":8}"});
  EXPECT_EQ(lastWithoutTime(),
            who_ + R"("variable":"net.mtu","action":"set","old":["1500"],"new":["1400"],)"
                   R"("outcome":"changed","revision":8})");
}

TEST_F(AuditRepairTest, WhatTheFileLacksIsAppendedMarkedAndWhatItHasIsNot) {
  const std::vector<StoredRecord> kept = {{7, record("1")}, {8, record("2")}, {9, record("3")}};
  trail_.changeCommitted(kept[0].text, 7);
  trail_.changeCommitted(kept[2].text, 9);
  AuditTrail next(directory_.file("audit"), noting_);
  EXPECT_TRUE(next.repair(kept));
  EXPECT_EQ(lines(), (std::vector<std::string>{
                         kept[0].text + ",\"revision\":7}", kept[2].text + ",\"revision\":9}",
                         kept[1].text + ",\"revision\":8,\"repaired\":true}"}));
  ASSERT_EQ(said_.size(), 1U);
  EXPECT_THAT(said_[0], HasSubstr("1 record of changes"));
  EXPECT_TRUE(next.repair(kept));
  EXPECT_EQ(lines().size(), 3U) << "once";
}

TEST_F(AuditRepairTest, ALineThatWasCutShortIsEndedAndMadeUpFor) {
  const std::string kept = record("1400");
  trail_.changeCommitted(kept, 8);
  std::filesystem::resize_file(directory_.file("audit"), kept.size() / 2);
  AuditTrail next(directory_.file("audit"), noting_);
  EXPECT_TRUE(next.repair({{8, kept}}));
  EXPECT_EQ(lines(), (std::vector<std::string>{kept.substr(0, kept.size() / 2),
                                               kept + ",\"revision\":8,\"repaired\":true}"}));
}

TEST_F(AuditRepairTest, WhatCannotBeWrittenIsNotToBeForgotten) {
  AuditTrail nowhere("/proc/no/such/audit", noting_);
  EXPECT_FALSE(nowhere.repair({{8, record("1400")}}));
}

TEST_F(AuditRepairTest, SyncingIsWorthItAfterSoManyRecordsOrBytes) {
  const std::string kept = record("1400");
  for (std::size_t i = 1; i < AuditTrail::kMaxUnsynced; ++i) trail_.changeCommitted("{", i);
  EXPECT_FALSE(trail_.isWorthSyncing());
  trail_.changeCommitted("{", 1000);
  EXPECT_TRUE(trail_.isWorthSyncing());
  const auto lines = trail_.takeUnsynced();
  EXPECT_EQ(lines->revision, 1000U);
  EXPECT_TRUE(lines->wait().ok());
  EXPECT_FALSE(trail_.isWorthSyncing());
  trail_.changeCommitted(std::string(AuditTrail::kMaxUnsyncedBytes, '{'), 1001);
  EXPECT_TRUE(trail_.isWorthSyncing());
}

}  // namespace
}  // namespace ConfigSrv
