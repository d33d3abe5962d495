// docs/limits.md says what the program does: each of its rows names a constant and its number, and
// no limit is missing there.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <sstream>
#include <string>

#include "appconfig/core/key_notation.h"
#include "configsrv/audit/audit_trail.h"
#include "configsrv/audit/internal/audit_search.h"
#include "configsrv/changes/changes.h"
#include "configsrv/definitions/definitions.h"
#include "configsrv/definitions/pattern.h"
#include "configsrv/log/flood_guard.h"
#include "configsrv/monitor/monitor.h"
#include "configsrv/service/internal/answer_size.h"
#include "configsrv/service/internal/change_batch.h"
#include "configsrv/service/internal/requests.h"
#include "configsrv/store/commit_queue.h"
#include "configsrv/subscriptions/subscriptions.h"
#include "configsrv/toml/document.h"
#include "platform/messaging/endpoint.h"
#include "platform/messaging/serving/internal/listener.h"
#include "platform/messaging/serving/server_options.h"
#include "platform/messaging/wire/frame.h"
#include "platform/schema/message_bounds.h"
#include "tests/support/service_process.h"

namespace ConfigSrv {
namespace {

using Limits = std::map<std::string, unsigned long long>;

template <typename Number>
unsigned long long number(Number limit) {
  return static_cast<unsigned long long>(limit);
}

Limits limitsOfTheMessageLayer() {
  const PbUtility::ServerOptions server;
  const PbUtility::EndpointOptions endpoint;
  return {
      {"ServerOptions::maxConnections", number(server.maxConnections)},
      {"ServerOptions::reservedConnections", number(server.reservedConnections)},
      {"ServerOptions::maxConnectionsPerUser", number(server.maxConnectionsPerUser)},
      {"ServerOptions::maxConnectionsPerProcess", number(server.maxConnectionsPerProcess)},
      {"ServerOptions::maxConnectionsPerPeer", number(server.maxConnectionsPerPeer)},
      {"ServerOptions::greetingDeadline", number(server.greetingDeadline.count())},
      {"ServerOptions::frameDeadline", number(server.frameDeadline.count())},
      {"ServerOptions::framesPerTurn", number(server.framesPerTurn)},
      {"ServerOptions::turnTime", number(server.turnTime.count())},
      {"ServerOptions::roomBytes", number(server.roomBytes)},
      {"ServerOptions::maxOpenRequests", number(server.maxOpenRequests)},
      {"ServerOptions::maxOpenRequestBytes", number(server.maxOpenRequestBytes)},
      {"ServerOptions::maxAnswerBytes", number(server.maxAnswerBytes)},
      {"ServerOptions::maxNotices", number(server.maxNotices)},
      {"ServerOptions::maxOpenQuestions", number(server.maxOpenQuestions)},
      {"Listener::kBacklog", number(PbUtility::Listener::kBacklog)},
      {"kMaxPayloadBytes", number(PbUtility::kMaxPayloadBytes)},
      {"kMaxEndpointNameBytes", number(PbUtility::kMaxEndpointNameBytes)},
      {"EndpointOptions::maxConnections", number(endpoint.maxConnections)},
      {"kMaxRemotes", number(PbUtility::kMaxRemotes)},
  };
}

// The four limits of a share.
void addShare(Limits& limits, const std::string& name, const PbUtility::ShareLimits& share) {
  limits[name + ".all"] = number(share.all);
  limits[name + ".ordinary"] = number(share.ordinary);
  limits[name + ".perUser"] = number(share.perUser);
  limits[name + ".perProcess"] = number(share.perProcess);
}

Limits limitsOfShares() {
  Limits limits;
  const PbUtility::ServerOptions server;
  addShare(limits, "ServerOptions::bufferedBytes", server.bufferedBytes);
  addShare(limits, "ServerOptions::openQuestions", server.openQuestions);
  addShare(limits, "SubscriptionLimits::bytes", SubscriptionLimits().bytes);
  const ChangesOptions changes;
  const MonitorLimits monitors;
  addShare(limits, "MonitorLimits::watchers", monitors.watchers);
  addShare(limits, "MonitorLimits::openBytes", monitors.openBytes);
  addShare(limits, "ChangesOptions::underWay", changes.underWay);
  addShare(limits, "ChangesOptions::written", changes.written);
  addShare(limits, "ChangesOptions::bytesUnderWay", changes.bytesUnderWay);
  addShare(limits, "ChangesOptions::waitingPerVariable", changes.waitingPerVariable);
  return limits;
}

Limits limitsOfMessages() {
  using PlatformSchema::MessageLimits;
  return {
      {"MessageLimits::kValuePayload", number(MessageLimits::kValuePayload)},
      {"MessageLimits::kBatchPayload", number(MessageLimits::kBatchPayload)},
      {"MessageLimits::kOtherPayload", number(MessageLimits::kOtherPayload)},
      {"MessageLimits::kNodes", number(MessageLimits::kNodes)},
      {"MessageLimits::kEntries", number(MessageLimits::kEntries)},
      {"MessageLimits::kElements", number(MessageLimits::kElements)},
      {"MessageLimits::kOptions", number(MessageLimits::kOptions)},
      {"MessageLimits::kMessages", number(MessageLimits::kMessages)},
      {"MessageLimits::kMemory", number(MessageLimits::kMemory)},
      {"MessageLimits::kMemoryPerByte", number(MessageLimits::kMemoryPerByte)},
      {"MessageLimits::kRecordsMemory", number(MessageLimits::kRecordsMemory)},
      {"MessageLimits::kRecordsMemoryPerByte", number(MessageLimits::kRecordsMemoryPerByte)},
  };
}

Limits limitsOfRequests() {
  const SubscriptionLimits subscriptions;
  const ChangesOptions changes;
  return {
      {"SubscriptionLimits::kErasedAtOnce", number(SubscriptionLimits::kErasedAtOnce)},
      {"SubscriptionLimits::registrations", number(subscriptions.registrations)},
      {"SubscriptionLimits::registrationsPerPeer", number(subscriptions.registrationsPerPeer)},
      {"SubscriptionLimits::callersPerPeer", number(subscriptions.callersPerPeer)},
      {"SubscriptionLimits::nameBytes", number(subscriptions.nameBytes)},
      {"SubscriptionLimits::identityBytes", number(subscriptions.identityBytes)},
      {"SubscriptionLimits::clientNameBytes", number(subscriptions.clientNameBytes)},
      {"RequestFrame::kMaxClientName", number(RequestFrame::kMaxClientName)},
      {"Monitor::kMaxLookedAt", number(Monitor::kMaxLookedAt)},
      {"Monitor::kMaxPrefixBytes", number(Monitor::kMaxPrefixBytes)},
      {"ChangesOptions::providerDeadline", number(changes.providerDeadline.count())},
      {"ChangeBatch::kAtOnce", number(ChangeBatch::kAtOnce)},
      {"HourlyLimits::kUsers", number(HourlyLimits::kUsers)},
      {"CommitQueue::kGroupBytes", number(CommitQueue::kGroupBytes)},
      {"CommitQueue::kQuiet", number(CommitQueue::kQuiet.count())},
      {"CommitQueue::kLargeEvery", number(CommitQueue::kLargeEvery.count())},
      {"ChangeBatch::kBegunInOneTurn", number(ChangeBatch::kBegunInOneTurn)},
      {"CallbackRequests::kVariablesAtOnce", number(CallbackRequests::kVariablesAtOnce)},
      {"ChangeBatch::kMaxMessages", number(ChangeBatch::kMaxMessages)},
      {"AnswerSize::kMaxBytes", number(AnswerSize::kMaxBytes)},
      {"AnswerSize::kMaxMemory", number(AnswerSize::kMaxMemory)},
      {"ToolRequests::kMaxListed", number(ToolRequests::kMaxListed)},
      {"AuditTrail::kMaxValueBytes", number(AuditTrail::kMaxValueBytes)},
      {"AuditTrail::kMaxUnsynced", number(AuditTrail::kMaxUnsynced)},
      {"AuditTrail::kMaxUnsyncedBytes", number(AuditTrail::kMaxUnsyncedBytes)},
      {"kMaxSearchBytes", number(kMaxSearchBytes)},
      {"FloodGuard::kLines", number(FloodGuard::kLines)},
      {"FloodGuard::kSpan", number(FloodGuard::kSpan.count())},
  };
}

Limits limitsOfVariables() {
  return {
      {"kMaxValueBytes", number(kMaxValueBytes)},
      {"kMaxElements", number(kMaxElements)},
      {"kMaxOptions", number(kMaxOptions)},
      {"kMaxNameBytes", number(AppConfig::kMaxNameBytes)},
      {"kMaxInstances", number(kMaxInstances)},
      {"kMaxVariables", number(kMaxVariables)},
      {"kMaxDescriptionBytes", number(kMaxDescriptionBytes)},
      {"kMaxTomlBytes", number(kMaxTomlBytes)},
      {"kMaxDotsPerLine", number(kMaxDotsPerLine)},
      {"kMaxPatternBytes", number(kMaxPatternBytes)},
      {"kMaxPatternAtoms", number(kMaxPatternAtoms)},
      {"kMaxMatchedBytes", number(kMaxMatchedBytes)},
  };
}

Limits limitsOfTheProgram() {
  Limits all = limitsOfTheMessageLayer();
  all.merge(limitsOfMessages());
  all.merge(limitsOfRequests());
  all.merge(limitsOfShares());
  all.merge(limitsOfVariables());
  return all;
}

// Rows of the form "| what | `constant` | number | ...".
Limits limitsOfThePage() {
  Limits limits;
  const std::regex row(R"(^\| [^|]+ \| `([A-Za-z:.]+)` \| ([0-9]+) \| [^|]+ \| [^|]+ \|$)");
  std::istringstream lines(TestSupport::readFile(LIMITS_PAGE));
  for (std::string line; std::getline(lines, line);) {
    std::smatch found;
    if (std::regex_match(line, found, row)) limits[found[1]] = std::stoull(found[2]);
  }
  return limits;
}

TEST(LimitsPageTest, HasEveryLimitWithItsNumberAndNoOther) {
  EXPECT_THAT(limitsOfThePage(), testing::ContainerEq(limitsOfTheProgram()));
}

TEST(LimitsPageTest, HasNoRowThatIsNotUnderstood) {
  std::istringstream lines(TestSupport::readFile(LIMITS_PAGE));
  std::size_t rows = 0;
  for (std::string line; std::getline(lines, line);)
    rows += line.rfind("| ", 0) == 0 && line.rfind("| limit |", 0) != 0;
  EXPECT_EQ(rows, limitsOfThePage().size());
}

// What a variable may hold fits into a message, and what does not fit is no variable's.
TEST(LimitsPageTest, AMessageHoldsWhatAVariableMayHoldAndNoMore) {
  using PlatformSchema::MessageLimits;
  EXPECT_EQ(MessageLimits::kElements, kMaxElements);
  EXPECT_EQ(MessageLimits::kOptions, kMaxOptions);
  EXPECT_GT(MessageLimits::kNodes, AppConfig::kMaxNameBytes);
  EXPECT_GT(MessageLimits::kValuePayload, 2 * kMaxValueBytes);
}

}  // namespace
}  // namespace ConfigSrv
