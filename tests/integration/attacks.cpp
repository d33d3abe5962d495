// A process that attacks has its connections in one poll loop: each sends its volley as fast as the
// service takes it, and drops what comes back, or leaves it unread.
#include "tests/integration/attacks.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "base/unique_fd.h"
#include "platform/messaging/wire/internal/frame_bytes.h"
#include "platform/schema/config_if.pb.h"
#include "tests/support/load.h"

namespace TestSupport {
namespace {

using PbUtility::ConnectionUse;
using PbUtility::FrameHeader;
using PbUtility::FrameKind;

constexpr std::size_t kBatchEntries = 1024;
constexpr std::size_t kPipelined = 64;
constexpr std::size_t kValueBytes = (std::size_t{1} << 20) - 1024;
constexpr const char* kAttackedGroup = "load.g10";

std::string frameOf(const google::protobuf::MessageLite& message) {
  FrameHeader header;
  header.revision = PbUtility::kRevisionNow;
  std::string bytes;
  PbUtility::encodeFrame(header, message, bytes);
  return bytes;
}

std::string times(std::size_t count, const std::string& bytes) {
  std::string all;
  for (std::size_t i = 0; i < count; ++i) all += bytes;
  return all;
}

void nameAttacked(ConfigIF::Inst* inst, std::size_t variable) {
  const std::string key = loadVariable(variable);
  const std::size_t dot = key.rfind('.');
  inst->add_path()->set_name(key.substr(0, dot));
  inst->add_path()->set_name(key.substr(dot + 1));
}

std::string readFrame(std::size_t variable) {
  ConfigIF::ReadReq request;
  nameAttacked(request.mutable_inst(), variable);
  return frameOf(request);
}

std::string batchFrame() {
  ConfigIF::BatchReadReq request;
  for (std::size_t i = 0; i < kBatchEntries; ++i) nameAttacked(request.add_inst(), i);
  return frameOf(request);
}

std::string writeFrame(std::size_t variable, const std::string& value) {
  ConfigIF::WriteReq request;
  request.set_role(CommonIF::SECURITY_ROLE_USER);
  nameAttacked(request.mutable_value()->mutable_inst(), variable);
  request.mutable_value()->add_values(value);
  return frameOf(request);
}

template <typename Request>
std::string registration(const std::string& name, ConfigIF::CallbackType type) {
  Request request;
  request.set_role(CommonIF::SECURITY_ROLE_USER);
  request.set_name(name);
  request.set_type(type);
  request.set_endpoint_name("attack");
  return frameOf(request);
}

template <typename Request>
std::string registrations(std::size_t count) {
  std::string bytes;
  for (std::size_t i = 0; i < count; ++i)
    bytes += registration<Request>("load.x" + std::to_string(i), ConfigIF::CALLBACK_VALUE_CHANGED);
  return bytes;
}

// A variable of its own for each connection.
std::size_t ownVariable(int process, int connection) {
  return kAttackedVariable + static_cast<std::size_t>(process * 100 + connection);
}

Volley requests(std::string bytes) { return {ConnectionUse::Requests, std::move(bytes)}; }

Volley longWrite(int process, int connection) {
  const std::size_t variable = ownVariable(process, connection);
  return requests(writeFrame(variable, std::string(kValueBytes, 'a')) +
                  writeFrame(variable, std::string(kValueBytes, 'b')));
}

// The first connection of the first process provides the group and never answers; the others write.
Volley deafProvider(int process, int connection) {
  if (process == 0 && connection == 0) {
    return {ConnectionUse::Delivery, registration<ConfigIF::RegisterClientCallbackReq>(
                                         kAttackedGroup, ConfigIF::CALLBACK_DYNAMIC_VALIDATE)};
  }
  std::string bytes;
  for (std::size_t i = 0; i < kPipelined; ++i)
    bytes += writeFrame(kAttackedVariable + i, std::to_string(process * 1000 + connection));
  return requests(bytes);
}

class Attacker {
 public:
  Attacker(const Attack& attack, const std::string& socket, int process, int number)
      : attack_(attack),
        socket_(socket),
        volley_(attack.volley(process, number)),
        number_(number) {}

  // What poll is to wait for.
  pollfd waits() {
    if (!fd_) connect();
    const bool sends = sent_ < outgoing_.size();
    return {fd_.get(), static_cast<short>((attack_.reads ? POLLIN : 0) | (sends ? POLLOUT : 0)), 0};
  }

