// Registrations that find no room at the service: they are repeated until they do, and who asks
// learns of it. A real server answers as the test says.
#include "platform/messaging/registration_refusals.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <set>
#include <thread>

#include "platform/messaging/endpoint.h"
#include "platform/messaging/wire/frame.h"
#include "platform/schema/config_if.pb.h"
#include "platform/schema/message_ids.h"
#include "tests/support/eventually.h"
#include "tests/support/serving.h"
#include "tests/support/temp_dir.h"

namespace PbUtility {
namespace {

using TestSupport::eventually;
using TestSupport::kPatience;
using TestSupport::Serving;

const std::string kService = "ConfigSrvc";
constexpr std::uint64_t kRevision = 7;

ConfigIF::RegisterClientCallbackReq registration(const std::string& name) {
  ConfigIF::RegisterClientCallbackReq request;
  request.set_client_name("me");
  request.set_name(name);
  request.set_endpoint_name("link");
  return request;
}

// Has room for some registrations, refuses those beyond, and takes a name that it has again.
class RoomService {
 public:
  RoomService(const std::string& runtimeDir, std::size_t room)
      : room_(room), serving_(runtimeDir, [this](Server& server, const Serving::Request& request) {
          answer(server, request);
        }) {}

  void makeRoom(std::size_t room) { room_ = room; }
  // What is answered instead of LIMIT.
  void refuseWith(CommonIF::eErrorType error) { error_ = error; }

  // The registrations that came for this name, refused ones included; for any when none is given.
  std::vector<Serving::Request> asked(const std::string& name = "") const {
    std::vector<Serving::Request> found;
    for (const Serving::Request& request : serving_.requests()) {
      if (!PlatformSchema::isRepeatedOnReconnect(request.messageId)) continue;
      ConfigIF::RegisterClientCallbackReq registered;
      registered.ParseFromString(request.payload);
      if (name.empty() || registered.name() == name) found.push_back(request);
    }
    return found;
  }
  std::size_t accepted() const { return accepted_; }

 private:
  void answer(Server& server, const Serving::Request& request) {
    if (request.messageId == PlatformSchema::messageIdOf(ConfigIF::MonitorReq()))
      return take<ConfigIF::MonitorRsp>(server, request);
    if (PlatformSchema::isRepeatedOnReconnect(request.messageId))
      return take<ConfigIF::RegisterClientCallbackRsp>(server, request);
    if (PlatformSchema::withdrawsOneRepeated(request.messageId))
      return server.respond(request.id, ConfigIF::UnregisterClientCallbackRsp(), kRevision);
    server.respond(request.id, ConfigIF::ReadRsp(), kRevision);
  }
  template <typename Response>
  void take(Server& server, const Serving::Request& request) {
    Response response;
    if (names_.count(request.payload) == 0 && names_.size() >= room_) {
      response.mutable_result()->set_error(error_);
      response.mutable_result()->add_messages("no room for one more");
    } else {
      names_.insert(request.payload);
      accepted_ = names_.size();
    }
    server.respond(request.id, response, kRevision + 1);
  }

  std::atomic<std::size_t> room_;
  std::atomic<CommonIF::eErrorType> error_{CommonIF::ERROR_LIMIT};
  std::atomic<std::size_t> accepted_{0};
  std::set<std::string> names_;  // the serving thread's own
  Serving serving_;              // calls answer, so it comes last
};

class RegistrationRefusalsTest : public testing::Test {
 protected:
  EndpointOptions options() const {
    EndpointOptions made;
    made.runtimeDir = dir.path();
    return made;
  }
  // The error of the answer.
  static CommonIF::eErrorType registerFor(Endpoint& endpoint, const std::string& name) {
    ConfigIF::RegisterClientCallbackRsp response;
    EXPECT_EQ(endpoint.sendWaitResponse(registration(name), &response, kService), kCallOk);
    return response.result().error();
  }
  static bool isRefused(const Endpoint& endpoint, const std::string& name) {
    return isRegistrationRefused(&endpoint, kService, registration(name));
  }

