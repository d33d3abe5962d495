#include "platform/messaging/serving/server.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <future>
#include <thread>

#include "platform/messaging/endpoint.h"
#include "platform/schema/config_if.pb.h"
#include "tests/platform/messaging/raw_client.h"
#include "tests/support/eventually.h"
#include "tests/support/serving.h"
#include "tests/support/temp_dir.h"

namespace PbUtility {
namespace {

using testing::HasSubstr;
using TestSupport::eventually;
using TestSupport::RawClient;
using TestSupport::Serving;

class ServerTest : public ::testing::Test {
 protected:
  std::string socketFile() const { return dir.file("ConfigSrvc"); }

  ServerOptions options() const {
    ServerOptions made;
    made.runtimeDir = dir.path();
    made.name = "ConfigSrvc";
    return made;
  }

  // One more client that is served, whatever was done to the service before.
  void expectServed() {
    EndpointOptions own;
    own.runtimeDir = dir.path();
    Endpoint endpoint("bystander", own);
    ConfigIF::ReadReq request;
    request.set_client_name("served");
    ConfigIF::ReadRsp response;
    ASSERT_EQ(endpoint.sendWaitResponse(request, &response, "ConfigSrvc"), 0);
    EXPECT_EQ(response.values(0), "served");
  }

  // Whether all that the client has sent was read.
  static bool isRead(const RawClient& client) {
    int unread = -1;
    return ::ioctl(client.fd(), SIOCOUTQ, &unread) == 0 && unread == 0;
  }

  static std::size_t linesAbout(const Serving& serving, const std::string& text) {
    std::size_t count = 0;
    for (const std::string& line : serving.log()) count += line.find(text) != std::string::npos;
    return count;
  }

