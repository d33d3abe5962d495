// watch and wait against a service whose notices the test sends, in the orders that a busy service
// produces by chance.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <set>

#include "appconfig/core/key_notation.h"
#include "appconfig/wire/protobuf_message_helper.h"
#include "platform/schema/message_ids.h"
#include "tests/support/eventually.h"
#include "tests/support/serving.h"
#include "tests/support/temp_dir.h"
#include "tests/tools/appcfg/appcfg_run.h"
#include "tools/appcfg/exit_code.h"

namespace AppCfgTool {
namespace {

using AppConfig::ProtobufMessageHelper;
using testing::HasSubstr;
using TestSupport::eventually;
using TestSupport::RunningAppcfg;
using TestSupport::Serving;
using TestSupport::Words;
using Json = nlohmann::ordered_json;
using Value = std::list<std::string>;

ConfigVar keyOf(const std::string& text) {
  ConfigVar var("", 0, "", 0);
  EXPECT_TRUE(AppConfig::parseKey(text, var).ok()) << text;
  return var;
}

constexpr std::uint64_t kRevision = 41;

// Holds a few values; answers reads and listings; notes what was registered for.
class SmallService {
 public:
  explicit SmallService(const std::string& runtimeDir) : serving_(runtimeDir) {
    // Set on the serving thread, which is the one that calls it.
    serving_.onServer([this](PbUtility::Server&) {
      serving_.onRequestDo = [this](PbUtility::Server& server, const Serving::Request& request) {
        answer(server, request);
      };
    });
  }

  void put(const std::string& text, const Value& value) {
    const std::lock_guard<std::mutex> guard(mutex_);
    values_[keyOf(text)] = value;
  }

  // Announces a value under the identity that the client registered with.
  void announce(const std::string& text, const Value& value) {
    put(text, value);
    announceOnly(text, value);
  }
  // The same without having that value, as a notice that was overtaken by a later write.
  void announceOnly(const std::string& text, const Value& value) {
    ConfigIF::ConfigChangedNtfy notice;
    const ConfigVar var = keyOf(text);
    ProtobufMessageHelper::addVarName(notice.mutable_value()->mutable_inst(), var);
    ProtobufMessageHelper::addVarValue(notice.mutable_value(), value);
    if (var.nameSpace() > 0) {
      notice.mutable_value()->mutable_inst()->set_scope(ConfigIF::SCOPE_NAMESPACE);
    }
    const PbUtility::PeerId peer = serving_.readyPeer();
    {
      const std::lock_guard<std::mutex> guard(mutex_);
      notice.set_callback_identity(identity_);
    }
    serving_.onServer(
        [&](PbUtility::Server& server) { server.notify(peer, notice, kRevision + 1, ""); });
  }

  // The variable has this value once somebody has registered, and no notice tells so.
  void changeWhenRegistered(const std::string& text, const Value& value) {
    const std::lock_guard<std::mutex> guard(mutex_);
    changeAtRegistration_[keyOf(text)] = value;
  }

  // Whether registrations are accepted.
  void makeRoom(bool hasRoom) {
    const std::lock_guard<std::mutex> guard(mutex_);
    hasRoom_ = hasRoom;
  }

  // Whether somebody who registered for this name has read again since, as both verbs do before
  // they wait for notices.
  bool isFollowed(const std::string& name) const {
    const std::lock_guard<std::mutex> guard(mutex_);
    return followed_.count(name) != 0;
  }
  // A watch of several names reads each of them again.
  int listingsSinceRegistered() const {
    const std::lock_guard<std::mutex> guard(mutex_);
    return listingsSinceRegistered_;
  }

 private:
  void answer(PbUtility::Server& server, const Serving::Request& request) {
    const std::lock_guard<std::mutex> guard(mutex_);
    if (request.messageId == PlatformSchema::messageIdOf(ConfigIF::ListReq())) {
      followed_ = registered_;
      if (!registered_.empty()) ++listingsSinceRegistered_;
      server.respond(request.id, listing(), kRevision);
    } else if (request.messageId == PlatformSchema::messageIdOf(ConfigIF::ReadReq())) {
      followed_ = registered_;
      server.respond(request.id, reading(request.payload), kRevision);
    } else if (PlatformSchema::isRepeatedOnReconnect(request.messageId)) {
      note(request);
      server.respond(request.id, registering(), kRevision);
    }
  }

