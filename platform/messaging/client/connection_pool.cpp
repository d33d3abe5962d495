// A call takes a connection out of the pool for as long as it lasts (Lease), so nothing is locked while
// bytes move. Whatever goes wrong on a connection closes it: what still comes over it would answer a
// request that nobody waits for any more. One failure is repaired here: a connection whose other end
// closed while it was idle has taken no byte of the request, which is sent again on a new one.
#include "platform/messaging/client/internal/connection_pool.h"

#include <google/protobuf/message_lite.h>

#include <iterator>
#include <utility>

#include "platform/messaging/wire/internal/frame_bytes.h"
#include "platform/schema/message_bounds.h"
#include "platform/schema/message_ids.h"

namespace PbUtility {
namespace {

CallStatus statusOf(StreamStatus status) {
  switch (status) {
    case StreamStatus::Ok:
      return kCallOk;
    case StreamStatus::Closed:
      return kCallServiceDied;
    case StreamStatus::TimedOut:
      return kCallTimedOut;
    case StreamStatus::NoListener:
      return kCallNoService;
    case StreamStatus::Untrusted:
      return kCallUntrusted;
    case StreamStatus::Broken:
      return kCallBrokenAnswer;
    case StreamStatus::Exhausted:
      return kCallBadEndpoint;
  }
  return kCallBrokenAnswer;
}

bool readResponse(const FrameHeader& header, std::string_view payload,
                  google::protobuf::MessageLite& response, std::string& problem) {
  using PlatformSchema::Reading;
  const bool isResponse = header.kind == FrameKind::Response &&
                          header.messageId == PlatformSchema::messageIdOf(response);
  const Reading reading =
      isResponse ? PlatformSchema::readMessage(header.messageId, payload, response, problem)
                 : Reading::NoMessage;
  if (reading == Reading::NoMessage)
    problem = "the answer is not the response that belongs to the request";
  return reading == Reading::Done;
}

}  // namespace

// A connection in the hands of one caller; goes back when the lease ends, and is closed unless it
// was found good.
class ConnectionPool::Lease {
 public:
  Lease(ConnectionPool& pool, Position connection) : pool_(pool), connection_(connection) {}
  ~Lease() { pool_.giveBack(connection_, usable_, oneWayBy_); }
  Lease(const Lease&) = delete;
  Lease& operator=(const Lease&) = delete;

  Connection& connection() { return *connection_; }
  void keep(std::thread::id oneWayBy) {
    usable_ = true;
    oneWayBy_ = oneWayBy;
  }

