// A PbUtility::Server whose loop runs on a thread of this object. Everything that touches the
// server is posted to that thread and waited for, as the server is not to be called from others.
#include "tests/support/serving.h"

#include <cstdio>
#include <cstdlib>
#include <future>

#include "platform/schema/config_if.pb.h"
#include "platform/schema/message_ids.h"

namespace TestSupport {
namespace {

PbUtility::ServerOptions optionsFor(const std::string& runtimeDir, std::uint64_t epoch) {
  PbUtility::ServerOptions options;
  options.runtimeDir = runtimeDir;
  options.name = "ConfigSrvc";
  options.epoch = epoch;
  return options;
}

}  // namespace

Serving::Serving(const std::string& runtimeDir, std::uint64_t epoch)
    : Serving(optionsFor(runtimeDir, epoch)) {}

Serving::Serving(const std::string& runtimeDir, Script script)
    : Serving(optionsFor(runtimeDir, 1), std::move(script)) {}

Serving::Serving(PbUtility::ServerOptions options, Script script)
    : onRequestDo(std::move(script)),
      server_(std::make_unique<PbUtility::Server>(std::move(options), *this)) {
  const Base::Status<> opened = server_->open();
  if (!opened.ok()) {
    std::fprintf(stderr, "serving: %s\n", opened.text.c_str());
    std::abort();
  }
  thread_ = std::thread([this] { server_->run(); });
}

Serving::~Serving() {
  server_->stop();
  thread_.join();
}

void Serving::onServer(const std::function<void(PbUtility::Server&)>& task) {
  std::promise<void> ran;
  server_->post([&] {
    task(*server_);
    ran.set_value();
  });
  ran.get_future().wait();
}

std::uint32_t Serving::ask(PbUtility::PeerId peer, const google::protobuf::MessageLite& question) {
  std::uint32_t number = 0;
  onServer([&](PbUtility::Server& server) { number = server.ask(peer, question, revision); });
  return number;
}

void Serving::answer(const Request& request) {
  if (onRequestDo) return onRequestDo(*server_, request);
  if (request.messageId == 0x1A0110) {
    ConfigIF::ReadReq read;
    read.ParseFromString(request.payload);
    ConfigIF::ReadRsp response;
    response.add_values(read.client_name());
    return server_->respond(request.id, response, revision);
  }
  // Nobody hears it, but it tells the server that the request has ended.
  if (request.id.oneWay) return server_->respond(request.id, ConfigIF::WriteRsp(), revision);
  if (PlatformSchema::isRepeatedOnReconnect(request.messageId)) {
    server_->respond(request.id, ConfigIF::RegisterClientCallbackRsp(), revision);
  }
}

void Serving::onRequest(const PbUtility::IncomingRequest& incoming) {
  const Request request{incoming.id,        incoming.peer,
                        incoming.messageId, incoming.insideReceiver,
                        incoming.revision,  std::string(incoming.payload)};
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    requests_.push_back(request);
  }
  answer(request);
}

Serving::Question& Serving::question(PbUtility::PeerId peer, std::uint32_t number) {
  for (Question& known : questions_) {
    if (known.peer == peer && known.number == number) return known;
  }
  questions_.push_back({peer, number, {}, false, false});
  return questions_.back();
}

void Serving::onAnswer(PbUtility::PeerId peer, std::uint32_t number, std::uint32_t /*messageId*/,
                       std::string_view payload) {
  const std::lock_guard<std::mutex> guard(mutex_);
  question(peer, number).answers.emplace_back(payload);
}

void Serving::onQuestionDone(PbUtility::PeerId peer, std::uint32_t number, bool peerGone) {
  const std::lock_guard<std::mutex> guard(mutex_);
  question(peer, number).done = true;
  question(peer, number).peerGone = peerGone;
}

void Serving::onPeerGone(const PbUtility::Peer& peer) {
  const std::lock_guard<std::mutex> guard(mutex_);
  gone_.push_back(peer);
}

void Serving::onDeliveryReady(const PbUtility::Peer& peer) {
  const std::lock_guard<std::mutex> guard(mutex_);
  readyPeer_ = peer.id;
}

void Serving::onFault(PbUtility::Fault /*kind*/, const std::string& line) {
  const std::lock_guard<std::mutex> guard(mutex_);
  log_.push_back(line);
}

std::vector<Serving::Request> Serving::requests() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return requests_;
}

std::vector<std::string> Serving::log() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return log_;
}

std::vector<PbUtility::Peer> Serving::gone() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return gone_;
}

std::vector<Serving::Question> Serving::questions() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return questions_;
}

PbUtility::PeerId Serving::readyPeer() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return readyPeer_;
}

}  // namespace TestSupport
