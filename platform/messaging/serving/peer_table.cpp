// Peers are looked for by their id with each message, and by their token only when somebody greets; so
// the tokens' map owns them, and the ids' map points there.
#include "platform/messaging/serving/internal/peer_table.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

#include "platform/messaging/serving/internal/connection.h"

namespace PbUtility {

PeerTable::PeerTable(const ServerOptions& options)
    : options_(options), questionShares_("open questions", options.openQuestions, ::geteuid()) {}

PeerState* PeerTable::find(PeerId id) const {
  const auto found = byId_.find(id);
  return found == byId_.end() ? nullptr : found->second;
}

PeerState* PeerTable::find(const EndpointToken& token) const {
  const auto found = byToken_.find(token);
  return found == byToken_.end() ? nullptr : found->second.get();
}

std::vector<ConnectedPeer> PeerTable::connected() const {
  std::vector<ConnectedPeer> connected;
  connected.reserve(byId_.size());
  for (const auto& [id, state] : byId_) {
    connected.push_back({state->peer, state->delivery != nullptr});
  }
  std::sort(connected.begin(), connected.end(),
            [](const ConnectedPeer& a, const ConnectedPeer& b) { return a.peer.id < b.peer.id; });
  return connected;
}

Refusal PeerTable::whyNotJoin(const PeerState& peer, const Peer& claimed) const {
  const Peer& known = peer.peer;
  if (known.pid != claimed.pid || known.uid != claimed.uid || known.gid != claimed.gid ||
      known.name != claimed.name) {
    return {kRefusedByRight, "it claims to be client \"" + known.name + "\" of another process"};
  }
  if (peer.connections.size() < options_.maxConnectionsPerPeer) return {};
  return {kRefusedByLimit, "it has " + std::to_string(options_.maxConnectionsPerPeer) +
                               " connections already, which is the limit"};
}

PeerState& PeerTable::add(const EndpointToken& token, Peer peer) {
  auto state = std::make_unique<PeerState>();
  state->token = token;
  state->peer = std::move(peer);
  state->peer.id = ++lastPeer_;
  PeerState& added = *state;
  byId_.emplace(added.peer.id, &added);
  byToken_.emplace(token, std::move(state));
  return added;
}

std::unique_ptr<PeerState> PeerTable::remove(PeerState& peer) {
  const auto found = byToken_.find(peer.token);
  std::unique_ptr<PeerState> state = std::move(found->second);
  byToken_.erase(found);
  byId_.erase(state->peer.id);
  return state;
}

bool PeerTable::endRequest(PeerState& peer, const RequestId& request) const {
  if (peer.openRequests == 0) return false;
  const bool othersWait = isBusy(peer);
  --peer.openRequests;
  peer.openRequestBytes -= std::min(request.bytes, peer.openRequestBytes);
  return othersWait;
}

Base::Status<> PeerTable::mayBeAsked(const PeerState& peer) const {
  if (peer.openQuestions.size() < options_.maxOpenQuestions)
    return questionShares_.room(peer.owner());
  return Base::failed("it has " + std::to_string(options_.maxOpenQuestions) +
                      " questions to answer");
}

std::uint32_t PeerTable::nextQuestion(PeerState& peer) {
  if (++peer.lastQuestion == 0) ++peer.lastQuestion;
  return peer.lastQuestion;
}

void PeerTable::openQuestion(PeerState& peer, std::uint32_t question) {
  peer.openQuestions.insert(question);
  questionShares_.add(peer.owner());
}

bool PeerTable::isOpen(const PeerState& peer, std::uint32_t question) {
  return peer.openQuestions.count(question) != 0;
}

void PeerTable::endQuestion(PeerState& peer, std::uint32_t question) {
  peer.openQuestions.erase(question);
  questionShares_.remove(peer.owner());
}

std::set<std::uint32_t> PeerTable::endQuestions(PeerState& peer) {
  questionShares_.remove(peer.owner(), peer.openQuestions.size());
  return std::exchange(peer.openQuestions, {});
}

std::string nameOf(const Connection& connection) {
  const std::string who =
      "pid " + std::to_string(connection.who.pid) + ", uid " + std::to_string(connection.who.uid);
  if (connection.peer == nullptr) return "a client that has not greeted (" + who + ")";
  return "client \"" + connection.peer->peer.name + "\" (" + who + ")";
}

}  // namespace PbUtility
