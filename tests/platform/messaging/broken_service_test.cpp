// Services that break off at every point of an exchange, and services that fall silent there: a call
// ends at once or at its deadline, with a status that tells which, and without a signal. The next
// call, once the service is well, simply works.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <ostream>
#include <thread>

#include "base/unique_fd.h"
#include "platform/messaging/endpoint.h"
#include "platform/messaging/wire/frame.h"
#include "platform/messaging/wire/internal/frame_bytes.h"
#include "platform/schema/config_if.pb.h"
#include "tests/support/eventually.h"
#include "tests/support/serving.h"
#include "tests/support/temp_dir.h"

namespace PbUtility {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

const std::string kServiceName = "ConfigSrvc";
constexpr milliseconds kHasty(150);

std::string frame(FrameKind kind, std::uint32_t messageId, std::uint32_t sequence,
                  std::string_view payload) {
  FrameHeader header;
  header.kind = kind;
  header.messageId = messageId;
  header.sequence = sequence;
  std::string bytes;
  appendFrame(header, payload, bytes);
  return bytes;
}

// One client's connection, in the hands of a service that misbehaves.
class Peer {
 public:
  explicit Peer(int fd) : fd_(fd) {}

  // A whole frame; false when the client has gone.
  bool take() {
    unsigned char bytes[kFrameHeaderBytes];
    FrameHeader header;
    if (::recv(fd_, bytes, sizeof bytes, MSG_WAITALL) != static_cast<ssize_t>(sizeof bytes)) {
      return false;
    }
    if (!decodeHeader(bytes, header).ok()) return false;
    sequence_ = header.sequence;
    std::string payload(header.payloadBytes, '\0');
    return payload.empty() || ::recv(fd_, payload.data(), payload.size(), MSG_WAITALL) > 0;
  }
  void give(const std::string& bytes) const {
    static_cast<void>(!::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL));
  }
  void welcome() {
    take();
    Welcome welcome;
    welcome.epoch = 1;
    give(frame(FrameKind::Welcome, 0, 0, encode(welcome)));
  }
  std::string answer(std::uint32_t sequence) const {
    ConfigIF::ReadRsp response;
    response.add_values("a value");
    return frame(FrameKind::Response, 0x1A0111, sequence, response.SerializeAsString());
  }
  std::uint32_t sequence() const { return sequence_; }
  // Until the client has gone.
  void fallSilent() const {
    char byte = 0;
    while (::recv(fd_, &byte, 1, 0) > 0) continue;
  }

 private:
  const int fd_;
  std::uint32_t sequence_ = 0;
};

// Listens, and treats each connection with the same script, then closes it.
class BadService {
 public:
  BadService(const std::string& directory, std::function<void(Peer&)> script)
      : script_(std::move(script)) {
    listener_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = directory + "/" + kServiceName;
    std::memcpy(address.sun_path, path.data(), path.size());
    ::unlink(path.c_str());
    EXPECT_EQ(::bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
              0);
    EXPECT_EQ(::listen(listener_.get(), 16), 0);
    thread_ = std::thread([this] { serve(); });
  }
  ~BadService() {
    over_ = true;
    ::shutdown(listener_.get(), SHUT_RDWR);
    thread_.join();
    for (const Base::UniqueFd& connection : connections_) ::shutdown(connection.get(), SHUT_RDWR);
    for (std::thread& peer : peers_) peer.join();
  }

 private:
  void serve() {
    while (!over_) {
      const int fd = ::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0) continue;
      connections_.emplace_back(fd);
      peers_.emplace_back([this, fd] {
        Peer peer(fd);
        script_(peer);
        ::shutdown(fd, SHUT_RDWR);
      });
    }
  }

  const std::function<void(Peer&)> script_;
  Base::UniqueFd listener_;
  std::atomic<bool> over_{false};
  std::vector<Base::UniqueFd> connections_;
  std::vector<std::thread> peers_;
  std::thread thread_;
};

struct Case {
  const char* name;
  void (*script)(Peer& peer);
  CallStatus status;
  // It ends at the deadline, and not before.
  bool silent = false;

  friend std::ostream& operator<<(std::ostream& out, const Case& broken) {
    return out << broken.name;
  }
};

