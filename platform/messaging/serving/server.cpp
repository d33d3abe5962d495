// The server is what is left to decide between rooms that keep what they know to themselves: the loop
// tells what happened (EventLoop), a connection has frames and takes bytes (Connection), two tables
// know who is there (ConnectionTable, PeerTable), and what goes out leaves in its order (Writer).
// Here is whose turn it is, who has to wait for room, and what each frame means.
//
// One event that comes alone is served at once. Of several, each connection stands in line behind the
// others of its user, and each user has a turn (Turns, Slice); then epoll is asked again, for all that
// is ready, so that who comes new waits for one turn of each user. Work of the server's own that grows
// with the number of clients (taking in, telling a crowd, burying the dead, timers) is bounded for
// each such round in the same way.
//
// A connection that is closed is only marked while events are handled, and buried afterwards, at the end
// of a round and before the turn is given back, when nobody has one in hands.
#include "platform/messaging/serving/server.h"

#include <google/protobuf/message_lite.h>
#include <sys/epoll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "platform/messaging/wire/frame.h"
#include "platform/messaging/wire/internal/frame_bytes.h"
#include "platform/schema/message_ids.h"

namespace PbUtility {
namespace {

using google::protobuf::MessageLite;

constexpr std::size_t kReadBufferBytes = std::size_t{64} * 1024;
// In one round.
constexpr int kBuriedAtOnce = 64;

}  // namespace

Server::Server(ServerOptions options, ServerHandler& handler)
    : options_(std::move(options)),
      handler_(handler),
      loop_(*this),
      connections_(options_, handler_, loop_),
      peers_(options_),
      writer_(options_, connections_, loop_, [this](Connection& one) { letGoOn(one); }),
      readBuffer_(kReadBufferBytes) {}

Base::Status<> Server::open() {
  Base::Status<> listening = connections_.listen();
  if (!listening.ok() || (loop_.open() && connections_.watchListener())) return listening;
  return Base::failed(std::string("cannot make the event loop: ") + std::strerror(errno));
}

// --- Rounds and turns ---

void Server::beginRound(bool isSingle) { isAlone_ = isSingle && turns_.isEmpty(); }

void Server::onReady(std::uint64_t key, std::uint32_t events) {
  if (key == ConnectionTable::kListenerKey) return connections_.acceptSome();
  Connection* connection = connections_.find(key);
  if (connection == nullptr) return;
  connection->ready |= events;
  if (!isAlone_) return queueTurn(*connection);
  Slice slice(options_.framesPerTurn, options_.turnTime);
  serve(*connection, slice);
}

// Users that become ready while the others have their turn wait for the next round.
void Server::endRound() {
  for (std::size_t left = isAlone_ ? 0 : turns_.users(); left > 0; --left) takeTurn();
  if (writer_.hasCrowd()) writer_.flushCrowd();
  reap();
}

bool Server::settle() {
  writer_.flushAll();
  reap();
  writer_.flushAll();
  return hasWaiting();
}

bool Server::hasWaiting() const {
  return !turns_.isEmpty() || writer_.hasCrowd() || connections_.hasDead();
}

void Server::takeTurn() {
  Slice slice(options_.framesPerTurn, options_.turnTime);
  slice.begin();
  turns_.begin();
  Turns::Item item;
  while (!slice.isOver() && turns_.next(item)) {
    if (item.task) {
      item.task();
      writer_.flushAll();
      break;
    }
    Connection* connection = connections_.find(item.connection);
    if (connection == nullptr) continue;
    const unsigned before = slice.taken();
    serve(*connection, slice);
    if (slice.taken() == before) slice.take();
  }
  turns_.end();
}

void Server::queueTurn(Connection& connection) {
  if (std::exchange(connection.waitsForTurn, true)) return;
  turns_.add(connection.who.uid, {connection.key, nullptr});
}

void Server::serve(Connection& connection, Slice& slice) {
  connection.waitsForTurn = false;
  const std::uint32_t ready = std::exchange(connection.ready, 0);
  if ((ready & EPOLLOUT) != 0) writer_.flush(connection);
  if (!connection.dead) listenTo(connection, ready, slice);
  writer_.flushAll();
}

void Server::listenTo(Connection& connection, std::uint32_t ready, Slice& slice) {
  switch (connection.intake) {
    case Intake::Queued:
      connection.intake = Intake::Open;
      connection.resume();
      return goOn(connection, slice);
    case Intake::Open:
      if ((ready & ~EPOLLOUT) != 0) readAll(connection, slice);
      return;
    case Intake::Held:
      // Its other end is closed; what it sent is still to be taken, unless an answer waits that nobody
      // will ever read.
      if ((ready & (EPOLLHUP | EPOLLERR)) == 0) return;
      if (connection.outbox.waitingBytes() > 0) return connections_.close(connection);
      return connection.endWatch(loop_);
  }
}

void Server::readAll(Connection& connection, Slice& slice) {
  while (readOnce(connection, slice)) {
    slice.begin();
    slice.take();
    if (slice.isOver()) return;
  }
}

// Whether there may be more to read.
bool Server::readOnce(Connection& connection, Slice& slice) {
  switch (connection.receive(readBuffer_)) {
    case Connection::Arrival::Nothing:
      return false;
    case Connection::Arrival::End:
      if (connection.isEmpty()) {
        connections_.close(connection);
      } else {
        connections_.close(connection, Fault::HalfFrame, "it left in the middle of a frame");
      }
      return false;
    case Connection::Arrival::Bytes:
      break;
  }
  goOn(connection, slice);
  return connection.mayHaveMore() && !connection.dead && connection.intake == Intake::Open;
}

// --- Frames ---

void Server::goOn(Connection& connection, Slice& slice) {
  takeFrames(connection, slice);
  if (!connection.dead && connection.keepRest()) watchFrame(connection);
}

void Server::takeFrames(Connection& connection, Slice& slice) {
  while (!connection.dead && connection.hasHeader()) {
    Connection::Frame frame;
    const Connection::Next next = connection.next(frame);
    if (next == Connection::Next::Wait) return;
    if (next == Connection::Next::Bad)
      return connections_.close(connection, Fault::BadFrame, frame.problem);
    if (mustWait(connection, frame.header)) {
      connection.intake = Intake::Held;
      return;
    }
    if (slice.isOver()) {
      connection.intake = Intake::Queued;
      return queueTurn(connection);
    }
    if (connection.hasMoreThan(frame)) slice.begin();
    slice.take();
    connection.take(frame);
    frame.problem.empty() ? take(connection, frame) : dropFrame(connection, frame);
  }
}

// After frames were taken: what is left is a frame that has not come whole, or waits.
void Server::watchFrame(Connection& connection) {
  if (connection.hasTaken() || !connection.isInFrame())
    loop_.cancel(std::exchange(connection.frameTimer, 0));
  if (connection.isInFrame() && connection.frameTimer == 0) {
    connection.frameTimer = loop_.after(options_.frameDeadline, [this, key = connection.key] {
      Connection* slow = connections_.find(key);
      if (slow == nullptr) return;
      connections_.close(*slow, Fault::HalfFrame, "it did not end a frame in time");
    });
  }
  connection.updateWatch(loop_);
  connections_.countBuffered(connection);
  connections_.keepWithinBuffers();
}

void Server::take(Connection& connection, const Connection::Frame& frame) {
  const FrameHeader& header = frame.header;
  if (connection.peer == nullptr) {
    if (header.kind == FrameKind::Hello) return greet(connection, frame.payload);
    return connections_.close(connection, Fault::NoGreeting, "it did not greet first");
  }
  switch (header.kind) {
    case FrameKind::Request:
    case FrameKind::OneWay:
      return request(connection, header, frame.payload);
    case FrameKind::Answer:
    case FrameKind::Done:
      return answer(connection, header, frame.payload);
    default:
      return connections_.close(connection, Fault::BadFrame,
                                "it sent a frame of kind " +
                                    std::to_string(static_cast<int>(header.kind)) +
                                    ", which clients do not send");
  }
}

// A payload that is too long is not waited for: its sender is told at once, and what comes of it is
// thrown away. An answer to a question cannot be refused; it counts as one that is no message.
void Server::dropFrame(Connection& connection, const Connection::Frame& frame) {
  handler_.onFault(Fault::Refused,
                   "dropped a frame of " + nameOf(connection) + ": " + frame.problem);
  const FrameKind kind = frame.header.kind;
  if (kind == FrameKind::Request)
    return writer_.sendRefusal(connection, frame.header.sequence, kRefusedByLimit, frame.problem);
  if (kind == FrameKind::OneWay) return;
  Connection::Frame bare;
  bare.header = frame.header;
  bare.header.messageId = PlatformSchema::kNoMessageId;
  take(connection, bare);
}

void Server::greet(Connection& connection, std::string_view payload) {
  Hello hello;
  const Base::Status<> decoded = decode(payload, hello);
  if (!decoded.ok()) return connections_.close(connection, Fault::BadFrame, decoded.text);
  const Peer claimed{0, hello.name, connection.who.uid, connection.who.gid, connection.who.pid};
  PeerState* peer = peers_.find(hello.token);
  const Refusal refusal = whyNotGreet(peer, claimed);
  if (refusal.error != 0) {
    writer_.sendRefusal(connection, 0, refusal.error, refusal.text);
    // What the handler refuses, it has logged itself.
    return peer == nullptr ? connections_.close(connection)
                           : connections_.close(connection, Fault::Refused, refusal.text);
  }
  if (peer == nullptr) {
    peer = &peers_.add(hello.token, claimed);
    handler_.onPeerCame(peer->peer);
  }
  join(connection, *peer, hello.use);
}

Refusal Server::whyNotGreet(const PeerState* known, const Peer& claimed) {
  if (known != nullptr) return peers_.whyNotJoin(*known, claimed);
  const Base::Status<> welcome = handler_.onGreeting(claimed);
  if (welcome.ok()) return {};
  return {kRefusedByRight, welcome.text};
}

void Server::join(Connection& connection, PeerState& peer, ConnectionUse use) {
  connections_.greeted(connection);
  connection.use = use;
  connection.peer = &peer;
  peer.connections.insert(&connection);
  FrameHeader header;
  header.kind = FrameKind::Welcome;
  connection.outbox.add(header, encode(Welcome{options_.epoch}));
  // Before the welcome leaves: who has read it can be notified and asked.
  if (use == ConnectionUse::Delivery) becomeDelivery(connection);
  writer_.flush(connection);
}

void Server::becomeDelivery(Connection& connection) {
  PeerState& peer = *connection.peer;
  Connection* former = std::exchange(peer.delivery, &connection);
  if (former != nullptr) connections_.close(*former);
  if (former != nullptr) endQuestions(peer);
  handler_.onDeliveryReady(peer.peer);
}

void Server::request(Connection& connection, const FrameHeader& header, std::string_view payload) {
  PeerState& peer = *connection.peer;
  const RequestId id{connection.key, header.sequence, header.kind == FrameKind::OneWay,
                     peer.peer.id, payload.size()};
  PeerTable::beginRequest(peer, id);
  handler_.onRequest({id, peer.peer, header.messageId, (header.flags & kFlagInsideReceiver) != 0,
                      header.revision, payload, peer.delivery == &connection});
}

void Server::answer(Connection& connection, const FrameHeader& header, std::string_view payload) {
  PeerState& peer = *connection.peer;
  if (peer.delivery != &connection || !PeerTable::isOpen(peer, header.sequence)) {
    return connections_.close(connection, Fault::BadFrame,
                              "it answered a question that it was not asked");
  }
  if (header.kind == FrameKind::Answer) {
    return handler_.onAnswer(peer.peer.id, header.sequence, header.messageId, payload);
  }
  peers_.endQuestion(peer, header.sequence);
  handler_.onQuestionDone(peer.peer.id, header.sequence, false);
}

// --- Room ---

bool Server::mustWait(const Connection& connection, const FrameHeader& header) const {
  if (header.kind != FrameKind::Request && header.kind != FrameKind::OneWay) return false;
  if (connection.peer == nullptr) return false;
  if (writer_.isFull(connection) || !connection.whenRoom.empty()) return true;
  if ((header.flags & kFlagInsideReceiver) != 0) return false;
  return peers_.isBusy(*connection.peer);
}

// What waited for room goes on: first what was begun, then what the peer says next.
void Server::letGoOn(Connection& connection) {
  while (!connection.dead && !connection.whenRoom.empty() && !writer_.isFull(connection)) {
    const Postponed rest = std::move(connection.whenRoom.front());
    connection.whenRoom.pop_front();
    rest.run();
  }
  const bool waits = writer_.isFull(connection) || !connection.whenRoom.empty();
  if (connection.dead || connection.intake != Intake::Held || waits) return;
  connection.intake = Intake::Queued;
  queueTurn(connection);
}

// Its connection, when it is still there, knows the peer without looking for it.
void Server::endRequest(const RequestId& request, const Connection* connection) {
  PeerState* peer = connection == nullptr ? peers_.find(request.peer) : connection->peer;
  if (peer == nullptr || peer->peer.id != request.peer) return;
  if (peers_.endRequest(*peer, request)) letGoOn(*peer);
}

void Server::letGoOn(const PeerState& peer) {
  for (Connection* connection : peer.connections) {
    if (connection->intake == Intake::Held) letGoOn(*connection);
  }
}

// What has not been flushed yet does not say that the peer does not read.
bool Server::hasRoom(const RequestId& request) {
  Connection* connection = connections_.find(request.connection);
  if (connection == nullptr) return false;
  if (writer_.isFull(*connection) && !connection->isSocketFull()) writer_.flush(*connection);
  return !connection->dead && !writer_.isFull(*connection);
}

void Server::whenRoom(const RequestId& request, std::function<void()> task) {
  Connection* connection = connections_.find(request.connection);
  if (connection == nullptr) return endRequest(request, nullptr);
  connection->whenRoom.push_back({request, std::move(task)});
}

// --- What goes out ---

void Server::respond(const RequestId& request, const MessageLite& response,
                     std::uint64_t revision) {
  Connection* connection = connections_.find(request.connection);
  endRequest(request, connection);
  if (request.oneWay || connection == nullptr) return;
  FrameHeader header;
  header.kind = FrameKind::Response;
  header.sequence = request.sequence;
  header.revision = revision;
  if (!encodeFrame(header, response, scratch_)) {
    return writer_.sendRefusal(*connection, request.sequence, kRefusedByLimit,
                               "the answer is larger than 16 MiB");
  }
  connection->outbox.add(scratch_);
  if (scratch_.capacity() > kReadBufferBytes) std::string().swap(scratch_);
  writer_.flushLater(*connection);
}

void Server::refuse(const RequestId& request, std::uint32_t error, const std::string& text) {
  Connection* connection = connections_.find(request.connection);
  endRequest(request, connection);
  if (!request.oneWay && connection != nullptr)
    writer_.sendRefusal(*connection, request.sequence, error, text);
}

// Null when the peer cannot be told anything.
Connection* Server::deliveryOf(PeerId id) const {
  const PeerState* peer = peers_.find(id);
  if (peer == nullptr || peer->delivery == nullptr || peer->delivery->dead) return nullptr;
  return peer->delivery;
}

void Server::notify(PeerId id, const MessageLite& notice, std::uint64_t revision,
                    const std::string& coalescingKey) {
  Connection* connection = deliveryOf(id);
  if (connection == nullptr) return;
  // Before it is encoded: one for hundreds of readers of a user who has no room for it costs nothing.
  const bool isLong = notice.GetCachedSize() > static_cast<int>(Writer::kUncountedBytes);
  if (isLong && !connections_.fits(*connection, notice.ByteSizeLong())) return;
  FrameHeader header;
  header.kind = FrameKind::Notice;
  header.revision = revision;
  std::string frame;
  if (!encodeFrame(header, notice, frame)) {
    return handler_.onFault(Fault::Resources,
                            "a notice for " + nameOf(*connection) + " is larger than 16 MiB");
  }
  writer_.sendLater(*connection, std::move(frame), coalescingKey);
}

std::uint32_t Server::ask(PeerId id, const MessageLite& question, std::uint64_t revision) {
  Connection* connection = deliveryOf(id);
  if (connection == nullptr) return 0;
  PeerState& peer = *connection->peer;
  const Base::Status<> asking = peers_.mayBeAsked(peer);
  if (!asking.ok()) {
    handler_.onFault(Fault::NotAnswering,
                     nameOf(*connection) + " is asked nothing more: " + asking.text);
    return 0;
  }
  FrameHeader header;
  header.kind = FrameKind::Question;
  header.sequence = PeerTable::nextQuestion(peer);
  header.revision = revision;
  std::string frame;
  if (!encodeFrame(header, question, frame)) return 0;
  peers_.openQuestion(peer, header.sequence);
  writer_.sendLater(*connection, std::move(frame), {});
  return header.sequence;
}

// --- The end of connections and peers ---

void Server::buryDead() {
  for (int left = kBuriedAtOnce; left > 0 && connections_.hasDead(); --left) {
    const std::unique_ptr<Connection> connection = connections_.takeDead();
    bury(*connection);
  }
}

void Server::bury(Connection& connection) {
  writer_.forget(connection);
  loop_.cancel(connection.frameTimer);
  for (const Postponed& rest : connection.whenRoom) endRequest(rest.request, &connection);
  PeerState* peer = connection.peer;
  if (peer == nullptr) return;
  peer->connections.erase(&connection);
  if (peer->delivery == &connection) {
    peer->delivery = nullptr;
    endQuestions(*peer);
  }
  if (!peer->connections.empty()) return;
  const std::unique_ptr<PeerState> gone = peers_.remove(*peer);
  handler_.onPeerGone(gone->peer);
}

void Server::endQuestions(PeerState& peer) {
  for (const std::uint32_t question : peers_.endQuestions(peer)) {
    handler_.onQuestionDone(peer.peer.id, question, true);
  }
}

// --- Who is there ---

const Peer* Server::peer(PeerId id) const {
  const PeerState* state = peers_.find(id);
  return state == nullptr ? nullptr : &state->peer;
}

std::size_t Server::waitingNotices(PeerId id) const {
  const PeerState* state = peers_.find(id);
  if (state == nullptr || state->delivery == nullptr) return 0;
  return state->delivery->outbox.queuedMessages();
}

}  // namespace PbUtility