 private:
  ConnectionPool& pool_;
  const Position connection_;
  bool usable_ = false;
  std::thread::id oneWayBy_;
};

ConnectionPool::ConnectionPool(std::string path, Hello hello, unsigned maxConnections)
    : path_(std::move(path)),
      hello_(std::move(hello)),
      maxConnections_(maxConnections == 0 ? 1 : maxConnections) {}

bool ConnectionPool::isFull() {
  std::size_t limited = 0;
  for (Connection& connection : connections_) limited += useOf(connection).forReceivers ? 0U : 1U;
  return limited >= maxConnections_;
}

bool ConnectionPool::findIdle(bool insideReceiver, Position& connection, bool& mustWait) {
  const std::thread::id caller = std::this_thread::get_id();
  const std::thread::id nobody;
  mustWait = false;
  const bool full = !insideReceiver && isFull();
  Position found = connections_.end();
  for (auto position = connections_.begin(); position != connections_.end(); ++position) {
    const Use& use = useOf(*position);
    if (use.forReceivers != insideReceiver) continue;
    if (use.oneWayBy == caller) {
      mustWait = use.busy;
      connection = position;
      return !use.busy;
    }
    if (use.busy || found != connections_.end()) continue;
    if (use.oneWayBy == nobody || full) found = position;
  }
  connection = found;
  return found != connections_.end();
}

CallStatus ConnectionPool::take(Exchange& exchange, Position& connection) {
  const Base::MutexLock guard(mutex_);
  for (;;) {
    bool mustWait = false;
    if (findIdle(exchange.insideReceiver, connection, mustWait)) break;
    if (!mustWait && (exchange.insideReceiver || !isFull())) {
      connection = connections_.emplace(connections_.begin());
      useOf(*connection).forReceivers = exchange.insideReceiver;
      break;
    }
    if (!freed_.waitUntil(guard, exchange.deadline)) {
      exchange.problem = "all connections to the service were busy";
      return kCallTimedOut;
    }
  }
  useOf(*connection).busy = true;
  return kCallOk;
}

void ConnectionPool::giveBack(Position connection, bool usable, std::thread::id oneWayBy) {
  {
    const Base::MutexLock guard(mutex_);
    useOf(*connection).busy = false;
    useOf(*connection).oneWayBy = oneWayBy;
    // The one used last is the next to be used: its buffers are warm, and the others may go idle.
    if (usable) {
      connections_.splice(connections_.begin(), connections_, connection);
    } else {
      connections_.erase(connection);
    }
  }
  freed_.notifyAll();
}

void ConnectionPool::closeIdle() {
  const Base::MutexLock guard(mutex_);
  for (auto each = connections_.begin(); each != connections_.end();)
    each = useOf(*each).busy ? std::next(each) : connections_.erase(each);
}

CallStatus ConnectionPool::welcome(Connection& connection, Exchange& exchange) {
  FrameHeader header;
  const StreamStatus status = connection.stream.receiveFrame(header, exchange.deadline);
  if (status != StreamStatus::Ok) {
    exchange.problem = path_ + ": " + connection.stream.problem();
    return statusOf(status);
  }
  if (header.kind == FrameKind::Refusal) {
    Refusal refusal;
    exchange.problem = decode(connection.stream.payload(), refusal);
    if (exchange.problem.empty()) exchange.problem = refusal.text;
    return kCallRefused;
  }
  Welcome welcome;
  if (header.kind != FrameKind::Welcome || !decode(connection.stream.payload(), welcome).empty()) {
    exchange.problem = "the service did not answer the greeting";
    return kCallBrokenAnswer;
  }
  connection.epoch = welcome.epoch;
  exchange.opened = true;
  return kCallOk;
}

CallStatus ConnectionPool::open(Connection& connection, Exchange& exchange) {
  StreamStatus status = connection.stream.connect(path_, exchange.deadline);
  FrameHeader header;
  header.kind = FrameKind::Hello;
  std::string frame;
  appendFrame(header, encode(hello_), frame);
  bool sentNothing = true;
  if (status == StreamStatus::Ok) {
    status = connection.stream.sendAll(frame.data(), frame.size(), exchange.deadline, sentNothing);
  }
  // A service that refuses the connection says so and closes it, perhaps before it was greeted.
  const std::string problem = connection.stream.problem();
  if (status == StreamStatus::Ok) return welcome(connection, exchange);
  const bool mayBeRefused = status == StreamStatus::Closed && connection.stream.isOpen();
  if (mayBeRefused && welcome(connection, exchange) == kCallRefused) return kCallRefused;
  exchange.problem = status == StreamStatus::Untrusted ? problem : path_ + ": " + problem;
  return statusOf(status);
}

CallStatus ConnectionPool::sendRequest(Connection& connection,
                                       const google::protobuf::MessageLite& request,
                                       Exchange& exchange, bool& stale) {
  FrameHeader header;
  header.kind = exchange.oneWay ? FrameKind::OneWay : FrameKind::Request;
  header.flags = exchange.insideReceiver ? kFlagInsideReceiver : 0;
  header.messageId = exchange.messageId;
  header.sequence = exchange.sequence = ++connection.lastSequence;
  header.revision = exchange.revision;
  if (exchange.revision != kRevisionNow && exchange.knownEpoch != connection.epoch) {
    header.revision = kRevisionNone;
  }
  exchange.epoch = connection.epoch;
  const std::size_t most = PlatformSchema::maxPayloadBytes(exchange.messageId);
  if (!encodeFrame(header, request, connection.outgoing, most)) {
    exchange.problem = PlatformSchema::payloadProblem(exchange.messageId, request.ByteSizeLong());
    return kCallBadRequest;
  }
  bool sentNothing = true;
  const StreamStatus status = connection.stream.sendAll(
      connection.outgoing.data(), connection.outgoing.size(), exchange.deadline, sentNothing);
  // A peer that has closed takes not one byte, so nothing of the request was acted upon.
  stale = status == StreamStatus::Closed && sentNothing;
  if (status != StreamStatus::Ok) exchange.problem = connection.stream.problem();
  return statusOf(status);
}

CallStatus ConnectionPool::receiveResponse(Connection& connection,
                                           google::protobuf::MessageLite& response,
                                           Exchange& exchange) {
  FrameHeader header;
  const StreamStatus status = connection.stream.receiveFrame(header, exchange.deadline);
  if (status != StreamStatus::Ok) {
    exchange.problem = connection.stream.problem();
    return statusOf(status);
  }
  const std::string_view payload = connection.stream.payload();
  exchange.answerRevision = header.revision;
  if (header.sequence != exchange.sequence) {
    exchange.problem = "the answer belongs to another request";
    return kCallBrokenAnswer;
  }
  if (header.kind == FrameKind::Refusal) {
    Refusal refusal;
    exchange.problem = decode(payload, refusal);
    if (exchange.problem.empty()) exchange.problem = refusal.text;
    return kCallRefused;
  }
  return readResponse(header, payload, response, exchange.problem) ? kCallOk : kCallBrokenAnswer;
}

CallStatus ConnectionPool::call(const google::protobuf::MessageLite& request,
                                google::protobuf::MessageLite* response, Exchange& exchange) {
  for (;;) {
    Position position;
    CallStatus status = take(exchange, position);
    if (status != kCallOk) return status;
    Lease lease(*this, position);
    Connection& connection = lease.connection();
    const bool isNew = !connection.stream.isOpen();
    if (isNew) status = open(connection, exchange);
    if (status != kCallOk) return status;
    bool stale = false;
    status = sendRequest(connection, request, exchange, stale);
    if (stale && !isNew) {
      // The service was restarted since: its other connections are dead as well.
      closeIdle();
      continue;
    }
    if (status == kCallOk && !exchange.oneWay) {
      status = receiveResponse(connection, *response, exchange);
    }
    if (status != kCallOk && status != kCallRefused) return status;
    lease.keep(exchange.oneWay ? std::this_thread::get_id() : std::thread::id());
    return status;
  }
}

}  // namespace PbUtility
