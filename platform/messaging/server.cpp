// One epoll loop. A connection that is to be closed is only marked while events are handled, and
// reaped afterwards: handlers may answer, notify and ask at any point without a connection or a
// peer vanishing under the code that called them. Plain epoll, because the loop is the latency of
// every request: docs/decisions/event-loop.md has the figures.
#include "platform/messaging/server.h"

#include <google/protobuf/message_lite.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/messaging/frame.h"
#include "platform/messaging/internal/frame_bytes.h"
#include "platform/messaging/internal/listener.h"
#include "platform/messaging/internal/outbox.h"
#include "platform/messaging/internal/timers.h"
#include "platform/schema/message_ids.h"

namespace PbUtility {
namespace {

using google::protobuf::MessageLite;

constexpr std::uint64_t kListenerKey = 1;
constexpr std::uint64_t kWakeUpKey = 2;
constexpr std::uint64_t kFirstConnectionKey = 3;
constexpr std::size_t kReadBytes = std::size_t{64} * 1024;
constexpr int kEventsAtOnce = 64;
// Who has connected has this long to say who it is.
constexpr std::chrono::seconds kGreetingDeadline(10);
// A greeting is no longer than its name makes it.
constexpr std::size_t kMaxHelloBytes = 256;

struct PeerState;

struct Connection {
  std::uint64_t key = 0;
  UniqueFd fd;
  ucred who{};
  ConnectionUse use = ConnectionUse::Requests;
  // Null until the greeting.
  PeerState* peer = nullptr;
  std::uint64_t greetingTimer = 0;
  std::string incoming;
  Outbox outbox;
  bool waitsForRoom = false;
  bool dead = false;
};

struct PeerState {
  Peer peer;
  EndpointToken token{};
  Connection* delivery = nullptr;
  std::set<Connection*> connections;
  std::set<std::uint32_t> openQuestions;
  std::uint32_t lastQuestion = 0;
};

std::string nameOf(const Connection& connection) {
  const std::string who =
      "pid " + std::to_string(connection.who.pid) + ", uid " + std::to_string(connection.who.uid);
  if (connection.peer == nullptr) return "a client that has not greeted (" + who + ")";
  return "client \"" + connection.peer->peer.name + "\" (" + who + ")";
}

}  // namespace

class Server::Impl {
 public:
  Impl(ServerOptions options, ServerHandler& handler)
      : options_(std::move(options)), handler_(handler), readBuffer_(kReadBytes) {}

  std::string open();
  void run();
  void stop() noexcept;
  void wake() noexcept;

  void respond(const RequestId& request, const MessageLite& response, std::uint64_t revision);
  void refuse(const RequestId& request, std::uint32_t error, const std::string& text);
  void notify(PeerId peer, const MessageLite& notice, std::uint64_t revision,
              const std::string& key);
  std::uint32_t ask(PeerId peer, const MessageLite& question, std::uint64_t revision);
  void post(std::function<void()> task);

  PeerState* findPeer(PeerId id) const {
    const auto found = peersById_.find(id);
    return found == peersById_.end() ? nullptr : found->second;
  }
  std::size_t peerCount() const { return peersById_.size(); }
  std::vector<ConnectedPeer> peers() const;

  Timers timers;

 private:
  bool watch(int fd, std::uint64_t key, std::uint32_t events, int operation = EPOLL_CTL_ADD);
  void handleEvent(const epoll_event& event);
  void runPosted();
  void acceptAll();
  void begin(UniqueFd fd);
  void readFrom(Connection& connection);
  // Takes every whole frame of the bytes; returns how many bytes that was.
  std::size_t takeFrames(Connection& connection, std::string_view bytes);
  void take(Connection& connection, const FrameHeader& header, std::string_view payload);
  void greet(Connection& connection, std::string_view payload);
  PeerState* peerFor(Connection& connection, const Hello& hello, std::string& problem);
  void becomeDelivery(Connection& connection);
  void request(Connection& connection, const FrameHeader& header, std::string_view payload);
  void answer(Connection& connection, const FrameHeader& header, std::string_view payload);
  void flush(Connection& connection);
  void close(Connection& connection, const std::string& why);
  void reap();
  void end(Connection& connection);
  void endQuestions(PeerState& peer);
  void leave(PeerState& peer);
  Connection* find(std::uint64_t key) const {
    const auto found = connections_.find(key);
    return found == connections_.end() || found->second->dead ? nullptr : found->second.get();
  }

