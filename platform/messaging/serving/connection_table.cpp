// Whoever connects is taken in, or refused for want of room, before it has said a word; it then has a
// while to greet. A key is never used again, so that what kept one (a timer, a request, a place in a
// queue) finds nothing once the connection is gone, and not another one.
#include "platform/messaging/serving/internal/connection_table.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <utility>

#include "platform/messaging/serving/internal/peer_table.h"
#include "platform/messaging/wire/frame.h"
#include "platform/messaging/wire/internal/frame_bytes.h"

namespace PbUtility {
namespace {

// In one round.
constexpr int kAcceptsAtOnce = 16;

// Nobody's, all 0, when the kernel does not tell.
ucred peerOf(int fd) {
  ucred who{};
  socklen_t size = sizeof who;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &who, &size) != 0) return {};
  return who;
}

ShareLimits connectionLimits(const ServerOptions& options) {
  const unsigned reserved = std::min(options.reservedConnections, options.maxConnections);
  return {options.maxConnections, options.maxConnections - reserved, options.maxConnectionsPerUser,
          options.maxConnectionsPerProcess};
}

}  // namespace

ConnectionTable::ConnectionTable(const ServerOptions& options, ServerHandler& handler,
                                 EventLoop& loop)
    : options_(options),
      handler_(handler),
      loop_(loop),
      shares_("connections", connectionLimits(options), ::geteuid()),
      buffers_(options.bufferedBytes, ::geteuid()) {}

Base::Status<> ConnectionTable::listen() {
  return options_.listenFd >= 0 ? listener_.adopt(options_.listenFd)
                                : listener_.open(options_.runtimeDir, options_.name);
}

bool ConnectionTable::watchListener() { return loop_.watch(listener_.fd(), kListenerKey, EPOLLIN); }

void ConnectionTable::acceptSome() {
  for (int i = 0; i < kAcceptsAtOnce; ++i) {
    bool exhausted = false;
    Base::UniqueFd fd = listener_.accept(exhausted);
    if (!fd) return;
    if (exhausted) {
      refuse(fd.get(), peerOf(fd.get()), "the service is out of file descriptors");
    } else {
      begin(std::move(fd));
    }
  }
}

// Told why at once, before it has said anything: it waits for an answer to its greeting.
void ConnectionTable::refuse(int fd, const ucred& who, const std::string& text) {
  FrameHeader header;
  header.kind = FrameKind::Refusal;
  std::string frame;
  appendFrame(header, encode(Refusal{kRefusedByLimit, text}), frame);
  static_cast<void>(!::send(fd, frame.data(), frame.size(), MSG_NOSIGNAL | MSG_DONTWAIT));
  handler_.onFault(Fault::Refused, "refused a connection of pid " + std::to_string(who.pid) +
                                       ", uid " + std::to_string(who.uid) + ": " + text);
}

void ConnectionTable::begin(Base::UniqueFd fd) {
  const ucred who = peerOf(fd.get());
  const Base::Status<> room = shares_.room({who.uid, who.pid});
  if (!room.ok()) return refuse(fd.get(), who, room.text);
  const std::uint64_t key = nextKey_++;
  auto connection = std::make_unique<Connection>(key, std::move(fd), who);
  if (!loop_.watch(connection->fd(), key, EPOLLIN)) return;
  shares_.add(connection->owner());
  connection->greetingTimer = loop_.after(options_.greetingDeadline, [this, key] {
    Connection* silent = find(key);
    if (silent != nullptr) close(*silent, Fault::NoGreeting, "it did not greet in time");
  });
  connections_.emplace(key, std::move(connection));
}

void ConnectionTable::close(Connection& connection, Fault kind, const std::string& why) {
  if (connection.dead) return;
  handler_.onFault(kind, "closed the connection of " + nameOf(connection) + ": " + why);
  close(connection);
}

void ConnectionTable::close(Connection& connection) {
  if (std::exchange(connection.dead, true)) return;
  dead_.push_back(connection.key);
  countBuffered(connection);
}

std::unique_ptr<Connection> ConnectionTable::takeDead() {
  const auto found = connections_.find(dead_.front());
  dead_.pop_front();
  std::unique_ptr<Connection> connection = std::move(found->second);
  if (latest_ == connection.get()) latest_ = nullptr;
  connections_.erase(found);
  loop_.cancel(connection->greetingTimer);
  shares_.remove(connection->owner());
  return connection;
}

void ConnectionTable::closePast() {
  while (const std::optional<Buffers::Excess> excess = buffers_.excess()) {
    closePast(*find(excess->connection), excess->limit);
  }
}

void ConnectionTable::closePast(Connection& connection, const std::string& limit) {
  close(connection, Fault::NotReading,
        "it does not read what is for it, or does not end its frames: " + limit);
}

bool ConnectionTable::fits(Connection& connection, std::size_t bytes) {
  if (buffers_.fits(connection.buffered, bytes)) return true;
  closePast(connection, buffers_.shares().room(connection.owner(), bytes).text);
  return false;
}

}  // namespace PbUtility
