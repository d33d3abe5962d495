// RequestsFixture: what handlers of requests are made of, without a socket: a small model, changes in a
// scripted world, a server that nobody is connected to. What leaves is seen by a watcher, in words.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "configsrv/access/access_policy.h"
#include "configsrv/changes/changes.h"
#include "configsrv/monitor/monitor_tap.h"
#include "configsrv/service/internal/request_frame.h"
#include "configsrv/service/internal/slices.h"
#include "platform/schema/message_ids.h"
#include "tests/configsrv/changes/scripted_host.h"
#include "tests/support/definition_builder.h"

namespace ConfigSrv {

class RequestsFixture : public testing::Test {
 protected:
  static constexpr PbUtility::PeerId kWatcher = 100;
  // The service's own user, root aside; the roles of others are those without a file: user at most.
  static constexpr uid_t kOwn = 990;
  static constexpr uid_t kSomebody = 1000;

  RequestsFixture() {
    model_.setEpoch(5);
    EXPECT_TRUE(monitor_.add(kWatcher, {0, 1}, AppConfig::eRoleFactory, "").ok());
  }

  static Definitions definitions() {
    using TestSupport::defined;
    return Definitions({
        defined("net.mtu").ofType(ValueType::Int).between(68, 9000).withDefault({"1500"}),
        defined("net.mode").withDefault({"auto"}).withOptions({"auto", "manual"}),
        defined("net.hidden").withDefault({"h"}).readBy(AppConfig::eRoleFactory),
        defined("net.guarded").withDefault({"g"}).writtenBy(AppConfig::eRoleInstaller),
    });
  }

  // Whether the family took the request. Empty payload: the message without any field.
  template <typename Family>
  bool handle(Family& family, std::uint32_t messageId, const std::string& payload) {
    const Incoming incoming{{1, ++sequence_, false}, peer_, messageId, false, 0, payload};
    monitor_.requestCame(incoming);
    return family.handle(incoming);
  }
  // A request as user, or as its own role says.
  template <typename Family, typename Request>
  bool handle(Family& family, Request request) {
    if (!request.has_role()) request.set_role(CommonIF::SECURITY_ROLE_USER);
    return handle(family, PlatformSchema::messageIdOf(request), request.SerializeAsString());
  }

  // The requests that a family takes, by name; each comes as a payload that is no message, so that
  // it is refused before it does anything.
  template <typename Family>
  std::vector<std::string> takenBy(Family& family) {
    std::vector<std::string> taken;
    for (const std::uint32_t id : PlatformSchema::messageIds()) {
      if (handle(family, id, "\xff")) taken.push_back(PlatformSchema::messageName(id));
    }
    EXPECT_FALSE(handle(family, PlatformSchema::kNoMessageId, ""));
    EXPECT_FALSE(handle(family, PlatformSchema::kStoreRestoreRsp + 1, ""));
    return taken;
  }

  static ConfigIF::Inst instOf(const std::string& key) {
    ConfigIF::Inst inst;
    fillInst(&inst, TestSupport::keyOf(key));
    return inst;
  }

  // "ReadRsp = 1500", "WriteRsp DENIED: reason": what left, in its order.
  std::vector<std::string> answers_;
  const std::string& answer() const {
    static const std::string none = "no answer";
    return answers_.empty() ? none : answers_.back();
  }
  void takeTurns() {
    while (!turns_.empty()) {
      const std::function<void()> turn = std::move(turns_.front());
      turns_.pop_front();
      turn();
    }
  }

  Model model_{definitions()};
  Subscriptions subscriptions_;
  ScriptedHost host_;
  std::vector<std::string> lines_;
  const Log log_{LogLevel::Debug,
                 [this](LogLevel, const std::string& line) { lines_.push_back(line); }};
  const AccessPolicy access_{kOwn};
  Announcer announcer_{model_, subscriptions_, host_};
  Changes changes_{model_, subscriptions_, announcer_, host_, log_};

  // Nothing comes in by way of the server.
  class NoHandler : public PbUtility::ServerHandler {
    void onRequest(const Incoming&) override {}
    void onAnswer(PbUtility::PeerId, std::uint32_t, std::uint32_t, std::string_view) override {}
    void onQuestionDone(PbUtility::PeerId, std::uint32_t, bool) override {}
    void onPeerGone(const PbUtility::Peer&) override {}
    void onFault(PbUtility::Fault, const std::string&) override {}
  } noHandler_;
  PbUtility::Server server_{{}, noHandler_};
  Monitor monitor_{model_, [this](PbUtility::PeerId, const ConfigIF::MonitorNtfy& notice) {
                     if (notice.event() == ConfigIF::MONITOR_RESPONSE)
                       answers_.push_back(textOf(notice));
                   }};
  MonitorTap tap_{monitor_, noHandler_, server_};
  RequestFrame frame_{log_, access_, model_, tap_, false};
  std::deque<std::function<void()>> turns_;
  Slices slices_{[this](uid_t, std::function<void()> task) { turns_.push_back(std::move(task)); }};
  PbUtility::Peer peer_{2, "client", kSomebody, kSomebody, 42};
  std::uint32_t sequence_ = 0;

 private:
  static std::string textOf(const ConfigIF::MonitorNtfy& notice) {
    std::string text = notice.message();
    if (notice.has_error()) text += " " + std::to_string(notice.error());
    if (notice.has_text()) text += ": " + notice.text();
    for (const std::string& value : notice.values()) text += " = " + value;
    return text;
  }
};

}  // namespace ConfigSrv
