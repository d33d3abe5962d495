#include "configsrv/monitor/monitor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appconfig/wire/protobuf_message_helper.h"
#include "platform/schema/config_if.pb.h"
#include "platform/schema/message_ids.h"
#include "tests/support/definition_builder.h"

namespace ConfigSrv {
namespace {

using AppConfig::ProtobufMessageHelper;
using ConfigIF::MonitorNtfy;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using TestSupport::DefinitionBuilder;
using TestSupport::keyOf;

constexpr PbUtility::PeerId kWatcher = 1;
constexpr PbUtility::PeerId kOther = 2;
constexpr PbUtility::Owner kRoot{0, 10};
// The number of no message.
constexpr std::uint32_t kNoMessage = PlatformSchema::kStoreRestoreRsp + 1;

std::vector<VariableDefinition> someVariables() {
  return {DefinitionBuilder("net.mtu"),
          DefinitionBuilder("net.secret").readBy(AppConfig::eRoleService),
          DefinitionBuilder("other.x")};
}

class MonitorTest : public testing::Test {
 protected:
  Model model_{Definitions(someVariables())};
  std::vector<std::pair<PbUtility::PeerId, MonitorNtfy>> told_;
  Monitor monitor_{model_, [this](PbUtility::PeerId to, const MonitorNtfy& notice) {
                     told_.emplace_back(to, notice);
                   }};
  const PbUtility::Peer client_{kOther, "client", 0, 0, 42};
  std::uint32_t sequence_ = 0;