  const ServerOptions options_;
  ServerHandler& handler_;
  Listener listener_;
  UniqueFd epoll_;
  UniqueFd wakeUp_;
  std::atomic<bool> stopping_{false};
  std::vector<char> readBuffer_;
  std::string scratch_;
  bool refusingConnections_ = false;

  std::uint64_t nextKey_ = kFirstConnectionKey;
  std::unordered_map<std::uint64_t, std::unique_ptr<Connection>> connections_;
  std::vector<std::uint64_t> dead_;
  PeerId lastPeer_ = 0;
  std::map<EndpointToken, std::unique_ptr<PeerState>> peers_;
  std::unordered_map<PeerId, PeerState*> peersById_;

  // Guards posted_.
  std::mutex mutex_;
  std::vector<std::function<void()>> posted_;
};

std::string Server::Impl::open() {
  std::string problem = options_.listenFd >= 0 ? listener_.adopt(options_.listenFd)
                                               : listener_.open(options_.runtimeDir, options_.name);
  if (!problem.empty()) return problem;
  epoll_.reset(::epoll_create1(EPOLL_CLOEXEC));
  wakeUp_.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!epoll_ || !wakeUp_ || !watch(listener_.fd(), kListenerKey, EPOLLIN) ||
      !watch(wakeUp_.get(), kWakeUpKey, EPOLLIN)) {
    return std::string("cannot make the event loop: ") + std::strerror(errno);
  }
  return {};
}

bool Server::Impl::watch(int fd, std::uint64_t key, std::uint32_t events, int operation) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = key;
  return ::epoll_ctl(epoll_.get(), operation, fd, &event) == 0;
}

void Server::Impl::wake() noexcept {
  const std::uint64_t one = 1;
  static_cast<void>(!::write(wakeUp_.get(), &one, sizeof one));
}

void Server::Impl::stop() noexcept {
  stopping_ = true;
  wake();
}

void Server::Impl::post(std::function<void()> task) {
  bool first = false;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    first = posted_.empty();
    posted_.push_back(std::move(task));
  }
  if (first) wake();
}

void Server::Impl::runPosted() {
  std::uint64_t count = 0;
  static_cast<void>(!::read(wakeUp_.get(), &count, sizeof count));
  std::vector<std::function<void()>> tasks;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    tasks.swap(posted_);
  }
  for (const auto& task : tasks) task();
}

void Server::Impl::run() {
  epoll_event events[kEventsAtOnce];
  while (!stopping_) {
    const int ready = ::epoll_wait(epoll_.get(), events, kEventsAtOnce, timers.untilNext());
    for (int i = 0; i < ready; ++i) handleEvent(events[i]);
    if (!timers.isEmpty()) timers.runDue();
    reap();
  }
}

void Server::Impl::handleEvent(const epoll_event& event) {
  if (event.data.u64 == kListenerKey) return acceptAll();
  if (event.data.u64 == kWakeUpKey) return runPosted();
  Connection* connection = find(event.data.u64);
  if (connection == nullptr) return;
  if ((event.events & EPOLLOUT) != 0) flush(*connection);
  if (!connection->dead && (event.events & ~EPOLLOUT) != 0) readFrom(*connection);
}

void Server::Impl::acceptAll() {
  for (;;) {
    bool exhausted = false;
    UniqueFd fd = listener_.accept(exhausted);
    if (exhausted) handler_.onLog("out of file descriptors: refused a connection");
    if (!fd) {
      if (exhausted) continue;
      return;
    }
    begin(std::move(fd));
  }
}

void Server::Impl::begin(UniqueFd fd) {
  if (connections_.size() >= options_.maxConnections) {
    if (!std::exchange(refusingConnections_, true)) {
      handler_.onLog("refusing connections: all " + std::to_string(options_.maxConnections) +
                     " are in use");
    }
    return;
  }
  refusingConnections_ = false;
  auto connection = std::make_unique<Connection>();
  socklen_t size = sizeof connection->who;
  if (::getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &connection->who, &size) != 0) return;
  connection->key = nextKey_++;
  connection->fd = std::move(fd);
  if (!watch(connection->fd.get(), connection->key, EPOLLIN)) return;
  const std::uint64_t key = connection->key;
  connection->greetingTimer = timers.add(Timers::Clock::now() + kGreetingDeadline, [this, key] {
    Connection* silent = find(key);
    if (silent != nullptr) close(*silent, "it did not greet in time");
  });
  connections_.emplace(key, std::move(connection));
}

