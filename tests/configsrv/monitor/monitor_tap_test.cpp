#include "configsrv/monitor/monitor_tap.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/schema/config_if.pb.h"
#include "platform/schema/message_ids.h"
#include "tests/support/definition_builder.h"
#include "tests/support/eventually.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_client.h"

namespace ConfigSrv {
namespace {

using PbUtility::Peer;
using PbUtility::PeerId;
using testing::ElementsAre;
using testing::IsEmpty;
using TestSupport::TestClient;

constexpr PeerId kTapped = 100;

// What happens, in its order, from the server's thread and the test's.
class Events {
 public:
  void add(const std::string& event) {
    const std::lock_guard<std::mutex> guard(mutex_);
    events_.push_back(event);
  }
  std::vector<std::string> all() const {
    const std::lock_guard<std::mutex> guard(mutex_);
    return events_;
  }
  bool has(const std::string& event) const {
    const std::vector<std::string> events = all();
    return std::find(events.begin(), events.end(), event) != events.end();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> events_;
};

// The service behind the tap: notes what reaches it, and answers what a client waits for.
class NotingService : public PbUtility::ServerHandler {
 public:
  explicit NotingService(Events& events) : events_(events) {}

  void onRequest(const PbUtility::IncomingRequest& request) override {
    events_.add("request " + PlatformSchema::messageName(request.messageId));
    if (request.messageId == PlatformSchema::kRegisterClientCallbackReq)
      tap->respond(request.id, ConfigIF::RegisterClientCallbackRsp(), 7);
  }
  void onAnswer(PeerId, std::uint32_t, std::uint32_t messageId, std::string_view) override {
    events_.add("answer " + PlatformSchema::messageName(messageId));
  }
  void onQuestionDone(PeerId, std::uint32_t, bool peerGone) override {
    events_.add(peerGone ? "question done, peer gone" : "question done");
  }
  Base::Status<> onGreeting(const Peer& peer) override {
    return peer.name == "stranger" ? Base::failed("not you") : Base::Status<>();
  }
  void onPeerCame(const Peer&) override { events_.add("came"); }
  void onPeerGone(const Peer&) override { events_.add("gone"); }
  void onDeliveryReady(const Peer& peer) override {
    events_.add("ready");
    ready = peer.id;
  }
  void onFault(PbUtility::Fault, const std::string& line) override { events_.add(line); }

  MonitorTap* tap = nullptr;
  PeerId ready = 0;

 private:
  Events& events_;
};

class MonitorTapTest : public testing::Test {
 protected:
  MonitorTapTest() { service_.tap = &tap_; }
  void watch() { EXPECT_TRUE(monitor_.add(kTapped, {0, 1}, AppConfig::eRoleFactory, "").ok()); }
  void watchedRequest(std::uint32_t sequence) {
    tap_.onRequest({{1, sequence, false}, peer_, PlatformSchema::kReadReq, false, 0, ""});
  }
  static std::string told(const ConfigIF::MonitorNtfy& notice) {
    switch (notice.event()) {
      case ConfigIF::MONITOR_REQUEST:
      case ConfigIF::MONITOR_RESPONSE:
      case ConfigIF::MONITOR_NOTICE:
      case ConfigIF::MONITOR_QUESTION:
      case ConfigIF::MONITOR_ANSWER:
        return "told " + notice.message() + (notice.has_error() ? " failed" : "");
      default:
        return notice.event() == ConfigIF::MONITOR_CLIENT_CAME ? "told came" : "told went";
    }
  }
  PbUtility::ServerOptions options() const {
    PbUtility::ServerOptions options;
    options.runtimeDir = directory_.path();
    options.name = "ConfigSrvc";
    return options;
  }

