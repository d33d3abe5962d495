// MonitorTap: the one place where the monitor listens: between the message layer and the service.
//
// The server calls the tap as its handler, and the tap calls the service's; what the service answers,
// tells and asks goes through the tap to the server. Everything passes unchanged.
//
// Cost:     as long as nobody watches, one branch for each message.
// Order:    watchers are told of a request, an answer or a notice before it goes on; of a question once
//           it has a number; of a peer that comes or goes once the service knows of it.
// Threads:  one, that of the server's loop. Owns nothing: all that it is made of outlives it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "base/status.h"
#include "configsrv/monitor/monitor.h"
#include "platform/messaging/serving/server.h"

namespace ConfigSrv {

class MonitorTap final : public PbUtility::ServerHandler {
 public:
  // The server may be one that is still to be made: it is used once a message passes.
  MonitorTap(Monitor& monitor, PbUtility::ServerHandler& service, PbUtility::Server& server)
      : monitor_(monitor), service_(service), server_(server) {}

  // --- What goes out: as in Server ---
  void respond(const PbUtility::RequestId& request, const google::protobuf::MessageLite& response,
               std::uint64_t revision) {
    tell([&] { monitor_.responseLeaves(request, response); });
    server_.respond(request, response, revision);
  }
  void refuse(const PbUtility::RequestId& request, std::uint32_t error, const std::string& text) {
    tell([&] { monitor_.requestRefused(request, error, text); });
    server_.refuse(request, error, text);
  }
  void notify(PbUtility::PeerId peer, const google::protobuf::MessageLite& notice,
              std::uint64_t revision, const std::string& coalescingKey) {
    tell([&] { noticeLeaves(peer, notice); });
    server_.notify(peer, notice, revision, coalescingKey);
  }
  std::uint32_t ask(PbUtility::PeerId peer, const google::protobuf::MessageLite& question,
                    std::uint64_t revision) {
    const std::uint32_t number = server_.ask(peer, question, revision);
    tell([&] { questionLeaves(peer, number, question); });
    return number;
  }

  // --- What comes in: PbUtility::ServerHandler ---
  void onRequest(const PbUtility::IncomingRequest& request) override;
  void onAnswer(PbUtility::PeerId peer, std::uint32_t question, std::uint32_t messageId,
                std::string_view payload) override;
  void onQuestionDone(PbUtility::PeerId peer, std::uint32_t question, bool peerGone) override;
  Base::Status<> onGreeting(const PbUtility::Peer& peer) override;
  void onPeerCame(const PbUtility::Peer& peer) override;
  void onPeerGone(const PbUtility::Peer& peer) override;
  void onDeliveryReady(const PbUtility::Peer& peer) override;
  void onFault(PbUtility::Fault kind, const std::string& line) override;

 private:
  template <typename Tell>
  void tell(const Tell& tell) {
    if (monitor_.isActive()) tell();
  }
  void noticeLeaves(PbUtility::PeerId peer, const google::protobuf::MessageLite& notice);
  void questionLeaves(PbUtility::PeerId peer, std::uint32_t number,
                      const google::protobuf::MessageLite& question);

  Monitor& monitor_;
  PbUtility::ServerHandler& service_;
  PbUtility::Server& server_;
};

}  // namespace ConfigSrv
