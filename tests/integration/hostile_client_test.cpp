// What clients that are broken, or mean harm, can do: lose their connection, and nothing more.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/messaging/wire/frame.h"
#include "tests/integration/fixture.h"

namespace TestSupport {
namespace {

using PbUtility::FrameHeader;
using PbUtility::FrameKind;
using PbUtility::kFrameHeaderBytes;
using testing::ElementsAre;

// A connection without any client behind it.
class RawConnection {
 public:
  explicit RawConnection(const std::string& path) : fd_(socket(AF_UNIX, SOCK_STREAM, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }
  ~RawConnection() { leave(); }

  void say(const std::string& bytes) {
    EXPECT_EQ(send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }
  void greet(const std::string& name) {
    PbUtility::Hello hello;
    hello.name = name;
    hello.token.fill(static_cast<unsigned char>(name.size()));
    FrameHeader header;
    header.kind = FrameKind::Hello;
    say(frame(header, encode(hello)));
    std::string welcome(kFrameHeaderBytes + 8, '\0');
    ASSERT_EQ(recv(fd_, welcome.data(), welcome.size(), MSG_WAITALL),
              static_cast<ssize_t>(welcome.size()));
  }
  // Nothing comes any more. What was still on its way is skipped.
  bool isClosed() {
    timeval patience{20, 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    char bytes[4096];
    for (;;) {
      const ssize_t got = recv(fd_, bytes, sizeof bytes, 0);
      if (got <= 0) return got == 0 || errno == ECONNRESET;
    }
  }
  void leave() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }

  static std::string frame(FrameHeader header, const std::string& payload) {
    header.payloadBytes = static_cast<std::uint32_t>(payload.size());
    return headerOf(header) + payload;
  }
  static std::string headerOf(const FrameHeader& header) {
    std::string bytes(kFrameHeaderBytes, '\0');
    encodeHeader(header, reinterpret_cast<unsigned char*>(bytes.data()));
    return bytes;
  }

 private:
  int fd_;
};

class HostileClientTest : public IntegrationTest {
 protected:
  // The service closed this connection, said so once, and serves everybody else.
  void expectClosedAndServing(RawConnection& connection) {
    EXPECT_TRUE(connection.isClosed());
    expectServing();
    EXPECT_EQ(service_.linesWith("closed the connection"), 1) << service_.log();
  }
  void expectServing() { EXPECT_THAT(client_.read("net.mtu").values, ElementsAre("1500")); }
};

TEST_F(HostileClientTest, GarbageEndsTheConnectionWithOneLine) {
  RawConnection connection(service_.socket());
  connection.say("GET / HTTP/1.1\r\nHost: device\r\n\r\n");
  expectClosedAndServing(connection);
}

TEST_F(HostileClientTest, GarbageAfterTheGreetingEndsTheConnectionWithOneLine) {
  RawConnection connection(service_.socket());
  connection.greet("liar");
  connection.say(std::string(64, '\xFF'));
  expectClosedAndServing(connection);
}

TEST_F(HostileClientTest, AFrameOfFourGibibytesEndsTheConnectionWithOneLine) {
  RawConnection connection(service_.socket());
  connection.greet("giant");
  FrameHeader header;
  header.kind = FrameKind::Request;
  header.payloadBytes = 0xFFFFFFFF;
  connection.say(RawConnection::headerOf(header));
  expectClosedAndServing(connection);
}

TEST_F(HostileClientTest, AClientThatLeavesInTheMiddleOfAFrameIsForgotten) {
  RawConnection connection(service_.socket());
  connection.greet("half");
  FrameHeader header;
  header.kind = FrameKind::Request;
  header.messageId = 0x1A0110;
  header.payloadBytes = 1000;
  connection.say(RawConnection::headerOf(header) + "half");
  connection.leave();
  EXPECT_TRUE(service_.waitForLog("closed the connection"));
  expectServing();
  EXPECT_EQ(service_.linesWith("closed the connection"), 1);
}

TEST_F(HostileClientTest, HalfAFrameHoldsUpNobody) {
  RawConnection connection(service_.socket());
  connection.greet("slow");
  connection.say("\x01");
  expectServing();
}

TEST_F(HostileClientTest, APayloadThatIsNoMessageIsRefusedAndLogged) {
  RawConnection connection(service_.socket());
  connection.greet("babbler");
  FrameHeader header;
  header.kind = FrameKind::Request;
  header.messageId = 0x1A0110;
  connection.say(RawConnection::frame(header, "\xFF\xFF\xFF"));
  EXPECT_TRUE(service_.waitForLog("the payload is no ReadReq"));
  expectServing();
}

TEST_F(HostileClientTest, AnUnknownRequestIsRefusedAndLogged) {
  RawConnection connection(service_.socket());
  connection.greet("newer");
  FrameHeader header;
  header.kind = FrameKind::Request;
  header.messageId = 0x1A0990;
  connection.say(RawConnection::frame(header, ""));
  EXPECT_TRUE(service_.waitForLog("0x1A0990 is no request that this service answers"));
  expectServing();
}

TEST_F(HostileClientTest, AClientThatDiesWithARequestUnderWayHurtsNobody) {
  for (int i = 0; i < 20; ++i) {
    RawConnection connection(service_.socket());
    connection.greet("dying");
    FrameHeader header;
    header.kind = FrameKind::Request;
    header.messageId = 0x1A0140;
    ConfigIF::WriteReq request;
    request.set_role(CommonIF::SECURITY_ROLE_USER);
    request.mutable_value()->mutable_inst()->add_path()->set_name("test");
    request.mutable_value()->mutable_inst()->add_path()->set_name("marker");
    request.mutable_value()->add_values(std::to_string(i));
    connection.say(RawConnection::frame(header, request.SerializeAsString()));
  }
  expectServing();
}

TEST_F(HostileClientTest, ANameWithALineBreakIsRefused) {
  RawConnection connection(service_.socket());
  PbUtility::Hello hello;
  hello.name = "evil\nerror: disk on fire";
  FrameHeader header;
  header.kind = FrameKind::Hello;
  connection.say(RawConnection::frame(header, encode(hello)));
  expectClosedAndServing(connection);
  EXPECT_EQ(service_.log().find("\nerror: disk on fire"), std::string::npos);
}

TEST_F(HostileClientTest, ALineOfTheLogCannotBeForgedByARequestsClientName) {
  ConfigIF::WriteReq request;
  request.set_client_name("evil\nerror: disk on fire");
  request.set_role(CommonIF::SECURITY_ROLE_USER);
  request.mutable_value()->mutable_inst()->add_path()->set_name("net");
  request.mutable_value()->mutable_inst()->add_path()->set_name("mtu");
  request.mutable_value()->add_values("70000");
  ASSERT_EQ(client_.endpoint().send(request, TestClient::kService, nullptr), 0);
  EXPECT_TRUE(service_.waitForLog("evil\\x0Aerror: disk on fire failed with error 4"));
}

}  // namespace
}  // namespace TestSupport