  TestSupport::TempDir directory_;
  Events events_;
  NotingService service_{events_};
  Model model_{Definitions({TestSupport::defined("net.mtu")})};
  Monitor monitor_{
      model_, [this](PeerId, const ConfigIF::MonitorNtfy& notice) { events_.add(told(notice)); }};
  MonitorTap tap_{monitor_, service_, server_};
  PbUtility::Server server_{options(), tap_};
  const Peer peer_{2, "client", 0, 0, 42};
};

TEST_F(MonitorTapTest, WithoutAWatcherWhatComesInReachesTheServiceAndNobodyIsTold) {
  tap_.onPeerCame(peer_);
  tap_.onDeliveryReady(peer_);
  watchedRequest(1);
  tap_.onAnswer(peer_.id, 1, PlatformSchema::kOnChangeRsp, "");
  tap_.onQuestionDone(peer_.id, 1, false);
  tap_.onFault(PbUtility::Fault::BadFrame, "a fault");
  tap_.onPeerGone(peer_);
  EXPECT_THAT(events_.all(), ElementsAre("came", "ready", "request ReadReq", "answer OnChangeRsp",
                                         "question done", "a fault", "gone"));
}

TEST_F(MonitorTapTest, TheServiceDecidesWhoMayCome) {
  EXPECT_TRUE(tap_.onGreeting(peer_).ok());
  const Base::Status<> strangers = tap_.onGreeting({0, "stranger", 0, 0, 43});
  EXPECT_FALSE(strangers.ok());
  EXPECT_EQ(strangers.text, "not you");
}

TEST_F(MonitorTapTest, AWatcherIsToldOfARequestBeforeTheServiceAndOfItsAnswerOnItsWayOut) {
  watch();
  watchedRequest(1);
  tap_.respond({1, 1, false}, ConfigIF::ReadRsp(), 7);
  watchedRequest(2);
  tap_.refuse({1, 2, false}, 9, "no");
  EXPECT_THAT(events_.all(), ElementsAre("told ReadReq", "request ReadReq", "told ReadRsp",
                                         "told ReadReq", "request ReadReq", "told ReadReq failed"));
}

TEST_F(MonitorTapTest, APeerIsToldOfOnceTheServiceKnowsThatItCameOrWent) {
  watch();
  tap_.onPeerCame(peer_);
  tap_.onPeerGone(peer_);
  EXPECT_THAT(events_.all(), ElementsAre("came", "told came", "gone", "told went"));
}

TEST_F(MonitorTapTest, AWatcherThatGoesWatchesNoLonger) {
  watch();
  tap_.onPeerGone({kTapped, "watcher", 0, 0, 43});
  EXPECT_FALSE(monitor_.isActive());
  EXPECT_THAT(events_.all(), ElementsAre("gone"));
}

TEST_F(MonitorTapTest, WhatIsForAPeerThatIsNotThereIsNotToldToWatchers) {
  watch();
  tap_.notify(peer_.id, ConfigIF::ConfigChangedNtfy(), 7, "");
  EXPECT_EQ(tap_.ask(peer_.id, ConfigIF::OnChangeReq(), 7), 0U);
  EXPECT_THAT(events_.all(), IsEmpty());
}

// A real peer is told and asked.
class MonitorTapPeerTest : public MonitorTapTest {
 protected:
  MonitorTapPeerTest() {
    EXPECT_TRUE(server_.open().ok());
    thread_ = std::thread([this] { server_.run(); });
    client_.provide("net",
                    [](const TestSupport::ProviderQuestion&) { return TestSupport::consent(); });
    EXPECT_TRUE(TestSupport::eventually([this] { return events_.has("ready"); }));
  }
  ~MonitorTapPeerTest() override {
    server_.stop();
    thread_.join();
  }
  void tellAndAsk() {
    server_.post([this] {
      ConfigIF::OnChangeReq question;
      question.mutable_value()->mutable_inst()->add_path()->set_name("net");
      question.mutable_value()->mutable_inst()->add_path()->set_name("mtu");
      ConfigIF::ConfigChangedNtfy notice;
      notice.set_callback_identity("link of client");
      *notice.mutable_value() = question.value();
      tap_.notify(service_.ready, notice, 7, "");
      tap_.ask(service_.ready, question, 7);
      events_.add("asked");
    });
    EXPECT_TRUE(TestSupport::eventually([this] { return events_.has("question done"); }));
  }

  TestClient client_{"client", directory_.path()};
  std::thread thread_;
};

TEST_F(MonitorTapPeerTest, AWatcherIsToldOfNoticesQuestionsAndAnswers) {
  server_.post([this] { watch(); });
  tellAndAsk();
  std::vector<std::string> told;
  for (const std::string& event : events_.all())
    if (event == "asked" || event == "answer OnChangeRsp" || event.rfind("told", 0) == 0)
      told.push_back(event);
  EXPECT_THAT(told, ElementsAre("told ConfigChangedNtfy", "told OnChangeReq", "asked",
                                "told OnChangeRsp", "answer OnChangeRsp"));
}

TEST_F(MonitorTapPeerTest, WithoutAWatcherTheyPassUntold) {
  tellAndAsk();
  for (const std::string& event : events_.all()) EXPECT_NE(event.rfind("told", 0), 0U) << event;
  EXPECT_TRUE(events_.has("answer OnChangeRsp"));
}

}  // namespace
}  // namespace ConfigSrv
