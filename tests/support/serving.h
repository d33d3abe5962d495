// Serving: a real server on a thread of its own, whose answers a test scripts.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/messaging/serving/server.h"

namespace TestSupport {

class Serving : public PbUtility::ServerHandler {
 public:
  // What arrived, copied.
  struct Request {
    PbUtility::RequestId id;
    PbUtility::Peer peer;
    std::uint32_t messageId = 0;
    bool insideReceiver = false;
    std::uint64_t revision = 0;
    std::string payload;
  };
  struct Question {
    PbUtility::PeerId peer = 0;
    std::uint32_t number = 0;
    std::vector<std::string> answers;
    bool done = false;
    bool peerGone = false;
  };

  using Script = std::function<void(PbUtility::Server&, const Request&)>;

  explicit Serving(const std::string& runtimeDir, std::uint64_t epoch = 1);
  // For clients that are waiting for it: the script is there before they are.
  Serving(const std::string& runtimeDir, Script script);
  Serving(PbUtility::ServerOptions options, Script script = nullptr);
  ~Serving() override;

  // How requests are answered, on the serving thread; by default a read is answered with its client
  // name, a registration and a one-way request with success, and all else not at all. To be set
  // before clients come, or from onServer.
  Script onRequestDo;
  std::uint64_t revision = 7;

  // Runs something on the serving thread and waits for it.
  void onServer(const std::function<void(PbUtility::Server&)>& task);

  std::vector<Request> requests() const;
  std::vector<std::string> log() const;
  std::vector<PbUtility::Peer> gone() const;
  std::vector<Question> questions() const;
  // The id of the only peer, once it can be notified; 0 before.
  PbUtility::PeerId readyPeer() const;
  std::uint32_t ask(PbUtility::PeerId peer, const google::protobuf::MessageLite& question);

  void onRequest(const PbUtility::IncomingRequest& request) override;
  void onAnswer(PbUtility::PeerId peer, std::uint32_t question, std::uint32_t messageId,
                std::string_view payload) override;
  void onQuestionDone(PbUtility::PeerId peer, std::uint32_t question, bool peerGone) override;
  void onPeerGone(const PbUtility::Peer& peer) override;
  void onDeliveryReady(const PbUtility::Peer& peer) override;
  void onFault(PbUtility::Fault kind, const std::string& line) override;

 private:
  void answer(const Request& request);
  Question& question(PbUtility::PeerId peer, std::uint32_t number);

  std::unique_ptr<PbUtility::Server> server_;
  mutable std::mutex mutex_;
  std::vector<Request> requests_;
  std::vector<std::string> log_;
  std::vector<PbUtility::Peer> gone_;
  std::vector<Question> questions_;
  PbUtility::PeerId readyPeer_ = 0;
  std::thread thread_;
};

}  // namespace TestSupport
