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
#include "configsrv/subscriptions/subscriptions.h"
#include "configsrv/toml/document.h"
#include "platform/messaging/endpoint.h"
#include "platform/messaging/frame.h"
#include "platform/messaging/internal/listener.h"
#include "platform/messaging/server.h"
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
      {"ServerOptions::roomBytes", number(server.roomBytes)},
      {"ServerOptions::maxOpenRequests", number(server.maxOpenRequests)},
      {"ServerOptions::maxOpenRequestBytes", number(server.maxOpenRequestBytes)},
      {"ServerOptions::maxAnswerBytes", number(server.maxAnswerBytes)},
      {"ServerOptions::maxNotices", number(server.maxNotices)},
      {"ServerOptions::maxBufferedBytes", number(server.maxBufferedBytes)},
      {"ServerOptions::maxOpenQuestions", number(server.maxOpenQuestions)},
      {"Listener::kBacklog", number(PbUtility::Listener::kBacklog)},
      {"kMaxPayloadBytes", number(PbUtility::kMaxPayloadBytes)},
      {"kMaxEndpointNameBytes", number(PbUtility::kMaxEndpointNameBytes)},
      {"EndpointOptions::maxConnections", number(endpoint.maxConnections)},
      {"kMaxRemotes", number(PbUtility::kMaxRemotes)},
  };
}

Limits limitsOfRequests() {
  const SubscriptionLimits subscriptions;
  const ChangesOptions changes;
  return {
      {"SubscriptionLimits::registrations", number(subscriptions.registrations)},
      {"SubscriptionLimits::registrationsPerPeer", number(subscriptions.registrationsPerPeer)},
      {"SubscriptionLimits::callersPerPeer", number(subscriptions.callersPerPeer)},
      {"SubscriptionLimits::nameBytes", number(subscriptions.nameBytes)},
      {"SubscriptionLimits::identityBytes", number(subscriptions.identityBytes)},
      {"SubscriptionLimits::clientNameBytes", number(subscriptions.clientNameBytes)},
      {"Requests::kMaxClientName", number(Requests::kMaxClientName)},
      {"Monitor::kMaxWatchers", number(Monitor::kMaxWatchers)},
      {"Monitor::kMaxPrefixBytes", number(Monitor::kMaxPrefixBytes)},
      {"ChangesOptions::underWay", number(changes.underWay)},
      {"ChangesOptions::bytesUnderWay", number(changes.bytesUnderWay)},
      {"ChangesOptions::waitingPerVariable", number(changes.waitingPerVariable)},
      {"ChangesOptions::providerDeadline", number(changes.providerDeadline.count())},
      {"ChangeBatch::kAtOnce", number(ChangeBatch::kAtOnce)},
      {"ChangeBatch::kMaxMessages", number(ChangeBatch::kMaxMessages)},
      {"AnswerSize::kMaxBytes", number(AnswerSize::kMaxBytes)},
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
  all.merge(limitsOfRequests());
  all.merge(limitsOfVariables());
  return all;
}

// Rows of the form "| what | `constant` | number | ...".
Limits limitsOfThePage() {
  Limits limits;
  const std::regex row(R"(^\| [^|]+ \| `([A-Za-z:]+)` \| ([0-9]+) \| [^|]+ \| [^|]+ \|$)");
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

}  // namespace
}  // namespace ConfigSrv