const Case kCases[] = {
    {"ClosesAtOnce", [](Peer&) {}, kCallServiceDied},
    {"ClosesAfterTheGreeting", [](Peer& peer) { peer.take(); }, kCallServiceDied},
    {"ClosesInTheWelcome",
     [](Peer& peer) {
       peer.take();
       peer.give(frame(FrameKind::Welcome, 0, 0, encode(Welcome())).substr(0, 27));
     },
     kCallServiceDied},
    {"ClosesAfterTheWelcome", [](Peer& peer) { peer.welcome(); }, kCallServiceDied},
    {"ClosesAfterTheRequest",
     [](Peer& peer) {
       peer.welcome();
       peer.take();
     },
     kCallServiceDied},
    {"ClosesInTheAnswersHeader",
     [](Peer& peer) {
       peer.welcome();
       peer.take();
       peer.give(peer.answer(peer.sequence()).substr(0, 5));
     },
     kCallServiceDied},
    {"ClosesInTheAnswersPayload",
     [](Peer& peer) {
       peer.welcome();
       peer.take();
       peer.give(peer.answer(peer.sequence()).substr(0, kFrameHeaderBytes + 3));
     },
     kCallServiceDied},
    {"GreetsWithGarbage",
     [](Peer& peer) {
       peer.take();
       peer.give(std::string(64, '\xFF'));
       peer.fallSilent();
     },
     kCallBrokenAnswer},
    {"GreetsWithAnAnswer",
     [](Peer& peer) {
       peer.take();
       peer.give(peer.answer(0));
       peer.fallSilent();
     },
     kCallBrokenAnswer},
    {"AnswersAnotherRequest",
     [](Peer& peer) {
       peer.welcome();
       peer.take();
       peer.give(peer.answer(peer.sequence() + 1));
       peer.fallSilent();
     },
     kCallBrokenAnswer},
    {"AnswersTwice",
     [](Peer& peer) {
       peer.welcome();
       peer.take();
       peer.give(peer.answer(peer.sequence()) + peer.answer(peer.sequence()));
       peer.fallSilent();
     },
     kCallBrokenAnswer},
    {"AnswersWithTooLongAFrame",
     [](Peer& peer) {
       peer.welcome();
       peer.take();
       std::string bytes = peer.answer(peer.sequence());
       bytes[15] = '\x7F';
       peer.give(bytes);
       peer.fallSilent();
     },
     kCallBrokenAnswer},
    {"AnswersWithWhatCannotBeParsed",
     [](Peer& peer) {
       peer.welcome();
       peer.take();
       peer.give(frame(FrameKind::Response, 0x1A0111, peer.sequence(), "\x0A\x7F"));
       peer.fallSilent();
     },
     kCallBrokenAnswer},
    {"NeverWelcomes", [](Peer& peer) { peer.fallSilent(); }, kCallTimedOut, true},
    {"FallsSilentInTheWelcome",
     [](Peer& peer) {
       peer.take();
       peer.give(frame(FrameKind::Welcome, 0, 0, encode(Welcome())).substr(0, 27));
       peer.fallSilent();
     },
     kCallTimedOut, true},
    {"NeverAnswers",
     [](Peer& peer) {
       peer.welcome();
       peer.fallSilent();
     },
     kCallTimedOut, true},
    {"FallsSilentInTheAnswersHeader",
     [](Peer& peer) {
       peer.welcome();
       peer.take();
       peer.give(peer.answer(peer.sequence()).substr(0, 5));
       peer.fallSilent();
     },
     kCallTimedOut, true},
    {"FallsSilentInTheAnswersPayload",
     [](Peer& peer) {
       peer.welcome();
       peer.take();
       peer.give(peer.answer(peer.sequence()).substr(0, kFrameHeaderBytes + 3));
       peer.fallSilent();
     },
     kCallTimedOut, true},
    // Each byte comes in time; the answer does not.
    {"AnswersTooSlowly",
     [](Peer& peer) {
       peer.welcome();
       peer.take();
       const std::string bytes = peer.answer(peer.sequence());
       for (const char byte : bytes) {
         peer.give(std::string(1, byte));
         std::this_thread::sleep_for(kHasty / 8);
       }
       peer.fallSilent();
     },
     kCallTimedOut, true},
};

class BrokenServiceTest : public testing::TestWithParam<Case> {
 protected:
  // The default action of SIGPIPE ends the process, and with it this test.
  BrokenServiceTest() { ::signal(SIGPIPE, SIG_DFL); }

  EndpointOptions options(milliseconds deadline) const {
    EndpointOptions made;
    made.runtimeDir = dir_.path();
    made.deadline = deadline;
    return made;
  }
  static int read(Endpoint& endpoint) {
    ConfigIF::ReadReq request;
    request.set_client_name("me");
    ConfigIF::ReadRsp response;
    return endpoint.sendWaitResponse(request, &response, kServiceName);
  }
  static int registerFor(Endpoint& endpoint) {
    ConfigIF::RegisterClientCallbackReq request;
    request.set_client_name("me");
    request.set_name("net");
    ConfigIF::RegisterClientCallbackRsp response;
    return endpoint.sendWaitResponse(request, &response, kServiceName);
  }

  TestSupport::TempDir dir_;
};

