// ServerHandler: what a server does with the messages of its peers, and what it is told of them.
//
// Threads:   the server calls it from whichever thread runs its loop, one at a time.
// Errors:    none; it does not throw.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/status.h"
#include "platform/messaging/serving/peer.h"

namespace PbUtility {

// Where an answer goes: one request of one connection. A plain value that may be kept; answering
// after the connection is gone does nothing.
struct RequestId {
  std::uint64_t connection = 0;
  std::uint32_t sequence = 0;
  // Nobody waits: answers to it are dropped.
  bool oneWay = false;
  // Whose it is, and how long it was: for the peer's count of requests under way.
  PeerId peer = 0;
  std::size_t bytes = 0;
};

struct IncomingRequest {
  RequestId id;
  const Peer& peer;
  std::uint32_t messageId;
  // The peer's delivery thread waits for this request: see kFlagInsideReceiver.
  bool insideReceiver;
  // FrameHeader::revision as the client sent it.
  std::uint64_t revision;
  // Valid until the call returns.
  std::string_view payload;
  // It came over the peer's delivery connection.
  bool overDelivery = false;
};

// What a line about a peer is about: of one kind, there may be many alike.
enum class Fault {
  // It sent what is no frame, or no frame that clients send.
  BadFrame,
  // It did not say who it is.
  NoGreeting,
  // It went away, or stopped, in the middle of a frame.
  HalfFrame,
  // It was refused: its name, its token, a limit on connections.
  Refused,
  // It does not read what is for it.
  NotReading,
  // It does not answer what it is asked.
  NotAnswering,
  // The process or the system is out of something.
  Resources,
};

class ServerHandler {
 public:
  virtual ~ServerHandler() = default;
  // Answer now or later, once, with respond() or refuse(); also a one-way request, whose answer is
  // dropped.
  virtual void onRequest(const IncomingRequest& request) = 0;
  // One of the answers to a question; the payload is valid until the call returns.
  virtual void onAnswer(PeerId peer, std::uint32_t question, std::uint32_t messageId,
                        std::string_view payload) = 0;
  // The question is over: no further answer comes. Called exactly once for each question that
  // ask() took; also, with peerGone, when the peer's delivery connection ends first.
  virtual void onQuestionDone(PeerId peer, std::uint32_t question, bool peerGone) = 0;
  // A peer that is not known yet has greeted; it has no id yet. On a failure it is told the text,
  // and its connection ends. The handler does the logging.
  virtual Base::Status<> onGreeting(const Peer& peer) {
    static_cast<void>(peer);
    return {};
  }
  // The peer's first connection has greeted. Nothing of it was handled before.
  virtual void onPeerCame(const Peer& peer) { static_cast<void>(peer); }
  // The peer's last connection is gone. Its questions were ended before.
  virtual void onPeerGone(const Peer& peer) = 0;
  // The peer can be sent notices and questions from now on; it repeats its registrations next.
  virtual void onDeliveryReady(const Peer& peer) { static_cast<void>(peer); }
  // One line about a fault that was dealt with; no line break.
  virtual void onFault(Fault kind, const std::string& line) = 0;
};

}  // namespace PbUtility
