// Long work of the service goes in slices: others are served in between, and what is told in slices
// never makes a client believe that it has been told all.
#include <atomic>
#include <set>
#include <thread>

#include "tests/integration/fixture.h"
#include "tests/platform/messaging/raw_client.h"
#include "tests/support/load.h"

namespace TestSupport {
namespace {

using PbUtility::ConnectionUse;
using PbUtility::FrameHeader;
using PbUtility::FrameKind;

constexpr std::size_t kVariables = 3000;

std::string frameOf(const google::protobuf::MessageLite& message, std::uint32_t messageId,
                    std::uint32_t sequence, std::uint64_t revision = 0) {
  FrameHeader header;
  header.kind = FrameKind::Request;
  header.messageId = messageId;
  header.sequence = sequence;
  header.revision = revision;
  return RawClient::frame(header, message.SerializeAsString());
}

std::string registrationOfAll(std::uint32_t sequence,
                              ConfigIF::CallbackType type = ConfigIF::CALLBACK_VALUE_CHANGED) {
  ConfigIF::RegisterClientCallbackReq request;
  request.set_client_name("client");
  request.set_role(CommonIF::SECURITY_ROLE_USER);
  request.set_type(type);
  request.set_name("load");
  request.set_endpoint_name("link");
  return frameOf(request, 0x1A0210, sequence, PbUtility::kRevisionNone);
}

std::string statusRequest(std::uint32_t sequence) {
  ConfigIF::StatusReq request;
  request.set_client_name("client");
  request.set_role(CommonIF::SECURITY_ROLE_USER);
  return frameOf(request, 0x1A0410, sequence);
}

void sendAll(const LoadConnection& connection, const std::string& bytes) {
  ASSERT_EQ(::send(connection.fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(bytes.size()));
}

// One of the two connections of one client.
LoadConnection connect(const ServiceProcess& service, std::uint32_t token, ConnectionUse use) {
  return {service.socket(), "client " + std::to_string(token), token, use};
}

// The answer to a request for the state of the service.
ConfigIF::StatusRsp receiveStatus(LoadConnection& connection) {
  FrameHeader header;
  std::string payload;
  ConfigIF::StatusRsp status;
  while (connection.receive(header, payload)) {
    if (header.messageId == 0x1A0411 && status.ParseFromString(payload)) return status;
  }
  ADD_FAILURE() << "no answer";
  return status;
}

std::uint64_t answeredAt(LoadConnection& connection) {
  FrameHeader header;
  std::string payload;
  EXPECT_TRUE(connection.receive(header, payload));
  EXPECT_EQ(header.messageId, 0x1A0211U);
  return header.revision;
}

class SlicesTest : public testing::Test {
 protected:
  void SetUp() override { service_.start(); }
  ServiceProcess service_{loadDefinitions(kVariables)};
};

// Both requests are there when the first is taken.
TEST_F(SlicesTest, OthersAreServedWhileARegistrationIsToldWhatItMissed) {
  LoadConnection requests = connect(service_, 1, ConnectionUse::Requests);
  const LoadConnection delivery = connect(service_, 1, ConnectionUse::Delivery);
  sendAll(requests, registrationOfAll(1) + statusRequest(2));
  EXPECT_LT(receiveStatus(requests).notices(), kVariables / 2);
}

TEST_F(SlicesTest, OthersAreServedWhileARegistrationIsRepeated) {
  LoadConnection delivery = connect(service_, 1, ConnectionUse::Delivery);
  sendAll(delivery, registrationOfAll(1) + statusRequest(2));
  EXPECT_LT(receiveStatus(delivery).notices(), kVariables / 2);
}

TEST_F(SlicesTest, OthersAreServedWhileAGroupIsReset) {
  LoadConnection requests = connect(service_, 1, ConnectionUse::Requests);
  ConfigIF::ResetNodeValueReq reset;
  reset.set_client_name("client");
  reset.set_role(CommonIF::SECURITY_ROLE_USER);
  reset.set_name("load");
  sendAll(requests, frameOf(reset, 0x1A0180, 1) + statusRequest(2));
  EXPECT_LT(receiveStatus(requests).unchanged_writes(), kVariables / 2);
  FrameHeader header;
  std::string payload;
  ASSERT_TRUE(requests.receive(header, payload));
  EXPECT_EQ(header.messageId, 0x1A0181U);
  sendAll(requests, statusRequest(3));
  EXPECT_EQ(receiveStatus(requests).unchanged_writes(), kVariables);
}

// Writes without pause until it goes.
class Writer {
 public:
  explicit Writer(const ServiceProcess& service)
      : thread_([this, dir = service.runtimeDir()] {
          TestClient client("writer", dir);
          for (int i = 0; !stopping_; ++i)
            client.write("load.g0.v" + std::to_string(i % 10), std::to_string(i));
        }) {}
  ~Writer() {
    stopping_ = true;
    thread_.join();
  }
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;

 private:
  std::atomic<bool> stopping_{false};
  std::thread thread_;
};

std::string variableOf(const std::string& payload) {
  ConfigIF::ConfigChangedNtfy notice;
  EXPECT_TRUE(notice.ParseFromString(payload));
  return notice.value().inst().SerializeAsString();
}

// A client counts itself up to date once a notice is newer than the answer to its registration, and
// would not ask for the rest if the connection were lost then.
TEST_F(SlicesTest, NoNoticeIsNewerThanTheAnswerBeforeAllThatWasOwedIsTold) {
  const Writer writer(service_);
  int newerOnes = 0;
  for (std::uint32_t client = 1; client <= 8; ++client) {
    LoadConnection delivery = connect(service_, client, ConnectionUse::Delivery);
    LoadConnection requests = connect(service_, client, ConnectionUse::Requests);
    sendAll(requests, registrationOfAll(1));
    const std::uint64_t answered = answeredAt(requests);
    std::set<std::string> told;
    FrameHeader header;
    std::string payload;
    bool isNewer = false;
    while (!isNewer && delivery.receive(header, payload)) {
      isNewer = header.revision > answered;
      if (!isNewer) told.insert(variableOf(payload));
    }
    EXPECT_EQ(told.size(), kVariables);
    newerOnes += isNewer ? 1 : 0;
  }
  EXPECT_EQ(newerOnes, 8);
}

TEST_F(SlicesTest, WhoWithdrawsARegistrationIsToldNoMoreOfWhatItMissed) {
  LoadConnection requests = connect(service_, 1, ConnectionUse::Requests);
  const LoadConnection delivery = connect(service_, 1, ConnectionUse::Delivery);
  ConfigIF::UnregisterAllClientCallbacksReq all;
  all.set_client_name("client");
  sendAll(requests, registrationOfAll(1) + frameOf(all, 0x1A0230, 2));
  EXPECT_EQ(answeredAt(requests), 0U);
  FrameHeader header;
  std::string payload;
  ASSERT_TRUE(requests.receive(header, payload));
  EXPECT_EQ(header.messageId, 0x1A0231U);
  // A registration of another's is told all: by then, slices of the first would have been run.
  LoadConnection other = connect(service_, 2, ConnectionUse::Delivery);
  sendAll(other, registrationOfAll(1));
  while (other.receive(header, payload) && header.messageId != 0x1A0211) continue;
  sendAll(requests, statusRequest(3));
  EXPECT_LT(receiveStatus(requests).notices(), kVariables + kVariables / 2);
}

// Nothing of it may be written by its user: that is found in slices, and nobody is registered.
TEST_F(SlicesTest, AProviderThatMayProvideNothingIsRefusedAfterAllWereLookedAt) {
  service_.kill();
  const std::string roles = "write-role = \"factory\"\nread-role = \"factory\"\n";
  std::string guarded = loadDefinitions(kVariables);
  for (std::size_t at = guarded.find("type ="); at != std::string::npos;
       at = guarded.find("type =", at + roles.size() + 1))
    guarded.insert(at, roles);
  service_.redefine(guarded);
  service_.start();
  LoadConnection requests = connect(service_, 1, ConnectionUse::Requests);
  sendAll(requests, registrationOfAll(1, ConfigIF::CALLBACK_ON_CHANGE) + statusRequest(2));
  FrameHeader header;
  std::string payload;
  ASSERT_TRUE(requests.receive(header, payload));
  EXPECT_EQ(header.messageId, 0x1A0411U) << "the look at so many did not let others go first";
  ASSERT_TRUE(requests.receive(header, payload));
  ConfigIF::RegisterClientCallbackRsp response;
  ASSERT_TRUE(response.ParseFromString(payload));
  EXPECT_EQ(response.result().error(), CommonIF::ERROR_DENIED);
  sendAll(requests, statusRequest(3));
  EXPECT_EQ(receiveStatus(requests).registrations(), 0U);
}

}  // namespace
}  // namespace TestSupport
