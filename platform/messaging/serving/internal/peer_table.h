// PeerTable: the peers of a server: which connections each has, how many of its requests are under way,
// and which questions it has not done with.
//
// A peer comes with the first connection that greets with its token, and goes with its last. Only
// connections of the same process and user may join it, whatever token they show.
//
// Threads:   one at a time, whichever runs the server's loop.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/status.h"
#include "platform/messaging/serving/peer.h"
#include "platform/messaging/serving/server_handler.h"
#include "platform/messaging/serving/server_options.h"
#include "platform/messaging/serving/shares.h"
#include "platform/messaging/wire/frame.h"

namespace PbUtility {

class Connection;

struct PeerState {
  Peer peer;
  EndpointToken token{};
  // For notices and questions; null while it has none.
  Connection* delivery = nullptr;
  std::set<Connection*> connections;
  std::set<std::uint32_t> openQuestions;
  std::uint32_t lastQuestion = 0;
  unsigned openRequests = 0;
  std::size_t openRequestBytes = 0;
  // An answer to it waits to be flushed. A note of FlushQueue.
  bool isAnswered = false;

  Owner owner() const { return {peer.uid, peer.pid}; }
};

class PeerTable {
 public:
  explicit PeerTable(const ServerOptions& options);

  // Null when there is no such peer.
  PeerState* find(PeerId id) const;
  PeerState* find(const EndpointToken& token) const;
  std::size_t size() const { return byId_.size(); }
  // In the order in which they came.
  std::vector<ConnectedPeer> connected() const;

  // Why a connection of somebody who claims to be this peer may not join it; error 0 when it may.
  Refusal whyNotJoin(const PeerState& peer, const Peer& claimed) const;
  // A peer that nobody knew; gets its id.
  PeerState& add(const EndpointToken& token, Peer peer);
  // Hands the peer out, whose connections are all gone.
  std::unique_ptr<PeerState> remove(PeerState& peer);

  // A request of the peer was taken, and is under way until endRequest.
  static void beginRequest(PeerState& peer, const RequestId& request) {
    ++peer.openRequests;
    peer.openRequestBytes += request.bytes;
  }
  // Whether its other requests may go on now, which had to wait for the end of this one.
  bool endRequest(PeerState& peer, const RequestId& request) const;
  // Whether it has as many requests under way as it may.
  bool isBusy(const PeerState& peer) const {
    return peer.openRequests >= options_.maxOpenRequests ||
           peer.openRequestBytes >= options_.maxOpenRequestBytes;
  }

  // Whether the peer may be asked one question more.
  Base::Status<> mayBeAsked(const PeerState& peer) const;
  // The number of the next question, never 0; once asked, it is open until the peer is done with it.
  static std::uint32_t nextQuestion(PeerState& peer);
  void openQuestion(PeerState& peer, std::uint32_t question);
  static bool isOpen(const PeerState& peer, std::uint32_t question);
  void endQuestion(PeerState& peer, std::uint32_t question);
  // Ends all that are open, and says which.
  std::set<std::uint32_t> endQuestions(PeerState& peer);

 private:
  const ServerOptions& options_;
  Shares questionShares_;
  PeerId lastPeer_ = 0;
  std::map<EndpointToken, std::unique_ptr<PeerState>> byToken_;
  std::unordered_map<PeerId, PeerState*> byId_;
};

// A connection, for people: its peer's name, if it has greeted, and the kernel's word for who it is.
std::string nameOf(const Connection& connection);

}  // namespace PbUtility
