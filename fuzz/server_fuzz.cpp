// The serving side and its connections: frames in any order and in any pieces, before a greeting and
// after it, from several connections of one client and of others, while the service answers, notifies
// and asks.
#include <algorithm>
#include <array>
#include <deque>
#include <map>
#include <set>
#include <utility>

#include "fuzz/clients.h"
#include "fuzz/input.h"
#include "platform/messaging/server.h"
#include "platform/schema/config_if.pb.h"

namespace {

using Fuzz::Client;
using Fuzz::Input;
using Fuzz::require;
using PbUtility::FrameHeader;
using PbUtility::FrameKind;
using PbUtility::PeerId;

constexpr std::size_t kClients = 4;
constexpr std::size_t kMaxSteps = 400;

// Answers nothing by itself: the input says when. Checks what a ServerHandler is promised.
class Handler final : public PbUtility::ServerHandler {
 public:
  void onRequest(const PbUtility::IncomingRequest& request) override {
    require(present_.count(request.peer.id) == 1, "a request comes from a peer that came");
    open_.push_back(request.id);
  }
  void onAnswer(PeerId peer, std::uint32_t question, std::uint32_t /*messageId*/,
                std::string_view /*payload*/) override {
    require(asked_.count({peer, question}) == 1, "an answer is one to an open question");
  }
  void onQuestionDone(PeerId peer, std::uint32_t question, bool /*peerGone*/) override {
    require(asked_.erase({peer, question}) == 1, "each question ends once");
  }
  void onPeerCame(const PbUtility::Peer& peer) override {
    require(present_.insert(peer.id).second, "a peer comes once");
  }
  void onPeerGone(const PbUtility::Peer& peer) override {
    require(present_.erase(peer.id) == 1, "a peer that goes had come");
    for (const auto& [id, question] : asked_) {
      require(id != peer.id, "the questions of a peer end before it goes");
    }
  }
  void onLog(const std::string& line) override {
    const auto isControl = [](char c) { return static_cast<unsigned char>(c) < 0x20; };
    require(std::none_of(line.begin(), line.end(), isControl), "a fault is logged on one line");
  }

  void asked(PeerId peer, std::uint32_t question) { asked_.insert({peer, question}); }
  PeerId somePeer(std::uint8_t which) const {
    if (present_.empty()) return which;
    return *std::next(present_.begin(), which % static_cast<std::ptrdiff_t>(present_.size()));
  }
  // Answered or not, a request may be answered at any time.
  PbUtility::RequestId someRequest(std::uint8_t which) const {
    return open_.empty() ? PbUtility::RequestId{which, which, false} : open_[which % open_.size()];
  }
  void expectEmpty() const {
    require(present_.empty() && asked_.empty(), "peers and questions end with their connections");
  }

 private:
  std::set<PeerId> present_;
  std::set<std::pair<PeerId, std::uint32_t>> asked_;
  std::deque<PbUtility::RequestId> open_;
};

PbUtility::ServerOptions optionsOf(const Fuzz::Listening& listening) {
  PbUtility::ServerOptions options;
  options.listenFd = listening.handOver();
  options.epoch = 5;
  // Small, so that an input reaches them.
  options.maxConnections = 6;
  options.maxConnectionsPerPeer = 2;
  options.maxAnswerBytes = 1U << 20;
  options.maxNotices = 8;
  return options;
}

class Run {
 public:
  explicit Run(Input& input) : input_(input), server_(optionsOf(listening_), handler_) {
    require(server_.open().empty(), "a server adopts a listening socket");
  }

  void run() {
    Fuzz::runSteps(server_, [this] { return step(); });
    handler_.expectEmpty();
  }

 private:
  bool step();
  void act();
  void sendFrame(Client& client);
  void sendHello(Client& client);
  void serve();

  Input& input_;
  Fuzz::Listening listening_;
  Handler handler_;
  PbUtility::Server server_;
  std::array<Client, kClients> clients_;
  std::size_t steps_ = 0;
  int closing_ = 0;
};

bool Run::step() {
  if (!input_.isOver() && steps_++ < kMaxSteps) {
    act();
    return true;
  }
  for (Client& client : clients_) {
    client.receive();
    client.close();
  }
  // The server has to see that they are gone.
  return closing_++ < 2;
}

void Run::act() {
  const std::uint8_t what = input_.byte();
  Client& client = clients_[what % kClients];
  switch (what / kClients % 8) {
    case 0:
      return client.open(listening_);
    case 1:
      return sendHello(client);
    case 2:
      return client.send(input_.piece());
    case 3:
    case 4:
      return sendFrame(client);
    case 5:
      return static_cast<void>(client.receive());
    case 6:
      return what < 128 ? client.close() : client.endSending();
    default:
      return serve();
  }
}

void Run::sendHello(Client& client) {
  const std::uint8_t how = input_.byte();
  const auto use = static_cast<PbUtility::ConnectionUse>(how % 4);
  const std::string_view name = how < 128 ? "client" : input_.piece();
  client.send(Fuzz::helloOf(use, how / 4 % 3, name));
}

void Run::sendFrame(Client& client) {
  FrameHeader header;
  header.kind = static_cast<FrameKind>(input_.byte() % 12);
  header.flags = input_.byte() % 4;
  header.messageId = 0x1A0000U + input_.number();
  header.sequence = input_.byte();
  client.send(Fuzz::frameOf(header, input_.piece()));
}

// What the service does of its own accord.
void Run::serve() {
  const std::uint8_t what = input_.byte();
  const std::uint8_t which = input_.byte();
  ConfigIF::ConfigChangedNtfy notice;
  notice.set_callback_identity(std::string(std::size_t{which} * 64, 'x'));
  if (what % 4 == 0) {
    return server_.notify(handler_.somePeer(which), notice, 7, what < 128 ? "" : "key");
  }
  if (what % 4 == 1) return server_.refuse(handler_.someRequest(which), which, "refused");
  if (what % 4 == 2) {
    ConfigIF::ReadRsp response;
    for (unsigned i = 0; i < which; ++i) response.add_values(std::string(what, 'v'));
    return server_.respond(handler_.someRequest(which), response, 7);
  }
  const PeerId peer = handler_.somePeer(which);
  const std::uint32_t question = server_.ask(peer, ConfigIF::DynamicValidateReq(), 7);
  if (question != 0) handler_.asked(peer, question);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  Run(input).run();
  return 0;
}