void Server::Impl::readFrom(Connection& connection) {
  const ssize_t got =
      ::recv(connection.fd.get(), readBuffer_.data(), readBuffer_.size(), MSG_DONTWAIT);
  if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return;
  if (got <= 0) {
    return close(connection, connection.incoming.empty() ? "" : "it left in the middle of a frame");
  }
  const std::string_view bytes(readBuffer_.data(), static_cast<std::size_t>(got));
  if (connection.incoming.empty()) {
    connection.incoming.append(bytes.substr(takeFrames(connection, bytes)));
    return;
  }
  connection.incoming.append(bytes);
  connection.incoming.erase(0, takeFrames(connection, connection.incoming));
}

std::size_t Server::Impl::takeFrames(Connection& connection, std::string_view bytes) {
  std::size_t taken = 0;
  while (!connection.dead && bytes.size() - taken >= kFrameHeaderBytes) {
    FrameHeader header;
    const char* frame = bytes.data() + taken;
    const std::string problem = decodeHeader(reinterpret_cast<const unsigned char*>(frame), header);
    const bool tooLong = connection.peer == nullptr && header.payloadBytes > kMaxHelloBytes;
    if (!problem.empty() || tooLong) {
      close(connection, tooLong ? "its greeting is too long" : problem);
      break;
    }
    if (bytes.size() - taken < kFrameHeaderBytes + header.payloadBytes) break;
    taken += kFrameHeaderBytes + header.payloadBytes;
    take(connection, header, {frame + kFrameHeaderBytes, header.payloadBytes});
  }
  return connection.dead ? bytes.size() : taken;
}

void Server::Impl::take(Connection& connection, const FrameHeader& header,
                        std::string_view payload) {
  if (connection.peer == nullptr) {
    if (header.kind == FrameKind::Hello) return greet(connection, payload);
    return close(connection, "it did not greet first");
  }
  switch (header.kind) {
    case FrameKind::Request:
    case FrameKind::OneWay:
      return request(connection, header, payload);
    case FrameKind::Answer:
    case FrameKind::Done:
      return answer(connection, header, payload);
    default:
      return close(connection, "it sent a frame of kind " +
                                   std::to_string(static_cast<int>(header.kind)) +
                                   ", which clients do not send");
  }
}

void Server::Impl::greet(Connection& connection, std::string_view payload) {
  Hello hello;
  std::string problem = decode(payload, hello);
  if (!problem.empty()) return close(connection, problem);
  PeerState* peer = peerFor(connection, hello, problem);
  if (peer == nullptr) {
    FrameHeader header;
    header.kind = FrameKind::Refusal;
    connection.outbox.add(header, encode(Refusal{0, problem}));
    flush(connection);
    return close(connection, problem);
  }
  timers.cancel(connection.greetingTimer);
  connection.use = hello.use;
  connection.peer = peer;
  peer->connections.insert(&connection);
  FrameHeader header;
  header.kind = FrameKind::Welcome;
  connection.outbox.add(header, encode(Welcome{options_.epoch}));
  // Before the welcome leaves: who has read it can be notified and asked.
  if (hello.use == ConnectionUse::Delivery) becomeDelivery(connection);
  flush(connection);
}

PeerState* Server::Impl::peerFor(Connection& connection, const Hello& hello, std::string& problem) {
  const auto found = peers_.find(hello.token);
  if (found == peers_.end()) {
    auto state = std::make_unique<PeerState>();
    state->token = hello.token;
    state->peer = {++lastPeer_, hello.name, connection.who.uid, connection.who.gid,
                   connection.who.pid};
    PeerState* peer = state.get();
    peersById_.emplace(peer->peer.id, peer);
    peers_.emplace(hello.token, std::move(state));
    handler_.onPeerCame(peer->peer);
    return peer;
  }
  PeerState* peer = found->second.get();
  if (peer->peer.pid != connection.who.pid || peer->peer.uid != connection.who.uid ||
      peer->peer.name != hello.name) {
    problem = "it claims to be client \"" + peer->peer.name + "\" of another process";
    return nullptr;
  }
  if (peer->connections.size() >= options_.maxConnectionsPerPeer) {
    problem = "it has " + std::to_string(options_.maxConnectionsPerPeer) +
              " connections already, which is the limit";
    return nullptr;
  }
  return peer;
}

