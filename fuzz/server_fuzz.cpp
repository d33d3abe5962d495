// The serving side and its connections: frames in any order and in any pieces, before a greeting and
// after it, from several connections of one client and of others, while the service answers, notifies
// and asks.
#include <algorithm>
#include <array>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "fuzz/clients.h"
#include "fuzz/input.h"
#include "fuzz/mutators.h"
#include "fuzz/steps.h"
#include "platform/messaging/serving/server.h"
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
constexpr int kMaxClosingSteps = 200;
// The name of a client that the handler does not let in.
constexpr std::string_view kUnwanted = "unwanted";

// Answers nothing by itself: the input says when. Checks what a ServerHandler is promised.
class Handler final : public PbUtility::ServerHandler {
 public:
  void onRequest(const PbUtility::IncomingRequest& request) override {
    require(present_.count(request.peer.id) == 1, "a request comes from a peer that came");
    require(request.id.peer == request.peer.id, "a request knows whose it is");
    require(request.id.bytes == request.payload.size(), "a request knows how long it is");
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
  Base::Status<> onGreeting(const PbUtility::Peer& peer) override {
    require(peer.id == 0, "who greets is no peer yet");
    return peer.name == kUnwanted ? Base::failed("not you") : Base::Status<>();
  }
  void onDeliveryReady(const PbUtility::Peer& peer) override {
    require(present_.count(peer.id) == 1, "delivery is ready once the peer has come");
  }
  void onFault(PbUtility::Fault /*kind*/, const std::string& line) override {
    const auto isControl = [](char c) { return static_cast<unsigned char>(c) < 0x20; };
    require(std::none_of(line.begin(), line.end(), isControl), "a fault is logged on one line");
  }

  void asked(PeerId peer, std::uint32_t question) { asked_.insert({peer, question}); }
  PeerId somePeer(std::uint8_t which) const {
    if (present_.empty()) return which;
    return *std::next(present_.begin(), which % static_cast<std::ptrdiff_t>(present_.size()));
  }
  bool owesAnswers() const { return !open_.empty(); }
  // Each request has to be answered once, whether its peer is still there or not.
  PbUtility::RequestId takeRequest(std::uint8_t which) {
    const auto chosen = open_.begin() + which % static_cast<std::ptrdiff_t>(open_.size());
    const PbUtility::RequestId request = *chosen;
    open_.erase(chosen);
    return request;
  }
  bool isEmpty() const { return present_.empty() && asked_.empty(); }

 private:
  std::set<PeerId> present_;
  std::set<std::pair<PeerId, std::uint32_t>> asked_;
  std::deque<PbUtility::RequestId> open_;
};

PbUtility::ServerOptions optionsOf(const Fuzz::Listening& listening) {
  PbUtility::ServerOptions options;
  options.listenFd = listening.handOver();
  options.epoch = 5;
  // Small limits, so that an input reaches them.
  options.maxConnections = 6;
  options.maxConnectionsPerPeer = 2;
  options.maxAnswerBytes = 1U << 20;
  options.maxNotices = 8;
  options.framesPerTurn = 3;
  // A turn that ends by the clock ends elsewhere each time.
  options.turnTime = std::chrono::hours(1);
  options.maxOpenRequests = 4;
  options.maxOpenRequestBytes = 4096;
  options.maxOpenQuestions = 3;
  options.roomBytes = std::size_t{16} << 10;
  options.bufferedBytes.perProcess = std::size_t{2} << 20;
  return options;
}

class Run {
 public:
  explicit Run(Input& input) : input_(input), server_(optionsOf(listening_), handler_) {
    require(server_.open().ok(), "a server adopts a listening socket");
  }

  void run() {
    Fuzz::runSteps(server_, [this] { return step(); });
    require(handler_.isEmpty(), "peers and questions end with their connections");
  }

 private:
  bool step();
  void act();
  void sendFrame(Client& client);
  void sendHello(Client& client);
  void serve();
  void answer(std::uint8_t how, std::uint8_t which);
  void respond(const PbUtility::RequestId& request, std::uint8_t size);

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
    Fuzz::countStep();
    act();
    return true;
  }
  for (Client& client : clients_) {
    client.receive();
    client.close();
  }
  while (handler_.owesAnswers()) answer(0, 0);
  // The server has to take what they sent before they left, and to notice that they are gone.
  const bool tookEnough = closing_ >= 2 && handler_.isEmpty();
  return !tookEnough && closing_++ < kMaxClosingSteps;
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
      client.receive();
      // Together with what comes next, so that the server finds several things at once.
      return what < 128 || input_.isOver() ? void() : act();
    case 6:
      return what < 128 ? client.close() : client.endSending();
    default:
      return serve();
  }
}

void Run::sendHello(Client& client) {
  const std::uint8_t how = input_.byte();
  const auto use = static_cast<PbUtility::ConnectionUse>(how % 4);
  const std::string_view name = how < 112 ? "client" : how < 128 ? kUnwanted : input_.piece();
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
  if (what % 4 < 3) return answer(what, which);
  const PeerId peer = handler_.somePeer(which);
  const std::uint32_t question = server_.ask(peer, ConfigIF::DynamicValidateReq(), 7);
  if (question != 0) handler_.asked(peer, question);
}

void Run::answer(std::uint8_t how, std::uint8_t which) {
  if (!handler_.owesAnswers()) return;
  const PbUtility::RequestId request = handler_.takeRequest(which);
  if (how % 4 == 1) return server_.refuse(request, which, "refused");
  if (how < 128 || server_.hasRoom(request)) return respond(request, how);
  server_.whenRoom(request, [this, request, how] { respond(request, how); });
}

void Run::respond(const PbUtility::RequestId& request, std::uint8_t size) {
  ConfigIF::ReadRsp response;
  for (unsigned i = 0; i < size; ++i) response.add_values(std::string(size, 'v'));
  server_.respond(request, response, 7);
}

}  // namespace

// As Run::act reads them.
Fuzz::InputShape Fuzz::inputShape() {
  return {0, InputShape::Rest::Steps, [](std::string_view bytes) {
            const auto what = static_cast<std::uint8_t>(bytes.front());
            const bool hasName = bytes.size() > 1 && static_cast<std::uint8_t>(bytes[1]) >= 128;
            switch (what / kClients % 8) {
              case 1:
                return hasName ? StepForm{2, Piece::Bytes} : StepForm{2};
              case 2:
                return StepForm{1, Piece::Frames};
              case 3:
              case 4:
                return StepForm{6, Piece::Message};
              case 7:
                return StepForm{3};
              default:
                return StepForm{1};
            }
          }};
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  Run(input).run();
  return 0;
}