  ConfigIF::RegisterClientCallbackRsp registering() const {
    ConfigIF::RegisterClientCallbackRsp response;
    if (!hasRoom_) {
      response.mutable_result()->set_error(CommonIF::ERROR_LIMIT);
      response.mutable_result()->add_messages("user 7 has all 3 of them");
    }
    return response;
  }

  ConfigIF::ListRsp listing() const {
    ConfigIF::ListRsp response;
    for (const auto& [var, value] : values_) {
      ConfigIF::ListRecord* record = response.add_records();
      ProtobufMessageHelper::addVarName(record->mutable_inst(), var);
      for (const std::string& element : value) record->add_values(element);
    }
    return response;
  }

  ConfigIF::ReadRsp reading(const std::string& payload) const {
    ConfigIF::ReadReq request;
    request.ParseFromString(payload);
    std::string group;
    std::string name;
    int groupInstance = 0;
    int nameInstance = 0;
    EXPECT_EQ(ProtobufMessageHelper::getConfigVarName(group, groupInstance, name, nameInstance,
                                                      request.inst()),
              0);
    const ConfigVar var(ProtobufMessageHelper::getConfigVarNamespace(request.inst()), group,
                        groupInstance, name, nameInstance);
    ConfigIF::ReadRsp response;
    const auto found = values_.find(var);
    if (found == values_.end()) {
      response.mutable_result()->set_error(CommonIF::ERROR_NOT_FOUND);
      return response;
    }
    for (const std::string& element : found->second) response.add_values(element);
    return response;
  }

  void note(const Serving::Request& request) {
    ConfigIF::RegisterClientCallbackReq registration;
    registration.ParseFromString(request.payload);
    if (registration.type() != ConfigIF::CALLBACK_VALUE_CHANGED) return;
    registered_.insert(registration.name());
    for (auto& [var, value] : changeAtRegistration_) values_[var] = value;
    identity_ = registration.endpoint_name();
  }

  mutable std::mutex mutex_;
  std::map<ConfigVar, Value> values_;
  std::map<ConfigVar, Value> changeAtRegistration_;
  std::set<std::string> registered_;
  std::set<std::string> followed_;
  int listingsSinceRegistered_ = 0;
  bool hasRoom_ = true;
  std::string identity_;
  Serving serving_;
};

class ScriptedWatchTest : public testing::Test {
 protected:
  ScriptedWatchTest() {
    service_.put("net.mtu", {"1500"});
    service_.put("net.eth[1].mtu", {"9000"});
    service_.put("3:engine.speed", {"7"});
  }

  void untilFollowed(const std::string& name) {
    ASSERT_TRUE(eventually([&] { return service_.isFollowed(name); }));
  }