void Server::Impl::becomeDelivery(Connection& connection) {
  PeerState& peer = *connection.peer;
  Connection* former = std::exchange(peer.delivery, &connection);
  if (former != nullptr) close(*former, "");
  if (former != nullptr) endQuestions(peer);
  handler_.onDeliveryReady(peer.peer);
}

void Server::Impl::request(Connection& connection, const FrameHeader& header,
                           std::string_view payload) {
  const RequestId id{connection.key, header.sequence, header.kind == FrameKind::OneWay};
  handler_.onRequest({id, connection.peer->peer, header.messageId,
                      (header.flags & kFlagInsideReceiver) != 0, header.revision, payload});
}

void Server::Impl::answer(Connection& connection, const FrameHeader& header,
                          std::string_view payload) {
  PeerState& peer = *connection.peer;
  const auto question = peer.openQuestions.find(header.sequence);
  if (peer.delivery != &connection || question == peer.openQuestions.end()) {
    return close(connection, "it answered a question that it was not asked");
  }
  if (header.kind == FrameKind::Answer) {
    return handler_.onAnswer(peer.peer.id, header.sequence, header.messageId, payload);
  }
  peer.openQuestions.erase(question);
  handler_.onQuestionDone(peer.peer.id, header.sequence, false);
}

void Server::Impl::flush(Connection& connection) {
  const Outbox::Written written = connection.outbox.writeTo(connection.fd.get());
  if (written == Outbox::Written::Failed) return close(connection, "");
  const bool waits = written == Outbox::Written::Some;
  if (waits == connection.waitsForRoom) return;
  connection.waitsForRoom = waits;
  watch(connection.fd.get(), connection.key, waits ? EPOLLIN | EPOLLOUT : EPOLLIN, EPOLL_CTL_MOD);
}

void Server::Impl::close(Connection& connection, const std::string& why) {
  if (connection.dead) return;
  if (!why.empty()) handler_.onLog("closed the connection of " + nameOf(connection) + ": " + why);
  connection.dead = true;
  dead_.push_back(connection.key);
}

void Server::Impl::reap() {
  while (!dead_.empty()) {
    const std::uint64_t key = dead_.back();
    dead_.pop_back();
    const auto found = connections_.find(key);
    if (found == connections_.end()) continue;
    const std::unique_ptr<Connection> connection = std::move(found->second);
    connections_.erase(found);
    end(*connection);
  }
}

void Server::Impl::end(Connection& connection) {
  timers.cancel(connection.greetingTimer);
  PeerState* peer = connection.peer;
  if (peer == nullptr) return;
  peer->connections.erase(&connection);
  if (peer->delivery == &connection) {
    peer->delivery = nullptr;
    endQuestions(*peer);
  }
  if (peer->connections.empty()) leave(*peer);
}

void Server::Impl::endQuestions(PeerState& peer) {
  const std::set<std::uint32_t> open = std::exchange(peer.openQuestions, {});
  for (const std::uint32_t question : open) {
    handler_.onQuestionDone(peer.peer.id, question, true);
  }
}

void Server::Impl::leave(PeerState& peer) {
  const auto found = peers_.find(peer.token);
  const std::unique_ptr<PeerState> state = std::move(found->second);
  peers_.erase(found);
  peersById_.erase(state->peer.id);
  handler_.onPeerGone(state->peer);
}

std::vector<ConnectedPeer> Server::Impl::peers() const {
  std::vector<ConnectedPeer> connected;
  connected.reserve(peersById_.size());
  for (const auto& [id, state] : peersById_) {
    connected.push_back({state->peer, state->delivery != nullptr});
  }
  std::sort(connected.begin(), connected.end(),
            [](const ConnectedPeer& a, const ConnectedPeer& b) { return a.peer.id < b.peer.id; });
  return connected;
}

