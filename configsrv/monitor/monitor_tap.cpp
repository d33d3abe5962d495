// The way in, and what is too seldom to stand in the header.
#include "configsrv/monitor/monitor_tap.h"

namespace ConfigSrv {

using PbUtility::Peer;
using PbUtility::PeerId;

void MonitorTap::onRequest(const PbUtility::IncomingRequest& request) {
  tell([&] { monitor_.requestCame(request); });
  service_.onRequest(request);
}

void MonitorTap::onAnswer(PeerId peer, std::uint32_t question, std::uint32_t messageId,
                          std::string_view payload) {
  tell([&] { monitor_.answerCame(peer, question, messageId, payload); });
  service_.onAnswer(peer, question, messageId, payload);
}

void MonitorTap::onQuestionDone(PeerId peer, std::uint32_t question, bool peerGone) {
  tell([&] { monitor_.questionDone(peer, question, peerGone); });
  service_.onQuestionDone(peer, question, peerGone);
}

Base::Status<> MonitorTap::onGreeting(const Peer& peer) { return service_.onGreeting(peer); }

void MonitorTap::onPeerCame(const Peer& peer) {
  service_.onPeerCame(peer);
  tell([&] { monitor_.peerCame(peer); });
}

// A watcher that goes is not told of itself.
void MonitorTap::onPeerGone(const Peer& peer) {
  service_.onPeerGone(peer);
  monitor_.remove(peer.id);
  tell([&] { monitor_.peerWent(peer); });
}

void MonitorTap::onDeliveryReady(const Peer& peer) { service_.onDeliveryReady(peer); }

void MonitorTap::onFault(PbUtility::Fault kind, const std::string& line) {
  service_.onFault(kind, line);
}

// Who is gone is told nothing, and so no watcher is told of it either.
void MonitorTap::noticeLeaves(PeerId peer, const google::protobuf::MessageLite& notice) {
  if (const Peer* to = server_.peer(peer)) monitor_.noticeLeaves(*to, notice);
}

// Without a number it was not asked.
void MonitorTap::questionLeaves(PeerId peer, std::uint32_t number,
                                const google::protobuf::MessageLite& question) {
  if (number != 0) monitor_.questionLeaves(*server_.peer(peer), number, question);
}

}  // namespace ConfigSrv