  PbUtility::RequestId request(const google::protobuf::MessageLite& message, bool oneWay = false) {
    const PbUtility::RequestId id{5, ++sequence_, oneWay};
    const std::string payload = message.SerializeAsString();
    monitor_.requestCame({id, client_, PlatformSchema::messageIdOf(message), false, 0, payload});
    return id;
  }
  static ConfigIF::WriteReq write(const std::string& key, const std::string& value) {
    return ProtobufMessageHelper::getWriteRequest("c", CommonIF::SECURITY_ROLE_USER, keyOf(key),
                                                  value);
  }
};

TEST_F(MonitorTest, IsActiveWhileSomebodyWatches) {
  EXPECT_FALSE(monitor_.isActive());
  EXPECT_TRUE(monitor_.add(kWatcher, kRoot, AppConfig::eRoleUser, "").ok());
  EXPECT_TRUE(monitor_.add(kWatcher, kRoot, AppConfig::eRoleUser, "net").ok());
  EXPECT_TRUE(monitor_.isActive());
  monitor_.remove(kOther);
  EXPECT_TRUE(monitor_.isActive());
  monitor_.remove(kWatcher);
  EXPECT_FALSE(monitor_.isActive());
}

TEST_F(MonitorTest, ARequestIsToldWithItsValueAndItsAnswerWithTheOutcome) {
  ASSERT_TRUE(monitor_.add(kWatcher, kRoot, AppConfig::eRoleUser, "").ok());
  const PbUtility::RequestId id = request(write("net.mtu", "9"));
  ConfigIF::WriteRsp response;
  response.mutable_result()->set_error(CommonIF::ERROR_INVALID_VALUE);
  response.mutable_result()->add_messages("too small");
  monitor_.responseLeaves(id, response);
  monitor_.responseLeaves(id, response);
  ASSERT_EQ(told_.size(), 2U);
  MonitorNtfy expected;
  expected.set_event(ConfigIF::MONITOR_REQUEST);
  expected.set_time_us(told_[0].second.time_us());
  expected.set_client("client");
  expected.set_pid(42);
  expected.set_message("WriteReq");
  ProtobufMessageHelper::addVarName(expected.mutable_inst(), keyOf("net.mtu"));
  expected.add_values("9");
  EXPECT_EQ(told_[0].second.SerializeAsString(), expected.SerializeAsString());
  expected.set_event(ConfigIF::MONITOR_RESPONSE);
  expected.set_time_us(told_[1].second.time_us());
  expected.set_message("WriteRsp");
  expected.clear_values();
  expected.set_error(CommonIF::ERROR_INVALID_VALUE);
  expected.set_text("too small");
  EXPECT_EQ(told_[1].second.SerializeAsString(), expected.SerializeAsString());
}

TEST_F(MonitorTest, EachWatcherIsToldWhatItsRoleMayRead) {
  ASSERT_TRUE(monitor_.add(kWatcher, kRoot, AppConfig::eRoleUser, "").ok());
  ASSERT_TRUE(monitor_.add(kOther, kRoot, AppConfig::eRoleService, "").ok());
  const PbUtility::RequestId id = request(write("net.secret", "hush"));
  ConfigIF::WriteRsp response;
  response.mutable_result()->set_error(CommonIF::ERROR_VETOED);
  response.mutable_result()->add_messages("hush is weak");
  monitor_.responseLeaves(id, response);
  ASSERT_EQ(told_.size(), 4U);
  EXPECT_TRUE(told_[0].second.masked());
  EXPECT_EQ(told_[0].second.values_size(), 0);
  EXPECT_FALSE(told_[1].second.has_masked());
  EXPECT_THAT(told_[1].second.values(), ElementsAre("hush"));
  EXPECT_FALSE(told_[2].second.has_text());
  EXPECT_EQ(told_[3].second.text(), "hush is weak");
}

TEST_F(MonitorTest, APrefixSelectsVariablesBelowItAndGroupsAboveIt) {
  ASSERT_TRUE(monitor_.add(kWatcher, kRoot, AppConfig::eRoleUser, "Net.MTU").ok());
  request(write("net.mtu", "9"));
  EXPECT_EQ(told_.size(), 1U);
  request(write("other.x", "9"));
  request(write("net.secret", "9"));
  request(ConfigIF::StatusReq());
  monitor_.peerCame(client_);
  EXPECT_EQ(told_.size(), 1U);
  ConfigIF::ResetNodeValueReq reset;
  reset.set_name("net");
  request(reset);
  ASSERT_EQ(told_.size(), 2U);
  EXPECT_EQ(told_[1].second.inst().path_size(), 1);
  reset.set_name("");
  request(reset);
  EXPECT_EQ(told_.size(), 3U);
}

TEST_F(MonitorTest, ManyVariablesOfOneRequestAreOneEventWithoutValues) {
  ASSERT_TRUE(monitor_.add(kWatcher, kRoot, AppConfig::eRoleUser, "other").ok());
  request(ProtobufMessageHelper::getBatchReadRequest("c", CommonIF::SECURITY_ROLE_USER,
                                                     {keyOf("net.mtu"), keyOf("other.x")}));
  ASSERT_EQ(told_.size(), 1U);
  EXPECT_FALSE(told_[0].second.has_inst());
  EXPECT_EQ(told_[0].second.message(), "BatchReadReq");
}

TEST_F(MonitorTest, WatchingItselfIsNeverTold) {
  ASSERT_TRUE(monitor_.add(kWatcher, kRoot, AppConfig::eRoleUser, "").ok());
  const PbUtility::RequestId id = request(ConfigIF::MonitorReq());
  monitor_.responseLeaves(id, ConfigIF::MonitorRsp());
  monitor_.noticeLeaves(client_, MonitorNtfy());
  EXPECT_THAT(told_, IsEmpty());
}

TEST_F(MonitorTest, ABrokenRequestAndAnUnknownMessageAreNotTold) {
  ASSERT_TRUE(monitor_.add(kWatcher, kRoot, AppConfig::eRoleUser, "").ok());
  const PbUtility::RequestId id{5, 1, false};
  monitor_.requestCame({id, client_, PlatformSchema::kWriteReq, false, 0, "\xff"});
  monitor_.requestRefused(id, 9, "no");
  monitor_.requestCame({id, client_, kNoMessage, false, 0, ""});
  monitor_.requestRefused(id, 9, "no");
  EXPECT_THAT(told_, IsEmpty());
}

TEST_F(MonitorTest, AProviderThatGoesWithoutAnAnswerIsToldAsUnavailable) {
  ASSERT_TRUE(monitor_.add(kWatcher, kRoot, AppConfig::eRoleUser, "").ok());
  ConfigIF::OnChangeReq question;
  ProtobufMessageHelper::addVarName(question.mutable_value()->mutable_inst(), keyOf("net.mtu"));
  question.mutable_value()->add_values("9");
  monitor_.questionLeaves(client_, 1, question);
  monitor_.questionDone(client_.id, 1, true);
  monitor_.questionLeaves(client_, 2, question);
  monitor_.answerCame(client_.id, 2, PlatformSchema::kOnChangeRsp,
                      ConfigIF::OnChangeRsp().SerializeAsString());
  monitor_.questionDone(client_.id, 2, false);
  ASSERT_EQ(told_.size(), 4U);
  EXPECT_THAT(told_[0].second.values(), ElementsAre("9"));
  EXPECT_EQ(told_[1].second.event(), ConfigIF::MONITOR_ANSWER);
  EXPECT_EQ(told_[1].second.error(), CommonIF::ERROR_UNAVAILABLE);
  EXPECT_EQ(told_[3].second.message(), "OnChangeRsp");
  EXPECT_FALSE(told_[3].second.has_error());
}

TEST_F(MonitorTest, WhoWatchesLaterIsNotToldAnswersToEarlierRequests) {
  ASSERT_TRUE(monitor_.add(kWatcher, kRoot, AppConfig::eRoleUser, "").ok());
  const PbUtility::RequestId id = request(write("net.mtu", "9"));
  monitor_.remove(kWatcher);
  ASSERT_TRUE(monitor_.add(kOther, kRoot, AppConfig::eRoleUser, "").ok());
  told_.clear();
  monitor_.responseLeaves(id, ConfigIF::WriteRsp());
  EXPECT_THAT(told_, IsEmpty());
}

TEST_F(MonitorTest, ANameOfTheLimitsLengthIsWatchedAndALongerOneRefused) {
  EXPECT_TRUE(monitor_.add(100, kRoot, AppConfig::eRoleUser, std::string(1024, 'a')).ok());
  EXPECT_THAT(monitor_.add(100, kRoot, AppConfig::eRoleUser, std::string(1025, 'a')).text,
              HasSubstr("1025 bytes"));
}

TEST_F(MonitorTest, MonitorsAreSharedOutAndARefusalSaysWhoseTheyAre) {
  PbUtility::PeerId peer = 100;
  const auto added = [&](uid_t user, pid_t process) {
    return monitor_.add(++peer, {user, process}, AppConfig::eRoleUser, "");
  };
  for (pid_t process = 1; process <= 2; ++process) {
    EXPECT_TRUE(added(1000, process).ok());
    EXPECT_TRUE(added(1000, process).ok());
    EXPECT_THAT(added(1000, process).text, HasSubstr("process " + std::to_string(process)));
  }
  EXPECT_THAT(added(1000, 3).text,
              HasSubstr("no more than 4 monitors for one user, and user 1000 has"));
  for (uid_t user = 1001; user <= 1002; ++user) {
    for (pid_t process = 0; process < 4; ++process)
      EXPECT_TRUE(added(user, static_cast<pid_t>(10 * user) + process).ok());
  }
  EXPECT_THAT(added(1003, 5).text, HasSubstr("for all users together"));
  EXPECT_TRUE(added(0, 6).ok());
}

TEST_F(MonitorTest, WhoWatchesNoLongerMakesRoomAndWhoAsksAgainTakesNoMore) {
  for (int i = 0; i < 20; ++i) {
    EXPECT_TRUE(monitor_.add(kWatcher, kRoot, AppConfig::eRoleUser, "").ok());
    EXPECT_TRUE(monitor_.add(kWatcher, kRoot, AppConfig::eRoleUser, "net").ok());
    EXPECT_TRUE(monitor_.add(kOther, kRoot, AppConfig::eRoleUser, "").ok());
    monitor_.remove(kOther);
    monitor_.remove(kOther);
  }
  monitor_.remove(kWatcher);
  EXPECT_FALSE(monitor_.isActive());
}

// The text that a watcher is told of a failed reset of so many variables.
std::string textOfFailedReset(std::size_t variables) {
  std::vector<VariableDefinition> definitions;
  for (std::size_t i = 0; i < variables; ++i)
    definitions.push_back(DefinitionBuilder("net.v" + std::to_string(i)));
  const Model model{Definitions(std::move(definitions))};
  std::string text;
  Monitor monitor(model,
                  [&](PbUtility::PeerId, const MonitorNtfy& notice) { text = notice.text(); });
  EXPECT_TRUE(monitor.add(kWatcher, kRoot, AppConfig::eRoleUser, "").ok());
  ConfigIF::ResetNodeValueReq request;
  request.set_name("net");
  const std::string payload = request.SerializeAsString();
  const PbUtility::Peer client{kOther, "client", 0, 0, 42};
  monitor.requestCame(
      {{1, 1, false}, client, PlatformSchema::messageIdOf(request), false, 0, payload});
  ConfigIF::ResetNodeValueRsp response;
  response.mutable_result()->add_messages("why");
  monitor.responseLeaves({1, 1, false}, response);
  return text;
}

TEST(MonitorTextTest, ATextAboutMoreVariablesThanAreLookedAtIsNotShown) {
  EXPECT_EQ(textOfFailedReset(Monitor::kMaxLookedAt), "why");
  EXPECT_EQ(textOfFailedReset(Monitor::kMaxLookedAt + 1), "");
}

}  // namespace
}  // namespace ConfigSrv