  TestSupport::TempDir dir_;
  SmallService service_{dir_.path()};
};

TEST_F(ScriptedWatchTest, PrintsPresentValuesThenEachChange) {
  RunningAppcfg watch(dir_.path(), {"watch"});
  EXPECT_EQ(watch.line(), "net.mtu = 1500");
  EXPECT_EQ(watch.line(), "net.eth[1].mtu = 9000");
  untilFollowed("net");
  service_.announce("net.mtu", {"1400"});
  EXPECT_EQ(watch.line(), "net.mtu = 1400");
  service_.announce("net.eth[1].mtu", {"a", "b"});
  EXPECT_EQ(watch.line(), "net.eth[1].mtu = [\"a\", \"b\"]");
  EXPECT_EQ(watch.stop(SIGTERM), 0);
  EXPECT_EQ(watch.err(), "");
}

TEST_F(ScriptedWatchTest, AChangeIsOneLineWhateverTheValueHolds) {
  RunningAppcfg watch(dir_.path(), {"watch", "net.mtu", "--changes-only"});
  untilFollowed("net.mtu");
  service_.announce("net.mtu", {"a\nb\x1b\xff"});
  EXPECT_EQ(watch.line(), "net.mtu = a\\nb\\x1b\\xff");
}

TEST_F(ScriptedWatchTest, InJsonEachLineIsOneObject) {
  RunningAppcfg watch(dir_.path(), {"watch", "net.mtu", "--json"});
  EXPECT_EQ(Json::parse(watch.line().value_or("")),
            Json::parse(R"({"key":"net.mtu","value":["1500"]})"));
  untilFollowed("net.mtu");
  service_.announce("net.mtu", {"a\nb", "\xff"});
  EXPECT_EQ(Json::parse(watch.line().value_or("")),
            Json::parse(R"({"key":"net.mtu","value":["a\nb",{"base64":"/w=="}]})"));
}

// The notice of such a change reaches a library that has no handler to call yet.
TEST_F(ScriptedWatchTest, AChangeWhileItRegistersIsNotMissed) {
  service_.changeWhenRegistered("net.mtu", {"1400"});
  RunningAppcfg watch(dir_.path(), {"watch", "net.mtu"});
  EXPECT_EQ(watch.line(), "net.mtu = 1400");
  service_.changeWhenRegistered("net.mtu", {"1300"});
  RunningAppcfg wait(dir_.path(), {"wait", "net.mtu"});
  EXPECT_EQ(wait.line(), "1300");
  EXPECT_EQ(wait.wait(), 0);
}

TEST_F(ScriptedWatchTest, ANoticeOfWhatIsKnownAlreadyIsNoChange) {
  RunningAppcfg watch(dir_.path(), {"watch", "net.mtu"});
  EXPECT_EQ(watch.line(), "net.mtu = 1500");
  untilFollowed("net.mtu");
  service_.announce("net.mtu", {"1500"});
  service_.announce("net.mtu", {"1"});
  service_.announce("net.mtu", {"1"});
  service_.announce("net.mtu", {"2"});
  EXPECT_EQ(watch.line(), "net.mtu = 1");
  EXPECT_EQ(watch.line(), "net.mtu = 2");
}

TEST_F(ScriptedWatchTest, AChangeThereAndBackIsTwoChanges) {
  RunningAppcfg watch(dir_.path(), {"watch", "net.mtu", "--changes-only"});
  untilFollowed("net.mtu");
  for (const char* value : {"1", "1500", "1"}) {
    service_.announce("net.mtu", {value});
    EXPECT_EQ(watch.line(), std::string("net.mtu = ") + value);
  }
}

TEST_F(ScriptedWatchTest, OnlyTheSelectedInstanceIsPrinted) {
  RunningAppcfg watch(dir_.path(), {"watch", "net.eth[1]", "--changes-only"});
  untilFollowed("net.eth");
  service_.announce("net.eth[2].mtu", {"1"});
  service_.announce("net.eth[1].mtu", {"2"});
  EXPECT_EQ(watch.line(), "net.eth[1].mtu = 2");
}

TEST_F(ScriptedWatchTest, OverlappingNamesPrintAChangeOnce) {
  RunningAppcfg watch(dir_.path(), {"watch", "net", "net.mtu", "--changes-only"});
  // A change before the second name was read again would be what is known from then on.
  ASSERT_TRUE(eventually([&] { return service_.listingsSinceRegistered() == 2; }));
  service_.announce("net.mtu", {"1"});
  service_.announce("net.mtu", {"2"});
  EXPECT_EQ(watch.line(), "net.mtu = 1");
  EXPECT_EQ(watch.line(), "net.mtu = 2");
}

TEST_F(ScriptedWatchTest, AVariableThatDefinitionsBringLaterIsPrinted) {
  RunningAppcfg watch(dir_.path(), {"watch", "net", "--changes-only"});
  untilFollowed("net");
  service_.announce("net.new", {"x"});
  EXPECT_EQ(watch.line(), "net.new = x");
}

TEST_F(ScriptedWatchTest, ANamespaceIsWatchedOnItsOwn) {
  RunningAppcfg watch(dir_.path(), {"watch", "3:engine"});
  EXPECT_EQ(watch.line(), "3:engine.speed = 7");
  untilFollowed("engine");
  service_.announce("3:engine.speed", {"8"});
  EXPECT_EQ(watch.line(), "3:engine.speed = 8");
}

TEST_F(ScriptedWatchTest, WithoutANamespaceThoseWithOneAreNotPrinted) {
  RunningAppcfg watch(dir_.path(), {"watch", "--changes-only"});
  untilFollowed("net");
  service_.announce("3:net.mtu", {"8"});
  service_.announce("net.mtu", {"9"});
  EXPECT_EQ(watch.line(), "net.mtu = 9");
}

TEST_F(ScriptedWatchTest, AVariableOfTheSameNameWithoutNamespaceIsNotTakenForTheOneWatched) {
  service_.put("engine.speed", {"1"});
  RunningAppcfg watch(dir_.path(), {"watch", "3:engine", "--changes-only"});
  untilFollowed("engine");
  service_.announce("engine.speed", {"100"});
  service_.announce("3:engine.speed", {"8"});
  EXPECT_EQ(watch.line(), "3:engine.speed = 8");
}

TEST_F(ScriptedWatchTest, EndsWhenItsReaderGoesAwayWithoutWaitingForAChange) {
  RunningAppcfg watch(dir_.path(), {"watch"});
  EXPECT_EQ(watch.line(), "net.mtu = 1500");
  watch.closeOut();
  EXPECT_EQ(watch.wait(), 0);
  EXPECT_EQ(watch.err(), "");
}

TEST_F(ScriptedWatchTest, AnInterruptAndATerminationEndItWithSuccess) {
  for (const int signal : {SIGINT, SIGTERM}) {
    RunningAppcfg watch(dir_.path(), {"watch"});
    EXPECT_EQ(watch.line(), "net.mtu = 1500");
    EXPECT_EQ(watch.stop(signal), 0);
    EXPECT_EQ(watch.err(), "");
  }
}

const char* const kRefused =
    "appcfg: the service does not tell what happens, for it has no room: user 7 has all 3 of them; "
    "asking until it has\n";
const char* const kAccepted = "appcfg: the service tells what happens again\n";

TEST_F(ScriptedWatchTest, SaysWhenTheServiceHasNoRoomForItAndWhenItHasAgain) {
  service_.makeRoom(false);
  RunningAppcfg watch(dir_.path(), {"watch", "net.mtu"});
  EXPECT_EQ(watch.line(), "net.mtu = 1500");
  ASSERT_TRUE(watch.waitForErr(kRefused));
  service_.makeRoom(true);
  ASSERT_TRUE(watch.waitForErr(kAccepted));
  service_.announce("net.mtu", {"1400"});
  EXPECT_EQ(watch.line(), "net.mtu = 1400");
  EXPECT_EQ(watch.stop(SIGTERM), 0);
  EXPECT_EQ(watch.err(), std::string(kRefused) + kAccepted) << "each once";
}

// --- wait ---

TEST_F(ScriptedWatchTest, WaitSaysItAsWellAndKeepsItsTime) {
  service_.makeRoom(false);
  RunningAppcfg wait(dir_.path(), {"wait", "net.mtu", "1", "--timeout", "0.3"});
  EXPECT_EQ(wait.wait(), kExitTimedOut);
  EXPECT_EQ(wait.err(), std::string(kRefused) + "appcfg: net.mtu did not become 1 in time\n");
}

TEST_F(ScriptedWatchTest, WaitEndsAtOnceWhenTheValueIsThere) {
  RunningAppcfg wait(dir_.path(), {"wait", "net.mtu", "1500"});
  EXPECT_EQ(wait.line(), "1500");
  EXPECT_EQ(wait.wait(), 0);
}

TEST_F(ScriptedWatchTest, WaitEndsWhenTheValueComesAndNotBefore) {
  RunningAppcfg wait(dir_.path(), {"wait", "net.mtu", "a", "b"});
  untilFollowed("net.mtu");
  service_.announce("net.mtu", {"a"});
  service_.announce("net.eth[1].mtu", {"a", "b"});
  service_.announce("net.mtu[1]", {"a", "b"});
  service_.announce("net.mtu", {"a", "b"});
  EXPECT_EQ(wait.line(), "a");
  EXPECT_EQ(wait.line(), "b");
  EXPECT_EQ(wait.wait(), 0);
}

TEST_F(ScriptedWatchTest, WaitWithoutAValueEndsAtTheFirstChange) {
  RunningAppcfg wait(dir_.path(), {"wait", "net.mtu", "--json"});
  untilFollowed("net.mtu");
  service_.announce("net.mtu", {"1500"});
  service_.announce("net.mtu", {"2"});
  EXPECT_EQ(Json::parse(wait.line().value_or("")),
            Json::parse(R"({"key":"net.mtu","value":["2"]})"));
  EXPECT_EQ(wait.wait(), 0);
}

TEST_F(ScriptedWatchTest, WaitForTheEmptyStringIsNotWaitForAnyChange) {
  RunningAppcfg wait(dir_.path(), {"wait", "net.mtu", ""});
  untilFollowed("net.mtu");
  service_.announce("net.mtu", {"x"});
  service_.announce("net.mtu", {""});
  EXPECT_EQ(wait.line(), "");
  EXPECT_EQ(wait.wait(), 0);
}

TEST_F(ScriptedWatchTest, WaitInANamespaceReadsWhatTheNoticeIsAbout) {
  RunningAppcfg wait(dir_.path(), {"wait", "3:engine.speed", "8"});
  untilFollowed("engine.speed");
  service_.announce("3:engine.speed", {"8"});
  EXPECT_EQ(wait.line(), "8");
  EXPECT_EQ(wait.wait(), 0);
}

TEST_F(ScriptedWatchTest, WaitEndsWithEightWhenTheValueDoesNotComeInTime) {
  RunningAppcfg wait(dir_.path(), {"wait", "net.mtu", "never", "--timeout", "0.2"});
  EXPECT_EQ(wait.wait(), kExitTimedOut);
  EXPECT_FALSE(wait.line().has_value());
  EXPECT_THAT(wait.err(), HasSubstr("net.mtu did not become never in time"));
}

TEST_F(ScriptedWatchTest, WaitForAVariableThatIsNotThereIsNotFound) {
  RunningAppcfg wait(dir_.path(), {"wait", "no.such"});
  EXPECT_EQ(wait.wait(), kExitNotFound);
}

// --- monitor ---

TEST(ScriptedMonitorTest, SaysWhenARestartedServiceHasNoRoomForItAndWhenItHasAgain) {
  const TestSupport::TempDir dir;
  std::atomic<bool> hasRoom{true};
  const auto answer = [&hasRoom](PbUtility::Server& server, const Serving::Request& request) {
    ConfigIF::StatusReq status;
    if (request.messageId == PlatformSchema::messageIdOf(status)) {
      server.respond(request.id, ConfigIF::StatusRsp(), kRevision);
      return;
    }
    ConfigIF::MonitorRsp response;
    if (!hasRoom) response.mutable_result()->set_error(CommonIF::ERROR_LIMIT);
    server.respond(request.id, response, kRevision);
    if (!hasRoom) return;
    ConfigIF::MonitorNtfy came;
    came.set_event(ConfigIF::MONITOR_CLIENT_CAME);
    came.set_client("somebody");
    server.notify(request.peer.id, came, kRevision, {});
  };
  auto serving = std::make_unique<Serving>(dir.path(), answer);
  RunningAppcfg monitor(dir.path(), {"monitor"});
  // Once it shows what it is told, the answer to its request has come, too.
  ASSERT_TRUE(monitor.line().has_value());
  hasRoom = false;
  serving.reset();
  serving = std::make_unique<Serving>(dir.path(), answer);
  ASSERT_TRUE(monitor.waitForErr("for it has no room: a limit of the service is reached;"));
  hasRoom = true;
  ASSERT_TRUE(monitor.waitForErr(kAccepted));
  EXPECT_EQ(monitor.stop(SIGTERM), 0);
}

}  // namespace
}  // namespace AppCfgTool