  TestSupport::TempDir dir;
};

TEST_F(RegistrationRefusalsTest, ARefusedOneIsRepeatedWithWhatWasKnownUntilThereIsRoom) {
  RoomService service(dir.path(), 0);
  Endpoint endpoint("ui", options());
  ConfigIF::ReadRsp read;
  ASSERT_EQ(endpoint.sendWaitResponse(ConfigIF::ReadReq(), &read, kService), kCallOk);
  EXPECT_EQ(registerFor(endpoint, "net.mtu"), CommonIF::ERROR_LIMIT)
      << "the caller sees the answer";
  EXPECT_TRUE(isRefused(endpoint, "net.mtu"));
  EXPECT_EQ(registrationRefusal(&endpoint, kService), "no room for one more");
  ASSERT_TRUE(eventually([&] { return service.asked().size() >= 3; }));
  EXPECT_TRUE(isRefused(endpoint, "net.mtu"));
  service.makeRoom(1);
  ASSERT_TRUE(eventually([&] { return !isRefused(endpoint, "net.mtu"); }));
  EXPECT_EQ(registrationRefusal(&endpoint, kService), "");
  for (const Serving::Request& asked : service.asked()) EXPECT_EQ(asked.revision, kRevision);
}

TEST_F(RegistrationRefusalsTest, OneThatKnewNothingIsRepeatedForEverything) {
  RoomService service(dir.path(), 0);
  Endpoint endpoint("ui", options());
  // A thread of its own: none that has been answered before.
  std::thread([&] { registerFor(endpoint, "net.mtu"); }).join();
  ASSERT_TRUE(eventually([&] { return service.asked().size() >= 2; }));
  EXPECT_EQ(service.asked()[1].revision, kRevisionNone);
}

// A service that has no room to read it at all refuses it by a frame instead of an answer.
TEST_F(RegistrationRefusalsTest, ARefusalWithoutAnAnswerSaysWhyEachTime) {
  std::atomic<int> refused{0};
  const Serving serving(dir.path(), [&](Server& server, const Serving::Request& request) {
    server.refuse(request.id, kRefusedByLimit, "no room to read it");
    ++refused;
  });
  Endpoint endpoint("ui", options());
  ConfigIF::RegisterClientCallbackRsp response;
  EXPECT_EQ(endpoint.sendWaitResponse(registration("a"), &response, kService), kCallRefused);
  // The second one is a repetition, and its refusal was taken in once the third came.
  ASSERT_TRUE(eventually([&] { return refused >= 3; }));
  EXPECT_EQ(registrationRefusal(&endpoint, kService), "no room to read it");
}

TEST_F(RegistrationRefusalsTest, WhatIsRefusedAfterARestartOfTheServiceIsRepeatedToo) {
  auto before = std::make_unique<RoomService>(dir.path(), 2);
  Endpoint endpoint("ui", options());
  EXPECT_EQ(registerFor(endpoint, "a"), CommonIF::ERROR_NONE);
  EXPECT_EQ(registerFor(endpoint, "b"), CommonIF::ERROR_NONE);
  EXPECT_FALSE(isRefused(endpoint, "a"));
  before.reset();
  RoomService after(dir.path(), 1);
  ASSERT_TRUE(eventually([&] { return isRefused(endpoint, "a") != isRefused(endpoint, "b"); }));
  EXPECT_TRUE(endpoint.waitUntilConnected(kService, kPatience)) << "a refusal is an answer";
  after.makeRoom(2);
  EXPECT_TRUE(eventually([&] { return !isRefused(endpoint, "a") && !isRefused(endpoint, "b"); }));
}

TEST_F(RegistrationRefusalsTest, AnyOtherErrorIsNotAskedAboutAgain) {
  RoomService service(dir.path(), 0);
  Endpoint endpoint("ui", options());
  service.refuseWith(CommonIF::ERROR_DENIED);
  EXPECT_EQ(registerFor(endpoint, "denied"), CommonIF::ERROR_DENIED);
  EXPECT_FALSE(isRefused(endpoint, "denied"));
  service.refuseWith(CommonIF::ERROR_LIMIT);
  registerFor(endpoint, "refused");
  service.makeRoom(2);
  ASSERT_TRUE(eventually([&] { return !isRefused(endpoint, "refused"); }));
  EXPECT_EQ(service.asked("denied").size(), 1U);
}

TEST_F(RegistrationRefusalsTest, AWithdrawnOneIsNeitherRefusedNorRepeated) {
  RoomService service(dir.path(), 0);
  Endpoint endpoint("ui", options());
  registerFor(endpoint, "withdrawn");
  registerFor(endpoint, "wanted");
  ConfigIF::UnregisterClientCallbackReq withdrawal;
  withdrawal.set_client_name("me");
  withdrawal.set_name("withdrawn");
  withdrawal.set_endpoint_name("link");
  ConfigIF::UnregisterClientCallbackRsp response;
  ASSERT_EQ(endpoint.sendWaitResponse(withdrawal, &response, kService), kCallOk);
  EXPECT_FALSE(isRefused(endpoint, "withdrawn"));
  const std::size_t askedFor = service.asked("withdrawn").size();
  service.makeRoom(10);
  ASSERT_TRUE(eventually([&] { return !isRefused(endpoint, "wanted"); }));
  EXPECT_EQ(service.asked("withdrawn").size(), askedFor);
}

TEST_F(RegistrationRefusalsTest,
       ManyRefusedOnesAreTriedOneAtATimeAndAllFollowTheFirstThatFindsRoom) {
  constexpr std::size_t kMany = 300;
  RoomService service(dir.path(), 0);
  Endpoint endpoint("ui", options());
  for (std::size_t i = 0; i < kMany; ++i) registerFor(endpoint, std::to_string(i));
  // Delays double, so a second and a half of being refused costs four requests.
  ASSERT_TRUE(eventually([&] { return service.asked().size() >= kMany + 2; }));
  EXPECT_LT(service.asked().size(), kMany + 8);
  service.makeRoom(kMany);
  ASSERT_TRUE(eventually([&] { return service.accepted() == kMany; }));
  EXPECT_TRUE(eventually([&] { return registrationRefusal(&endpoint, kService).empty(); }));
  EXPECT_LT(service.asked().size(), 2 * kMany + 8) << "none was asked for again that was accepted";
}

TEST_F(RegistrationRefusalsTest, AMonitorIsRepeatedLikeARegistration) {
  RoomService service(dir.path(), 0);
  Endpoint endpoint("ui", options());
  ConfigIF::MonitorReq monitor;
  monitor.set_client_name("me");
  ConfigIF::MonitorRsp response;
  ASSERT_EQ(endpoint.sendWaitResponse(monitor, &response, kService), kCallOk);
  EXPECT_TRUE(isRegistrationRefused(&endpoint, kService, monitor));
  service.makeRoom(1);
  EXPECT_TRUE(eventually([&] { return !isRegistrationRefused(&endpoint, kService, monitor); }));
}

TEST_F(RegistrationRefusalsTest, OneThatWasSentWithoutWaitingIsRepeatedToo) {
  RoomService service(dir.path(), 0);
  Endpoint endpoint("ui", options());
  ASSERT_TRUE(endpoint.waitUntilConnected(kService, kPatience));
  ASSERT_EQ(endpoint.send(registration("net.mtu"), kService, nullptr), kCallOk);
  ASSERT_TRUE(eventually([&] { return isRefused(endpoint, "net.mtu"); }));
  service.makeRoom(1);
  EXPECT_TRUE(eventually([&] { return !isRefused(endpoint, "net.mtu"); }));
}

TEST_F(RegistrationRefusalsTest, AGroupThatIsRefusedLeavesItsVariablesUntold) {
  RoomService service(dir.path(), 0);
  Endpoint endpoint("ui", options());
  registerFor(endpoint, "net");
  EXPECT_TRUE(isRefused(endpoint, "net"));
  EXPECT_TRUE(isRefused(endpoint, "net.eth.mtu"));
  EXPECT_FALSE(isRefused(endpoint, "network.mtu"));
  EXPECT_FALSE(isRegistrationRefused(&endpoint, "/engine/ConfigSrvc", registration("net")));
  EXPECT_FALSE(isRegistrationRefused(&endpoint, kService, ConfigIF::ReadReq()));
  EXPECT_FALSE(isRegistrationRefused(nullptr, kService, registration("net")));
}

TEST_F(RegistrationRefusalsTest, AChildKnowsWhatItsParentKnewAndLearnsOfRoomByItself) {
  RoomService service(dir.path(), 0);
  Endpoint endpoint("ui", options());
  registerFor(endpoint, "net.mtu");
  ASSERT_TRUE(isRefused(endpoint, "net.mtu"));
  const pid_t child = ::fork();
  if (child == 0) {
    if (!isRefused(endpoint, "net.mtu")) ::_exit(1);
    if (!endpoint.waitUntilConnected(kService, kPatience)) ::_exit(2);
    ::_exit(eventually([&] { return !isRefused(endpoint, "net.mtu"); }) ? 42 : 3);
  }
  ASSERT_TRUE(eventually([&] {
    for (const Serving::Request& asked : service.asked())
      if (asked.peer.pid == child) return true;
    return false;
  }));
  service.makeRoom(10);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(WEXITSTATUS(status), 42);
  EXPECT_TRUE(eventually([&] { return !isRefused(endpoint, "net.mtu"); }));
}

// A message layer of a device's own, which only tells.
class OwnLayer : public PbUtils {
 public:
  void addRemoteEndpoint(const std::string& /*endpointName*/, int /*instance*/) override {}
  void addHandlers(const MSG_Callback* /*table*/) override {}
  std::string localEndpoint() const override { return "own"; }
  int send(const google::protobuf::MessageLite& /*request*/, const std::string& /*endpointName*/,
           unsigned int* /*sequence*/) override {
    return 0;
  }
  int sendWaitResponse(const google::protobuf::MessageLite& /*request*/,
                       google::protobuf::MessageLite* /*response*/,
                       const std::string& /*endpointName*/) override {
    return 0;
  }
};

TEST(OwnLayerTest, ALayerOfTheDevicesOwnMayTell) {
  OwnLayer layer;
  OwnLayer other;
  EXPECT_FALSE(isRegistrationRefused(&layer, kService, registration("net.mtu")));
  noteRegistrationRefused(&layer, kService, registration("net.mtu"), "full");
  noteRegistrationRefused(&layer, kService, ConfigIF::ReadReq(), "no registration");
  noteRegistrationRefused(nullptr, kService, registration("net.mtu"), "no layer");
  EXPECT_TRUE(isRegistrationRefused(&layer, kService, registration("net.mtu")));
  EXPECT_FALSE(isRegistrationRefused(&other, kService, registration("net.mtu")));
  EXPECT_EQ(registrationRefusal(&layer, kService), "full");
  EXPECT_EQ(registrationRefusal(&layer, "Config"), "");
  noteRegistrationAccepted(&layer, kService, registration("net.mtu"));
  EXPECT_FALSE(isRegistrationRefused(&layer, kService, registration("net.mtu")));
  EXPECT_EQ(registrationRefusal(&layer, kService), "");
}

TEST(OwnLayerTest, WhatIsKnownOfALayerEndsWithItAndANumberIsNeverUsedAgain) {
  alignas(OwnLayer) unsigned char place[sizeof(OwnLayer)];
  auto* const first = new (place) OwnLayer;
  const std::uint64_t number = layerNumber(first);
  EXPECT_EQ(layerNumber(first), number);
  noteRegistrationRefused(first, kService, registration("net.mtu"), "full");
  first->~OwnLayer();
  auto* const second = new (place) OwnLayer;
  EXPECT_FALSE(isRegistrationRefused(second, kService, registration("net.mtu")));
  EXPECT_NE(layerNumber(second), number);
  second->~OwnLayer();
}

}  // namespace
}  // namespace PbUtility