  void go(short events) {
    if ((events & (POLLIN | POLLHUP | POLLERR)) != 0 && !drop()) return fd_.reset();
    if ((events & POLLOUT) != 0) send();
  }

 private:
  void connect() {
    fd_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socket_.copy(address.sun_path, sizeof address.sun_path - 1);
    // A full backlog: the next time around.
    if (::connect(fd_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
      return fd_.reset();
    outgoing_ = hello() + volley_.bytes;
    sent_ = 0;
  }

  std::string hello() const {
    PbUtility::Hello hello;
    hello.use = volley_.use;
    hello.name = "attacker";
    const std::uint64_t token =
        (static_cast<std::uint64_t>(::getpid()) << 16) + static_cast<std::uint64_t>(number_);
    std::memcpy(hello.token.data(), &token, sizeof token);
    FrameHeader header;
    header.kind = FrameKind::Hello;
    std::string bytes;
    PbUtility::appendFrame(header, encode(hello), bytes);
    return bytes;
  }

  // False when the connection has ended.
  bool drop() {
    char bytes[65536];
    const ssize_t got = ::recv(fd_.get(), bytes, sizeof bytes, 0);
    return got > 0 || (got < 0 && errno == EAGAIN);
  }

  void send() {
    const ssize_t now =
        ::send(fd_.get(), outgoing_.data() + sent_, outgoing_.size() - sent_, MSG_NOSIGNAL);
    if (now < 0 && errno != EAGAIN) return fd_.reset();
    sent_ += now > 0 ? static_cast<std::size_t>(now) : 0;
    if (sent_ == outgoing_.size()) sentAll();
  }

  void sentAll() {
    if (attack_.afterwards == Afterwards::Leave) ::shutdown(fd_.get(), SHUT_WR);
    if (attack_.afterwards != Afterwards::Again || volley_.use == ConnectionUse::Delivery) return;
    if (outgoing_.size() != volley_.bytes.size()) outgoing_ = volley_.bytes;
    sent_ = 0;
  }

  const Attack& attack_;
  const std::string& socket_;
  const Volley volley_;
  const int number_;
  Base::UniqueFd fd_;
  std::string outgoing_;
  std::size_t sent_ = 0;
};

Attack attack(std::string name, int connections, std::string bytes,
              Afterwards afterwards = Afterwards::Again, bool reads = true) {
  return {std::move(name), connections, [bytes](int, int) { return requests(bytes); }, afterwards,
          reads};
}

}  // namespace

std::vector<Attack> allAttacks() {
  using Register = ConfigIF::RegisterClientCallbackReq;
  using Unregister = ConfigIF::UnregisterClientCallbackReq;
  const std::string lists = times(8, frameOf(ConfigIF::ListReq()));
  const std::string half = writeFrame(kAttackedVariable, std::string(kValueBytes, 'x'));
  return {
      attack("reads, 750 connections", 250, times(kPipelined, readFrame(0))),
      attack("batches of 1,024 reads", 8, times(8, batchFrame())),
      attack("lists of everything", 8, lists),
      {"writes of 1 MiB", 4, longWrite},
      attack("registrations made and withdrawn", 4,
             registrations<Register>(2000) + registrations<Unregister>(2000)),
      attack("10,000 registrations, and gone", 4, registrations<Register>(10'000),
             Afterwards::Leave),
      attack("answers that nobody reads", 100, lists, Afterwards::Wait, false),
      attack("half frames", 250, half.substr(0, half.size() - 1), Afterwards::Wait),
      attack("coming and going", 32, {}, Afterwards::Leave),
      {"a provider that never answers, and writers", 9, deafProvider},
  };
}

void run(const Attack& attack, const std::string& socket, int process) {
  std::vector<Attacker> attackers;
  for (int i = 0; i < attack.connections; ++i) attackers.emplace_back(attack, socket, process, i);
  std::vector<pollfd> waiting(attackers.size());
  for (;;) {
    for (std::size_t i = 0; i < attackers.size(); ++i) waiting[i] = attackers[i].waits();
    ::poll(waiting.data(), waiting.size(), 1);
    for (std::size_t i = 0; i < attackers.size(); ++i)
      if (waiting[i].fd >= 0 && waiting[i].revents != 0) attackers[i].go(waiting[i].revents);
  }
}

}  // namespace TestSupport
