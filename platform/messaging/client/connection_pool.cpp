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

CallStatus codeOf(StreamStatus status) {
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
    case StreamStatus::Forbidden:
      return kCallForbidden;
    case StreamStatus::Broken:
      return kCallBrokenAnswer;
    case StreamStatus::Exhausted:
      return kCallBadEndpoint;
  }
  return kCallBrokenAnswer;
}

CallOutcome outcomeOf(StreamStatus status, const Stream& stream) {
  if (status == StreamStatus::Ok) return {};
  return {codeOf(status), stream.problem()};
}

CallOutcome readResponse(const FrameHeader& header, std::string_view payload,
                         google::protobuf::MessageLite& response) {
  using PlatformSchema::Reading;
  constexpr const char* kOther = "the answer is not the response that belongs to the request";
  const bool isResponse = header.kind == FrameKind::Response &&
                          header.messageId == PlatformSchema::messageIdOf(response);
  if (!isResponse) return {kCallBrokenAnswer, kOther};
  Base::Status<Reading> read = PlatformSchema::readMessage(header.messageId, payload, response);
  if (read.ok()) return {};
  return {kCallBrokenAnswer, read.code == Reading::NoMessage ? kOther : std::move(read.text)};
}

// The service's words, or what is wrong with them.
CallOutcome refused(std::string_view payload) {
  Refusal refusal;
  Base::Status<> decoded = decode(payload, refusal);
  return {kCallRefused, std::move(decoded.ok() ? refusal.text : decoded.text)};
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

CallOutcome ConnectionPool::take(Exchange& exchange, Position& connection) {
  const Base::MutexLock guard(mutex_);
  for (;;) {
    bool mustWait = false;
    if (findIdle(exchange.insideReceiver, connection, mustWait)) break;
    if (!mustWait && (exchange.insideReceiver || !isFull())) {
      connection = connections_.emplace(connections_.begin());
      useOf(*connection).forReceivers = exchange.insideReceiver;
      break;
    }
    if (!freed_.waitUntil(guard, exchange.deadline))
      return {kCallTimedOut, "all connections to the service were busy"};
  }
  useOf(*connection).busy = true;
  return {};
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

CallOutcome ConnectionPool::welcome(Connection& connection, Exchange& exchange) {
  FrameHeader header;
  const StreamStatus status = connection.stream.receiveFrame(header, exchange.deadline);
  if (status != StreamStatus::Ok)
    return {codeOf(status), path_ + ": " + connection.stream.problem()};
  const std::string_view payload = connection.stream.payload();
  if (header.kind == FrameKind::Refusal) return refused(payload);
  Welcome welcome;
  if (header.kind != FrameKind::Welcome || !decode(payload, welcome).ok())
    return {kCallBrokenAnswer, "the service did not answer the greeting"};
  connection.epoch = welcome.epoch;
  exchange.opened = true;
  return {};
}

CallOutcome ConnectionPool::open(Connection& connection, Exchange& exchange) {
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
  if (mayBeRefused) {
    CallOutcome welcomed = welcome(connection, exchange);
    if (welcomed.code == kCallRefused) return welcomed;
  }
  return {codeOf(status), status == StreamStatus::Untrusted ? problem : path_ + ": " + problem};
}

CallOutcome ConnectionPool::sendRequest(Connection& connection,
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
    return {kCallBadRequest,
            PlatformSchema::checkPayloadBytes(exchange.messageId, request.ByteSizeLong()).text};
  }
  bool sentNothing = true;
  const StreamStatus status = connection.stream.sendAll(
      connection.outgoing.data(), connection.outgoing.size(), exchange.deadline, sentNothing);
  // A peer that has closed takes not one byte, so nothing of the request was acted upon.
  stale = status == StreamStatus::Closed && sentNothing;
  return outcomeOf(status, connection.stream);
}

CallOutcome ConnectionPool::receiveResponse(Connection& connection,
                                            google::protobuf::MessageLite& response,
                                            Exchange& exchange) {
  FrameHeader header;
  const StreamStatus status = connection.stream.receiveFrame(header, exchange.deadline);
  if (status != StreamStatus::Ok) return outcomeOf(status, connection.stream);
  const std::string_view payload = connection.stream.payload();
  exchange.answerRevision = header.revision;
  if (header.sequence != exchange.sequence)
    return {kCallBrokenAnswer, "the answer belongs to another request"};
  if (header.kind == FrameKind::Refusal) return refused(payload);
  return readResponse(header, payload, response);
}

CallOutcome ConnectionPool::call(const google::protobuf::MessageLite& request,
                                 google::protobuf::MessageLite* response, Exchange& exchange) {
  for (;;) {
    Position position;
    CallOutcome taken = take(exchange, position);
    if (!taken.ok()) return taken;
    Lease lease(*this, position);
    Connection& connection = lease.connection();
    const bool isNew = !connection.stream.isOpen();
    CallOutcome opened = isNew ? open(connection, exchange) : CallOutcome{};
    if (!opened.ok()) return opened;
    bool stale = false;
    CallOutcome sent = sendRequest(connection, request, exchange, stale);
    if (stale && !isNew) {
      // The service was restarted since: its other connections are dead as well.
      closeIdle();
      continue;
    }
    if (!sent.ok()) return sent;
    CallOutcome outcome =
        exchange.oneWay ? CallOutcome{} : receiveResponse(connection, *response, exchange);
    if (!outcome.ok() && outcome.code != kCallRefused) return outcome;
    lease.keep(exchange.oneWay ? std::this_thread::get_id() : std::thread::id());
    return outcome;
  }
}

}  // namespace PbUtility
