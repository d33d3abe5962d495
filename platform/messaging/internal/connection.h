// Connection, PeerState: what a server knows of each connection, and of each endpoint that has some.
// Plain records; the server keeps them in order.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <set>
#include <string>

#include "platform/messaging/frame.h"
#include "platform/messaging/internal/buffers.h"
#include "platform/messaging/internal/outbox.h"
#include "platform/messaging/internal/unique_fd.h"
#include "platform/messaging/server.h"

namespace PbUtility {

struct PeerState;

// Whether a connection is listened to.
enum class Intake {
  Open,
  // It has more to say than one turn takes, and waits for its next turn.
  Queued,
  // Its next request waits until there is room.
  Held,
};

// The rest of a request, which waits for room.
struct Postponed {
  RequestId request;
  std::function<void()> run;
};

struct Connection {
  std::uint64_t key = 0;
  UniqueFd fd;
  ucred who{};
  ConnectionUse use = ConnectionUse::Requests;
  // Null until the greeting.
  PeerState* peer = nullptr;
  std::uint64_t greetingTimer = 0;
  std::uint64_t frameTimer = 0;
  // What has come and was not taken yet, and how long the frame is that it begins with, if that is
  // known and not all of it is there.
  std::string incoming;
  std::size_t frameBytes = 0;
  // Bytes of a payload that is longer than its message may be, and that are still to come.
  std::size_t toDrop = 0;
  Intake intake = Intake::Open;
  // What epoll told of it since its last turn, and whether it waits for one.
  std::uint32_t ready = 0;
  bool waitsForTurn = false;
  Outbox outbox;
  bool waitsForRoom = false;
  // Something was written to it that waits for the end of the event, or for the crowd's turn.
  bool willFlush = false;
  std::deque<Postponed> whenRoom;
  // What epoll was told to watch for, and whether it watches at all.
  std::uint32_t events = 0;
  bool watched = true;
  Buffers::Account buffered;
  bool dead = false;

  Owner owner() const { return {who.uid, who.pid}; }
};

struct PeerState {
  Peer peer;
  EndpointToken token{};
  Connection* delivery = nullptr;
  std::set<Connection*> connections;
  std::set<std::uint32_t> openQuestions;
  std::uint32_t lastQuestion = 0;
  // An answer to it waits to be flushed.
  bool isAnswered = false;
  unsigned openRequests = 0;
  std::size_t openRequestBytes = 0;

  Owner owner() const { return {peer.uid, peer.pid}; }
};

}  // namespace PbUtility