TEST_P(BrokenServiceTest, ACallEndsWithTheStatusThatTellsHow) {
  // At once: its deadline is an hour away.
  Endpoint endpoint("ui", options(GetParam().silent ? kHasty : milliseconds(hours(1))));
  {
    BadService service(dir_.path(), GetParam().script);
    const auto before = steady_clock::now();
    EXPECT_EQ(read(endpoint), GetParam().status);
    if (GetParam().silent) {
      EXPECT_GE(steady_clock::now() - before, kHasty);
    }
    EXPECT_FALSE(endpoint.lastRefusal().empty());
  }
  ::unlink((dir_.path() + "/" + kServiceName).c_str());
  TestSupport::Serving well(dir_.path());
  EXPECT_EQ(read(endpoint), kCallOk);
}

TEST_P(BrokenServiceTest, ARegistrationEndsAndIsMadeOnceTheServiceIsWell) {
  Endpoint endpoint("ui", options(kHasty));
  {
    BadService service(dir_.path(), GetParam().script);
    EXPECT_NE(registerFor(endpoint), kCallOk);
  }
  ::unlink((dir_.path() + "/" + kServiceName).c_str());
  TestSupport::Serving well(dir_.path());
  EXPECT_TRUE(TestSupport::eventually([&] { return !well.requests().empty(); }));
  EXPECT_TRUE(endpoint.waitUntilConnected(kServiceName, TestSupport::kPatience));
}

INSTANTIATE_TEST_SUITE_P(Service, BrokenServiceTest, testing::ValuesIn(kCases),
                         [](const auto& broken) { return broken.param.name; });

class NoServiceTest : public BrokenServiceTest {};

// Nobody takes the connections off the backlog, and it is full.
TEST_F(NoServiceTest, AFullBacklogEndsACallAtItsDeadline) {
  const Base::UniqueFd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = dir_.path() + "/" + kServiceName;
  std::memcpy(address.sun_path, path.data(), path.size());
  const auto* generic = reinterpret_cast<const sockaddr*>(&address);
  ASSERT_EQ(::bind(listener.get(), generic, sizeof address), 0);
  ASSERT_EQ(::listen(listener.get(), 0), 0);
  std::vector<Base::UniqueFd> waiting;
  for (int error = 0; error == 0;) {
    waiting.emplace_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    error = ::connect(waiting.back().get(), generic, sizeof address) == 0 ? 0 : errno;
  }
  Endpoint endpoint("ui", options(kHasty));
  const auto before = steady_clock::now();
  EXPECT_EQ(read(endpoint), kCallTimedOut);
  EXPECT_GE(steady_clock::now() - before, kHasty);
  EXPECT_EQ(registerFor(endpoint), kCallTimedOut);
}

TEST_F(NoServiceTest, ARuntimeDirectoryThatVanishesEndsACallAtOnce) {
  Endpoint endpoint("ui", options(hours(1)));
  {
    TestSupport::Serving serving(dir_.path());
    EXPECT_EQ(read(endpoint), kCallOk);
    EXPECT_EQ(::rename(dir_.path().c_str(), (dir_.path() + ".gone").c_str()), 0);
    // What is connected stays so.
    EXPECT_EQ(read(endpoint), kCallOk);
  }
  EXPECT_EQ(read(endpoint), kCallNoService);
  EXPECT_EQ(registerFor(endpoint), kCallNoService);
  EXPECT_EQ(::rename((dir_.path() + ".gone").c_str(), dir_.path().c_str()), 0);
  TestSupport::Serving serving(dir_.path());
  EXPECT_EQ(read(endpoint), kCallOk);
  EXPECT_TRUE(endpoint.waitUntilConnected(kServiceName, TestSupport::kPatience));
}

// The descriptors that this process still may have.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(rlim_t more) {
    ::getrlimit(RLIMIT_NOFILE, &before_);
    const Base::UniqueFd next(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    const rlimit few{static_cast<rlim_t>(next.get()) + more, before_.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &few);
  }
  ~DescriptorLimit() { ::setrlimit(RLIMIT_NOFILE, &before_); }
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;

 private:
  rlimit before_{};
};

TEST_F(NoServiceTest, AnEndpointMadeWithoutADescriptorToSpareFailsItsCallsAndRecovers) {
#ifdef APPCONFIG_SANITIZE_ADDRESS
  GTEST_SKIP() << "the sanitizer opens pipes to look at objects, and takes none for a fault";
#endif
  TestSupport::Serving serving(dir_.path());
  std::unique_ptr<Endpoint> endpoint;
  {
    const DescriptorLimit none(0);
    endpoint = std::make_unique<Endpoint>("ui", options(hours(1)));
    EXPECT_EQ(read(*endpoint), kCallBadEndpoint);
    EXPECT_EQ(registerFor(*endpoint), kCallBadEndpoint);
    EXPECT_NE(endpoint->lastRefusal(), "");
  }
  EXPECT_EQ(read(*endpoint), kCallOk);
  EXPECT_TRUE(endpoint->waitUntilConnected(kServiceName, TestSupport::kPatience));
  // And ends, though nothing could wake its thread.
}

}  // namespace
}  // namespace PbUtility