  TestSupport::TempDir dir;
};

std::string request(std::uint32_t messageId, const std::string& payload) {
  FrameHeader header;
  header.kind = FrameKind::Request;
  header.messageId = messageId;
  header.sequence = 1;
  return RawClient::frame(header, payload);
}

TEST_F(ServerTest, GarbageCostsOneLogLineAndThatConnectionAlone) {
  Serving serving(dir.path());
  RawClient client(socketFile());
  ASSERT_TRUE(client.send(std::string(100, '\xEE')));
  EXPECT_TRUE(client.isClosedByService());
  EXPECT_TRUE(eventually([&] { return serving.log().size() == 1; }));
  EXPECT_NE(serving.log()[0].find("frame version 238"), std::string::npos) << serving.log()[0];
  expectServed();
}

TEST_F(ServerTest, AFrameThatClaimsFourGibibytesEndsItsConnectionBeforeItsBytesAreAwaited) {
  Serving serving(dir.path());
  RawClient client(socketFile());
  ASSERT_TRUE(client.send(RawClient::hello("liar")));
  std::string frame = request(0x1A0110, "");
  frame.replace(12, 4, "\xFF\xFF\xFF\xFF");
  ASSERT_TRUE(client.send(frame));
  EXPECT_TRUE(client.isClosedByService());
  EXPECT_TRUE(eventually([&] { return linesAbout(serving, "4294967295") == 1; }));
  expectServed();
}

TEST_F(ServerTest, HalfAFrameAndThenNothingIsOneLogLine) {
  Serving serving(dir.path());
  {
    RawClient client(socketFile());
    ASSERT_TRUE(client.send(RawClient::hello("half") + request(0x1A0110, "payload").substr(0, 27)));
    client.receive();
  }
  EXPECT_TRUE(eventually([&] { return linesAbout(serving, "in the middle of a frame") == 1; }));
  EXPECT_TRUE(serving.requests().empty());
  expectServed();
}

TEST_F(ServerTest, AFrameThatComesByteByByteIsOneRequest) {
  Serving serving(dir.path());
  RawClient client(socketFile());
  ConfigIF::ReadReq read;
  read.set_client_name("slow");
  for (const char byte : RawClient::hello("slow") + request(0x1A0110, read.SerializeAsString())) {
    ASSERT_TRUE(client.send(std::string(1, byte)));
  }
  EXPECT_TRUE(eventually([&] { return serving.requests().size() == 1; }));
  EXPECT_EQ(serving.requests()[0].payload, read.SerializeAsString());
}

TEST_F(ServerTest, ManyRequestsInOneSegmentAreAnsweredInOrder) {
  Serving serving(dir.path());
  RawClient client(socketFile());
  std::string bytes = RawClient::hello("burst");
  for (int i = 0; i < 1000; ++i) {
    ConfigIF::ReadReq read;
    read.set_client_name(std::to_string(i));
    bytes += request(0x1A0110, read.SerializeAsString());
  }
  ASSERT_TRUE(client.send(bytes));
  ASSERT_TRUE(eventually([&] { return serving.requests().size() == 1000; }));
  ConfigIF::ReadReq last;
  ASSERT_TRUE(last.ParseFromString(serving.requests()[999].payload));
  EXPECT_EQ(last.client_name(), "999");
}

TEST_F(ServerTest, WhoDoesNotGreetFirstIsClosed) {
  Serving serving(dir.path());
  RawClient client(socketFile());
  ASSERT_TRUE(client.send(request(0x1A0110, "")));
  EXPECT_TRUE(client.isClosedByService());
  EXPECT_TRUE(eventually([&] { return linesAbout(serving, "did not greet first") == 1; }));
}

TEST_F(ServerTest, AnAnswerToAQuestionThatWasNotAskedEndsTheConnection) {
  Serving serving(dir.path());
  RawClient client(socketFile());
  FrameHeader header;
  header.kind = FrameKind::Answer;
  header.sequence = 1;
  ASSERT_TRUE(client.send(RawClient::hello("forger", 1, ConnectionUse::Delivery) +
                          RawClient::frame(header, "")));
  EXPECT_TRUE(client.isClosedByService());
  EXPECT_TRUE(eventually([&] { return linesAbout(serving, "not asked") == 1; }));
  EXPECT_TRUE(serving.questions().empty());
}

TEST_F(ServerTest, AQuestionOfOnePeerCannotBeAnsweredByAnother) {
  Serving serving(dir.path());
  RawClient owner(socketFile());
  ASSERT_TRUE(owner.send(RawClient::hello("owner", 1, ConnectionUse::Delivery)));
  ASSERT_TRUE(eventually([&] { return serving.readyPeer() != 0; }));
  const std::uint32_t number = serving.ask(serving.readyPeer(), ConfigIF::DynamicValidateReq());
  ASSERT_NE(number, 0U);
  RawClient other(socketFile());
  FrameHeader header;
  header.kind = FrameKind::Done;
  header.sequence = number;
  ASSERT_TRUE(other.send(RawClient::hello("other", 2, ConnectionUse::Delivery) +
                         RawClient::frame(header, "")));
  EXPECT_TRUE(other.isClosedByService());
  EXPECT_TRUE(serving.questions().empty());
}

TEST_F(ServerTest, TheEndOfADeliveryConnectionEndsItsOpenQuestions) {
  Serving serving(dir.path());
  RawClient client(socketFile());
  ASSERT_TRUE(client.send(RawClient::hello("mortal", 1, ConnectionUse::Delivery)));
  ASSERT_TRUE(eventually([&] { return serving.readyPeer() != 0; }));
  ASSERT_NE(serving.ask(serving.readyPeer(), ConfigIF::DynamicValidateReq()), 0U);
  client.close();
  ASSERT_TRUE(eventually([&] { return serving.gone().size() == 1; }));
  ASSERT_EQ(serving.questions().size(), 1U);
  EXPECT_TRUE(serving.questions()[0].peerGone);
}

TEST_F(ServerTest, APeerWithoutADeliveryConnectionCannotBeAsked) {
  Serving serving(dir.path());
  RawClient client(socketFile());
  ASSERT_TRUE(client.send(RawClient::hello("mute") + request(0x1A0110, "")));
  ASSERT_TRUE(eventually([&] { return serving.requests().size() == 1; }));
  EXPECT_EQ(serving.ask(serving.requests()[0].peer.id, ConfigIF::DynamicValidateReq()), 0U);
}

TEST_F(ServerTest, TheKernelTellsWhoThePeerIs) {
  Serving serving(dir.path());
  expectServed();
  const Peer peer = serving.requests()[0].peer;
  EXPECT_EQ(peer.name, "bystander");
  EXPECT_EQ(peer.pid, ::getpid());
  EXPECT_EQ(peer.uid, ::getuid());
}

TEST_F(ServerTest, PeersStandInTheOrderInWhichTheyCameAndSayWhetherTheyCanBeTold) {
  Serving serving(dir.path());
  RawClient mute(socketFile());
  ASSERT_TRUE(mute.send(RawClient::hello("mute", 1)));
  ASSERT_FALSE(mute.receive().empty());
  RawClient listener(socketFile());
  ASSERT_TRUE(listener.send(RawClient::hello("listener", 2, ConnectionUse::Delivery)));
  ASSERT_FALSE(listener.receive().empty());
  std::vector<ConnectedPeer> peers;
  serving.onServer([&](Server& server) { peers = server.peers(); });
  ASSERT_EQ(peers.size(), 2U);
  EXPECT_EQ(peers[0].peer.name, "mute");
  EXPECT_FALSE(peers[0].delivery);
  EXPECT_EQ(peers[1].peer.name, "listener");
  EXPECT_TRUE(peers[1].delivery);
  mute.close();
  ASSERT_TRUE(eventually([&] { return serving.gone().size() == 1; }));
  serving.onServer([&](Server& server) { peers = server.peers(); });
  ASSERT_EQ(peers.size(), 1U);
}

TEST_F(ServerTest, ATokenUnderAnotherNameIsRefused) {
  Serving serving(dir.path());
  RawClient first(socketFile());
  ASSERT_TRUE(first.send(RawClient::hello("first", 9)));
  ASSERT_FALSE(first.receive().empty());
  RawClient second(socketFile());
  ASSERT_TRUE(second.send(RawClient::hello("second", 9)));
  EXPECT_TRUE(second.isClosedByService());
  EXPECT_TRUE(eventually([&] { return linesAbout(serving, "of another process") == 1; }));
}

// The refusal that this connection got, as "error: text".
std::string refusalTo(RawClient& client) {
  std::string bytes;
  for (std::string more = client.receive(); !more.empty(); more = client.receive()) bytes += more;
  FrameHeader header;
  if (bytes.size() < kFrameHeaderBytes) return "nothing came";
  if (!decodeHeader(reinterpret_cast<const unsigned char*>(bytes.data()), header).ok() ||
      header.kind != FrameKind::Refusal) {
    return "no refusal came";
  }
  Refusal refusal;
  EXPECT_TRUE(decode(bytes.substr(kFrameHeaderBytes), refusal).ok());
  return std::to_string(refusal.error) + ": " + refusal.text;
}

TEST_F(ServerTest, ConnectionsBeyondTheLimitAreToldSoAndLogged) {
  ServerOptions limited = options();
  limited.maxConnections = 2;
  Serving serving(limited);
  RawClient first(socketFile());
  RawClient second(socketFile());
  ASSERT_TRUE(second.send(RawClient::hello("second")));
  ASSERT_FALSE(second.receive().empty());
  RawClient third(socketFile());
  EXPECT_EQ(refusalTo(third), "11: no more than 2 connections in all, and they are in use");
  EXPECT_TRUE(eventually([&] { return linesAbout(serving, "refused a connection of pid") == 1; }));
  first.close();
  EXPECT_TRUE(eventually([&] {
    RawClient again(socketFile());
    return again.send(RawClient::hello("again", 3)) && !again.receive().empty();
  }));
}

TEST_F(ServerTest, ConnectionsOfOneProcessBeyondTheLimitAreToldSo) {
  ServerOptions limited = options();
  limited.maxConnectionsPerProcess = 1;
  Serving serving(limited);
  RawClient first(socketFile());
  RawClient second(socketFile());
  EXPECT_EQ(refusalTo(second), "11: no more than 1 connections for one process, and process " +
                                   std::to_string(::getpid()) + " has its share");
}

TEST_F(ServerTest, AnEndpointThatIsRefusedTellsItsCallerWhy) {
  ServerOptions limited = options();
  limited.maxConnections = 1;
  Serving serving(limited);
  RawClient first(socketFile());
  ASSERT_TRUE(first.send(RawClient::hello("first")));
  ASSERT_FALSE(first.receive().empty());
  EndpointOptions own;
  own.runtimeDir = dir.path();
  for (int i = 0; i < 50; ++i) {
    Endpoint endpoint("second", own);
    ConfigIF::ReadRsp response;
    ASSERT_EQ(endpoint.sendWaitResponse(ConfigIF::ReadReq(), &response, "ConfigSrvc"),
              kCallRefused);
    EXPECT_EQ(endpoint.lastRefusal(), "no more than 1 connections in all, and they are in use");
  }
}

TEST_F(ServerTest, WithoutDescriptorsConnectionsAreToldSoAndServedAgainLater) {
  Serving serving(dir.path());
  expectServed();
  // Its descriptors are closed by then; one of them would serve the unlucky one.
  ASSERT_TRUE(eventually([&] { return serving.gone().size() == 1; }));
  serving.onServer([](Server&) {});
  RawClient waiting(socketFile());
  ASSERT_TRUE(waiting.send(RawClient::hello("waiting")));
  ASSERT_FALSE(waiting.receive().empty());
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  RawClient unlucky(socketFile(), RawClient::Connect::Later);
  std::vector<Base::UniqueFd> taken;
  const rlimit few{static_cast<rlim_t>(unlucky.fd()) + 8, before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
  while (taken.empty() || taken.back()) taken.emplace_back(::open("/dev/null", O_RDONLY));
  unlucky.connect();
  EXPECT_EQ(refusalTo(unlucky), "11: the service is out of file descriptors");
  EXPECT_GE(linesAbout(serving, "refused a connection of pid " + std::to_string(::getpid()) +
                                    ", uid " + std::to_string(::getuid()) + ": "),
            1U);
  EXPECT_EQ(linesAbout(serving, "pid 0, uid 0"), 0U);
  taken.clear();
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
  // Who comes at this very moment may still be refused.
  EXPECT_TRUE(eventually([&] {
    RawClient again(socketFile());
    if (!again.send(RawClient::hello("again", 3))) return false;
    const std::string answer = again.receive();
    return answer.size() > 1 && answer[1] == static_cast<char>(FrameKind::Welcome);
  }));
}

TEST_F(ServerTest, WhoDoesNotGreetInTimeIsClosed) {
  ServerOptions hasty = options();
  hasty.greetingDeadline = std::chrono::milliseconds(20);
  Serving serving(hasty);
  RawClient client(socketFile());
  ASSERT_TRUE(client.send(RawClient::hello("slow").substr(0, 30)));
  EXPECT_TRUE(client.isClosedByService());
  EXPECT_TRUE(eventually([&] { return linesAbout(serving, "did not greet in time") == 1; }));
}

TEST_F(ServerTest, AFrameThatIsNotEndedInTimeEndsItsConnection) {
  ServerOptions hasty = options();
  hasty.frameDeadline = std::chrono::milliseconds(20);
  Serving serving(hasty);
  RawClient client(socketFile());
  ASSERT_TRUE(client.send(RawClient::hello("slow") + request(0x1A0110, "payload").substr(0, 27)));
  EXPECT_TRUE(client.isClosedByService());
  EXPECT_TRUE(eventually([&] { return linesAbout(serving, "did not end a frame in time") == 1; }));
  expectServed();
}

TEST_F(ServerTest, ConnectionsOfOnePeerBeyondTheLimitAreRefused) {
  ServerOptions limited = options();
  limited.maxConnectionsPerPeer = 1;
  Serving serving(limited);
  RawClient first(socketFile());
  ASSERT_TRUE(first.send(RawClient::hello("greedy")));
  ASSERT_FALSE(first.receive().empty());
  RawClient second(socketFile());
  ASSERT_TRUE(second.send(RawClient::hello("greedy")));
  EXPECT_TRUE(second.isClosedByService());
  EXPECT_EQ(linesAbout(serving, "which is the limit"), 1U);
}

constexpr std::size_t kLongAnswer = 300000;

void answerAtLength(Server& server, const Serving::Request& read) {
  ConfigIF::ReadRsp response;
  response.add_values(std::string(kLongAnswer, 'x'));
  server.respond(read.id, response, 1);
}

TEST_F(ServerTest, WhoDoesNotReadItsAnswersIsNotListenedToUntilItDoes) {
  Serving serving(dir.path());
  serving.onRequestDo = answerAtLength;
  RawClient client(socketFile());
  std::string bytes = RawClient::hello("deaf");
  for (int i = 0; i < 200; ++i) bytes += request(0x1A0110, "");
  ASSERT_TRUE(client.send(bytes));
  ASSERT_TRUE(eventually([&] { return !serving.requests().empty(); }));
  serving.onServer([](Server&) {});
  // One answer fills the socket, the next the room; a few may pass while they are written.
  EXPECT_LT(serving.requests().size(), 8U);
  std::size_t read = 0;
  while (read < 200 * kLongAnswer) read += client.receive().size();
  EXPECT_EQ(serving.requests().size(), 200U);
  EXPECT_TRUE(serving.log().empty());
}

TEST_F(ServerTest, WhoseAnswersPileUpIsClosedAtTheLimit) {
  ServerOptions limited = options();
  limited.maxAnswerBytes = 1 << 20;
  Serving serving(limited);
  serving.onRequestDo = [](Server&, const Serving::Request&) {};
  RawClient client(socketFile());
  std::string bytes = RawClient::hello("deaf");
  for (int i = 0; i < 20; ++i) bytes += request(0x1A0110, "");
  ASSERT_TRUE(client.send(bytes));
  ASSERT_TRUE(eventually([&] { return serving.requests().size() == 20; }));
  serving.onServer([&](Server& server) {
    for (const Serving::Request& read : serving.requests()) answerAtLength(server, read);
  });
  EXPECT_TRUE(eventually([&] { return linesAbout(serving, "does not read its answers") == 1; }));
}

// A header is cheap: who says that much will come takes no more than what came.
TEST_F(ServerTest, AnUnfinishedFrameCountsForWhatHasComeOfIt) {
  ServerOptions limited = options();
  limited.bufferedBytes.perProcess = 1 << 20;
  Serving serving(limited);
  RawClient client(socketFile());
  ASSERT_TRUE(client.send(RawClient::hello("promising")));
  ASSERT_FALSE(client.receive().empty());
  const std::string frame = request(0x1A0140, std::string(std::size_t{2} << 20, 'x'));
  for (std::size_t at = 0; at < 100'000; at += 20'000) {
    ASSERT_TRUE(client.send(frame.substr(at, 20'000)));
    ASSERT_TRUE(eventually([&] { return isRead(client); }));
  }
  serving.onServer([](Server&) {});
  EXPECT_EQ(linesAbout(serving, "\"promising\""), 0U);
  ASSERT_TRUE(client.send("x"));
}

TEST_F(ServerTest, ABufferThatAFrameMadeGrowIsGivenBackWithTheFrame) {
  ServerOptions limited = options();
  limited.bufferedBytes.perProcess = 8 << 10;
  Serving serving(limited);
  std::vector<std::unique_ptr<RawClient>> clients;
  for (unsigned char i = 1; i <= 6; ++i) {
    RawClient& client = *clients.emplace_back(std::make_unique<RawClient>(socketFile()));
    ASSERT_TRUE(client.send(RawClient::hello("client", i)));
    ASSERT_FALSE(client.receive().empty());
    const std::string frame = request(0x1A0140, std::string(2000, 'x'));
    ASSERT_TRUE(client.send(frame.substr(0, 1500)));
    ASSERT_TRUE(eventually([&] { return isRead(client); }));
    ASSERT_TRUE(client.send(frame.substr(1500)));
    ASSERT_TRUE(eventually([&] { return serving.requests().size() == i; }));
  }
  EXPECT_EQ(linesAbout(serving, "\"client\""), 0U);
}

TEST_F(ServerTest, OfAllThatWaitsTheGreediestConnectionIsClosedAndTheOthersAreNot) {
  ServerOptions limited = options();
  limited.bufferedBytes.perProcess = 1 << 20;
  Serving serving(limited);
  serving.onRequestDo = answerAtLength;
  RawClient modest(socketFile());
  ASSERT_TRUE(modest.send(RawClient::hello("modest", 1) + request(0x1A0110, "")));
  ASSERT_TRUE(eventually([&] { return serving.requests().size() == 1; }));
  RawClient greedy(socketFile());
  std::string frame = request(0x1A0140, std::string(std::size_t{2} << 20, 'x'));
  ASSERT_TRUE(greedy.send(RawClient::hello("greedy", 2)));
  ASSERT_FALSE(greedy.receive().empty());
  std::thread sender([&] { greedy.send(frame.substr(0, frame.size() - 1)); });
  EXPECT_TRUE(greedy.isClosedByService());
  sender.join();
  EXPECT_EQ(linesAbout(serving, "\"greedy\""), 1U);
  EXPECT_EQ(linesAbout(serving, "\"modest\""), 0U);
  std::size_t read = 0;
  while (read < kLongAnswer) read += modest.receive().size();
}

TEST_F(ServerTest, WhoFloodsTheServerDelaysOthersByATurnAlone) {
  Serving serving(dir.path());
  std::promise<void> bothHaveSent;
  std::shared_future<void> released = bothHaveSent.get_future().share();
  serving.onRequestDo = [released](Server& server, const Serving::Request& read) {
    released.wait();
    server.respond(read.id, ConfigIF::ReadRsp(), 1);
  };
  RawClient flooder(socketFile());
  std::string bytes = RawClient::hello("flooder", 1);
  for (int i = 0; i < 2000; ++i) bytes += request(0x1A0110, "");
  ASSERT_TRUE(flooder.send(bytes));
  RawClient other(socketFile());
  ASSERT_TRUE(other.send(RawClient::hello("other", 2) + request(0x1A0110, "")));
  bothHaveSent.set_value();
  ASSERT_TRUE(eventually([&] { return serving.requests().size() == 2001; }));
  const std::vector<Serving::Request> requests = serving.requests();
  const auto itsTurn =
      std::find_if(requests.begin(), requests.end(),
                   [](const Serving::Request& request) { return request.peer.name == "other"; });
  ASSERT_NE(itsTurn, requests.end());
  EXPECT_LT(itsTurn - requests.begin(), 4 * 32);
}

// A connection that has not waited for the rest of a frame so far has no timer to end.
TEST_F(ServerTest, ATimerOutlivesTheConnectionsThatCome) {
  Serving serving(options());
  std::promise<void> rung;
  serving.onServer([&](Server& server) {
    server.after(std::chrono::milliseconds(200), [&] { rung.set_value(); });
  });
  RawClient client(socketFile());
  ASSERT_TRUE(client.send(RawClient::hello("client") + request(0x1A0110, "").substr(0, 10)));
  ASSERT_FALSE(client.receive().empty());
  EXPECT_EQ(rung.get_future().wait_for(TestSupport::kPatience), std::future_status::ready);
}

// Requests that a handler has taken and does not answer until it is told to.
class OpenRequestsTest : public ServerTest {
 protected:
  static std::string oneWay(int number) {
    FrameHeader header;
    header.kind = FrameKind::OneWay;
    header.messageId = 0x1A0140;
    header.sequence = static_cast<std::uint32_t>(number);
    return RawClient::frame(header, "");
  }
  static std::string oneWays(int count) {
    std::string bytes;
    for (int i = 0; i < count; ++i) bytes += oneWay(i);
    return bytes;
  }
  static void answerLater(Server& server, const Serving::Request& taken) {
    server.after(std::chrono::milliseconds(1),
                 [&server, id = taken.id] { server.respond(id, ConfigIF::WriteRsp(), 1); });
  }
};

TEST_F(OpenRequestsTest, PastTheLimitOfAPeerWaitAndTheOtherPeersDoNot) {
  ServerOptions limited = options();
  limited.maxOpenRequests = 4;
  Serving serving(limited);
  serving.onRequestDo = [](Server& server, const Serving::Request& taken) {
    if (taken.messageId == 0x1A0110) server.respond(taken.id, ConfigIF::ReadRsp(), 1);
  };
  RawClient client(socketFile());
  ASSERT_TRUE(client.send(RawClient::hello("flooder", 1) + oneWays(10)));
  ASSERT_TRUE(eventually([&] { return serving.requests().size() == 4; }));
  RawClient other(socketFile());
  ASSERT_TRUE(other.send(RawClient::hello("other", 2) + request(0x1A0110, "")));
  ASSERT_TRUE(eventually([&] { return serving.requests().size() == 5; }));
  EXPECT_EQ(serving.requests()[4].peer.name, "other");
  for (std::size_t answered = 0; answered < 4; ++answered) {
    serving.onServer([&](Server& server) {
      server.respond(serving.requests()[answered].id, ConfigIF::WriteRsp(), 1);
    });
    EXPECT_TRUE(eventually([&] { return serving.requests().size() == 6 + answered; }));
  }
}

TEST_F(OpenRequestsTest, PastTheirBytesWaitToo) {
  ServerOptions limited = options();
  limited.maxOpenRequestBytes = 1000;
  Serving serving(limited);
  serving.onRequestDo = answerLater;
  RawClient client(socketFile());
  std::string bytes = RawClient::hello("flooder");
  for (int i = 0; i < 10; ++i) bytes += request(0x1A0140, std::string(900, 'x'));
  ASSERT_TRUE(client.send(bytes));
  EXPECT_TRUE(eventually([&] { return serving.requests().size() == 10; }));
}

TEST_F(OpenRequestsTest, FromInsideAReceiverDoNotWait) {
  ServerOptions limited = options();
  limited.maxOpenRequests = 2;
  Serving serving(limited);
  serving.onRequestDo = [](Server&, const Serving::Request&) {};
  RawClient client(socketFile());
  ASSERT_TRUE(client.send(RawClient::hello("provider", 1) + oneWays(10)));
  ASSERT_TRUE(eventually([&] { return serving.requests().size() == 2; }));
  FrameHeader header;
  header.kind = FrameKind::Request;
  header.flags = kFlagInsideReceiver;
  header.messageId = 0x1A0110;
  RawClient inside(socketFile());
  ASSERT_TRUE(inside.send(RawClient::hello("provider", 1) + RawClient::frame(header, "")));
  ASSERT_TRUE(eventually([&] { return serving.requests().size() == 3; }));
  EXPECT_TRUE(serving.requests()[2].insideReceiver);
}

TEST_F(OpenRequestsTest, OfAClientThatSendsAndLeavesAreAllTaken) {
  ServerOptions limited = options();
  limited.maxOpenRequests = 16;
  Serving serving(limited);
  serving.onRequestDo = answerLater;
  {
    RawClient client(socketFile());
    ASSERT_TRUE(client.send(RawClient::hello("hurried")));
    ASSERT_FALSE(client.receive().empty());
    ASSERT_TRUE(client.send(oneWays(1000)));
  }
  EXPECT_TRUE(eventually([&] { return serving.requests().size() == 1000; }));
  EXPECT_TRUE(eventually([&] { return serving.gone().size() == 1; }));
  EXPECT_TRUE(serving.log().empty());
}

TEST_F(ServerTest, AProviderThatDoesNotAnswerIsAskedNoMoreThanTheLimit) {
  ServerOptions limited = options();
  limited.maxOpenQuestions = 2;
  Serving serving(limited);
  RawClient client(socketFile());
  ASSERT_TRUE(client.send(RawClient::hello("mute", 1, ConnectionUse::Delivery)));
  ASSERT_TRUE(eventually([&] { return serving.readyPeer() != 0; }));
  const std::uint32_t first = serving.ask(serving.readyPeer(), ConfigIF::DynamicValidateReq());
  EXPECT_NE(serving.ask(serving.readyPeer(), ConfigIF::DynamicValidateReq()), 0U);
  EXPECT_EQ(serving.ask(serving.readyPeer(), ConfigIF::DynamicValidateReq()), 0U);
  EXPECT_EQ(linesAbout(serving, "it has 2 questions to answer"), 1U);
  FrameHeader done;
  done.kind = FrameKind::Done;
  done.sequence = first;
  ASSERT_TRUE(client.send(RawClient::frame(done, "")));
  ASSERT_TRUE(eventually([&] { return !serving.questions().empty(); }));
  EXPECT_NE(serving.ask(serving.readyPeer(), ConfigIF::DynamicValidateReq()), 0U);
}

TEST_F(ServerTest, ATaskThatWaitsForRoomRunsOnceThereIsSomeAndBeforeTheNextRequest) {
  Serving serving(dir.path());
  std::atomic<bool> ran{false};
  std::atomic<std::size_t> requestsBefore{0};
  serving.onRequestDo = [&](Server& server, const Serving::Request& taken) {
    if (serving.requests().size() > 1) return answerAtLength(server, taken);
    while (server.hasRoom(taken.id)) answerAtLength(server, taken);
    server.whenRoom(taken.id, [&] {
      requestsBefore = serving.requests().size();
      ran = true;
    });
  };
  RawClient client(socketFile());
  ASSERT_TRUE(
      client.send(RawClient::hello("slow") + request(0x1A0110, "") + request(0x1A0110, "")));
  ASSERT_TRUE(eventually([&] { return serving.requests().size() == 1; }));
  serving.onServer([](Server&) {});
  EXPECT_FALSE(ran);
  while (!ran) ASSERT_FALSE(client.receive().empty());
  EXPECT_EQ(requestsBefore, 1U);
  while (serving.requests().size() < 2) ASSERT_FALSE(client.receive().empty());
}

TEST_F(ServerTest, WhoNeverReadsItsNoticesIsClosedAtTheLimit) {
  ServerOptions limited = options();
  limited.maxNotices = 100;
  Serving serving(limited);
  RawClient client(socketFile());
  ASSERT_TRUE(client.send(RawClient::hello("deaf", 1, ConnectionUse::Delivery)));
  ASSERT_TRUE(eventually([&] { return serving.readyPeer() != 0; }));
  ConfigIF::ConfigChangedNtfy notice;
  notice.mutable_value()->add_values(std::string(10000, 'x'));
  serving.onServer([&](Server& server) {
    for (int i = 0; i < 1000; ++i) {
      server.notify(serving.readyPeer(), notice, 1, std::to_string(i));
    }
  });
  EXPECT_TRUE(eventually([&] { return linesAbout(serving, "does not read its notices") == 1; }));
}

// In one task, its connection gets something to write and turns out to be dead.
TEST_F(ServerTest, WhoDiesWhileItIsToldSomethingIsBuriedAndTheServerServesOn) {
  Serving serving(options());
  RawClient client(socketFile());
  ASSERT_TRUE(client.send(RawClient::hello("dying", 1, ConnectionUse::Delivery)));
  ASSERT_TRUE(eventually([&] { return serving.readyPeer() != 0; }));
  ConfigIF::ConfigChangedNtfy notice;
  notice.mutable_value()->add_values(std::string(10000, 'x'));
  serving.onServer([&](Server& server) {
    server.after(std::chrono::milliseconds(0), [&] {
      client.close();
      server.notify(serving.readyPeer(), notice, 1, "key");
    });
  });
  EXPECT_TRUE(eventually([&] { return serving.gone().size() == 1; }));
  expectServed();
}

TEST_F(ServerTest, ASecondServerOfTheNameIsRefusedAndTheFirstServesOn) {
  Serving serving(dir.path());
  {
    Server second(options(), serving);
    EXPECT_THAT(second.open().text, HasSubstr("another service already serves"));
    expectServed();
  }
  // Nor does its end take the socket away.
  expectServed();
}

TEST_F(ServerTest, ADescriptorThatIsNoneIsNoListeningSocket) {
  Serving elsewhere(dir.file("x"));
  ServerOptions adopts = options();
  adopts.listenFd = 1 << 20;  // More than a process may open here.
  Server server(adopts, elsewhere);
  EXPECT_THAT(server.open().text, HasSubstr("cannot use the listening socket 1048576"));
}

TEST_F(ServerTest, ASocketFileThatADeadServerLeftIsReplaced) {
  {
    // What a killed server leaves: a socket file that nobody listens at.
    Base::UniqueFd dead(::socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socketFile().copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(dead.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  }
  Serving serving(dir.path());
  expectServed();
}

TEST_F(ServerTest, AFileInTheSocketsPlaceIsReportedAndLeftAlone) {
  std::ofstream(socketFile()) << "precious";
  Serving elsewhere(dir.file("x"));
  Server server(options(), elsewhere);
  EXPECT_THAT(server.open().text, HasSubstr("is in the way and is no socket"));
  std::string content;
  std::ifstream(socketFile()) >> content;
  EXPECT_EQ(content, "precious");
}

TEST_F(ServerTest, TheSocketGoesWithTheServer) {
  struct stat status {};
  {
    Serving serving(dir.path());
    ASSERT_EQ(::stat(socketFile().c_str(), &status), 0);
    EXPECT_TRUE(S_ISSOCK(status.st_mode));
  }
  EXPECT_NE(::stat(socketFile().c_str(), &status), 0);
}

TEST_F(ServerTest, TimersRunInTheirOrderAndNotWhenCancelled) {
  Serving serving(dir.path());
  std::vector<int> order;
  std::atomic<bool> ended{false};
  serving.onServer([&](Server& server) {
    server.after(std::chrono::milliseconds(20), [&] {
      order.push_back(2);
      ended = true;
    });
    const auto cancelled = server.after(std::chrono::milliseconds(5), [&] { order.push_back(9); });
    server.after(std::chrono::milliseconds(1), [&] { order.push_back(1); });
    server.cancel(cancelled);
  });
  EXPECT_TRUE(eventually([&] { return ended.load(); }));
  EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

}  // namespace
}  // namespace PbUtility