void Server::Impl::respond(const RequestId& request, const MessageLite& response,
                           std::uint64_t revision) {
  Connection* connection = find(request.connection);
  if (request.oneWay || connection == nullptr) return;
  FrameHeader header;
  header.kind = FrameKind::Response;
  header.sequence = request.sequence;
  header.revision = revision;
  if (!encodeFrame(header, response, scratch_)) {
    return refuse(request, 0, "the answer is larger than 16 MiB");
  }
  connection->outbox.add(scratch_);
  flush(*connection);
  if (connection->outbox.waitingBytes() > options_.maxAnswerBytes) {
    close(*connection, "it does not read its answers");
  }
}

void Server::Impl::refuse(const RequestId& request, std::uint32_t error, const std::string& text) {
  Connection* connection = find(request.connection);
  if (request.oneWay || connection == nullptr) return;
  FrameHeader header;
  header.kind = FrameKind::Refusal;
  header.sequence = request.sequence;
  connection->outbox.add(header, encode(Refusal{error, text}));
  flush(*connection);
}

void Server::Impl::notify(PeerId id, const MessageLite& notice, std::uint64_t revision,
                          const std::string& key) {
  PeerState* peer = findPeer(id);
  if (peer == nullptr || peer->delivery == nullptr || peer->delivery->dead) return;
  Connection& connection = *peer->delivery;
  FrameHeader header;
  header.kind = FrameKind::Notice;
  header.revision = revision;
  std::string frame;
  if (!encodeFrame(header, notice, frame)) {
    return handler_.onLog("a notice for " + nameOf(connection) + " is larger than 16 MiB");
  }
  connection.outbox.queue(std::move(frame), key);
  if (!connection.waitsForRoom) flush(connection);
  if (connection.outbox.queuedMessages() > options_.maxNotices ||
      connection.outbox.waitingBytes() > options_.maxAnswerBytes) {
    close(connection, "it does not read its notices; it is brought up to date when it reconnects");
  }
}

std::uint32_t Server::Impl::ask(PeerId id, const MessageLite& question, std::uint64_t revision) {
  PeerState* peer = findPeer(id);
  if (peer == nullptr || peer->delivery == nullptr || peer->delivery->dead) return 0;
  Connection& connection = *peer->delivery;
  if (++peer->lastQuestion == 0) ++peer->lastQuestion;
  FrameHeader header;
  header.kind = FrameKind::Question;
  header.sequence = peer->lastQuestion;
  header.revision = revision;
  std::string frame;
  if (!encodeFrame(header, question, frame)) return 0;
  peer->openQuestions.insert(header.sequence);
  connection.outbox.queue(std::move(frame), {});
  if (!connection.waitsForRoom) flush(connection);
  return header.sequence;
}

Server::Server(ServerOptions options, ServerHandler& handler)
    : impl_(std::make_unique<Impl>(std::move(options), handler)) {}
Server::~Server() = default;

std::string Server::open() { return impl_->open(); }
void Server::run() { impl_->run(); }
void Server::stop() noexcept { impl_->stop(); }

void Server::respond(const RequestId& request, const MessageLite& response,
                     std::uint64_t revision) {
  impl_->respond(request, response, revision);
}

void Server::refuse(const RequestId& request, std::uint32_t error, const std::string& text) {
  impl_->refuse(request, error, text);
}

void Server::notify(PeerId peer, const MessageLite& notice, std::uint64_t revision,
                    const std::string& coalescingKey) {
  impl_->notify(peer, notice, revision, coalescingKey);
}

std::uint32_t Server::ask(PeerId peer, const MessageLite& question, std::uint64_t revision) {
  return impl_->ask(peer, question, revision);
}

void Server::post(std::function<void()> task) { impl_->post(std::move(task)); }

std::uint64_t Server::after(std::chrono::milliseconds delay, std::function<void()> task) {
  return impl_->timers.add(Timers::Clock::now() + delay, std::move(task));
}

void Server::cancel(std::uint64_t timer) { impl_->timers.cancel(timer); }

const Peer* Server::peer(PeerId id) const {
  const PeerState* state = impl_->findPeer(id);
  return state == nullptr ? nullptr : &state->peer;
}

std::size_t Server::peerCount() const { return impl_->peerCount(); }

std::vector<ConnectedPeer> Server::peers() const { return impl_->peers(); }

std::size_t Server::waitingNotices(PeerId id) const {
  const PeerState* state = impl_->findPeer(id);
  if (state == nullptr || state->delivery == nullptr) return 0;
  return state->delivery->outbox.queuedMessages();
}

}  // namespace PbUtility
