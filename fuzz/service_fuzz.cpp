// The service in front of clients that send it every request of the protocol with any payload,
// register, watch, answer its questions or do not, and leave at any time.
//
// Whatever they do: each request that somebody waits for is answered once, each answer is the message
// that belongs to it, and the state stays one that the definitions allow and that the store knows.
#include <array>
#include <map>
#include <utility>

#include "fuzz/clients.h"
#include "fuzz/input.h"
#include "fuzz/messages.h"
#include "fuzz/mutators.h"
#include "fuzz/service_harness.h"
#include "fuzz/steps.h"

namespace {

using Fuzz::Client;
using Fuzz::Input;
using Fuzz::Received;
using Fuzz::require;
using PbUtility::ConnectionUse;
using PbUtility::FrameHeader;
using PbUtility::FrameKind;

constexpr std::size_t kPeers = 3;
constexpr std::size_t kMaxSteps = 300;

// A well-behaved message layer with an application above it that is not: one connection for requests,
// one for delivery.
struct Peer {
  Client requests;
  Client delivery;
  std::uint32_t lastSequence = 0;
  // Message id of each request that is still to be answered.
  std::map<std::uint32_t, std::uint32_t> open;
  // Questions that were not ended: sequence and message id.
  std::map<std::uint32_t, std::uint32_t> questions;
};

class Run {
 public:
  explicit Run(Input& input) : input_(input), service_(listening_.handOver()) {}

  void run() {
    Fuzz::runSteps(service_.server(), [this] { return step(); });
    service_.checkState();
  }

 private:
  bool step();
  bool settle();
  void act();
  void request(Peer& peer, bool oneWay);
  void answer(Peer& peer);
  void end(Peer& peer);
  void open(Peer& peer, std::uint8_t token);
  void readAnswers(Peer& peer);
  void readDeliveries(Peer& peer);
  void takeAnswer(Peer& peer, const Received& frame);

  Input& input_;
  Fuzz::Listening listening_;
  Fuzz::ServiceHarness service_;
  std::array<Peer, kPeers> peers_;
  std::size_t steps_ = 0;
  int idleSteps_ = 0;
};

bool Run::step() {
  if (steps_ == 0) {
    for (std::size_t i = 0; i + 1 < kPeers; ++i) open(peers_[i], static_cast<std::uint8_t>(i));
  }
  if (!input_.isOver() && steps_++ < kMaxSteps) {
    Fuzz::countStep();
    act();
    return true;
  }
  return settle();
}

// Lets all that is under way come to its end: commits end, deadlines pass.
bool Run::settle() {
  const bool busy = service_.endCommit(true) || service_.passDeadline();
  idleSteps_ = busy ? 0 : idleSteps_ + 1;
  for (Peer& peer : peers_) {
    readAnswers(peer);
    readDeliveries(peer);
  }
  // After some idle steps the service has handled what they sent last.
  if (idleSteps_ < 3) return true;
  require(service_.changesUnderWay() == 0, "every change comes to its end");
  for (Peer& peer : peers_) {
    require(!peer.requests.isOpen() || peer.open.empty(), "every request is answered");
  }
  return false;
}

void Run::act() {
  const std::uint8_t what = input_.byte();
  Peer& peer = peers_[what % kPeers];
  switch (what / kPeers % 12) {
    case 6:
      return answer(peer);
    case 7:
      return end(peer);
    case 8:
      return static_cast<void>(service_.endCommit(what < 200));
    case 9:
      return static_cast<void>(service_.passDeadline());
    case 10:
      readAnswers(peer);
      readDeliveries(peer);
      // Together with what comes next, so that the service finds several things at once.
      return what < 128 || input_.isOver() ? void() : act();
    case 11:
      return open(peer, what / 64);
    default:
      return request(peer, what >= 216);
  }
}

// The token may be another peer's: two of them are one client then.
void Run::open(Peer& peer, std::uint8_t token) {
  peer = Peer();
  const std::string name(1, static_cast<char>('a' + token));
  peer.requests.open(listening_);
  peer.requests.send(Fuzz::helloOf(ConnectionUse::Requests, token, name));
  peer.delivery.open(listening_);
  peer.delivery.send(Fuzz::helloOf(ConnectionUse::Delivery, token, name));
}

void Run::request(Peer& peer, bool oneWay) {
  const std::uint8_t which = input_.byte();
  const std::uint8_t how = input_.byte();
  const auto& ids = Fuzz::requestIds();
  FrameHeader header;
  header.kind = oneWay ? FrameKind::OneWay : FrameKind::Request;
  header.messageId = which < 250 ? ids[which % ids.size()] : 0x1A0000U + which;
  header.sequence = ++peer.lastSequence;
  header.flags = how % 2;
  header.revision = how < 64    ? PbUtility::kRevisionNow
                    : how < 128 ? PbUtility::kRevisionNone
                                : how / 16 - 8;
  if (!oneWay && peer.requests.isOpen()) peer.open[header.sequence] = header.messageId;
  peer.requests.send(Fuzz::frameOf(header, input_.piece()));
}

// Answers the oldest question, or one that nobody asked, which ends the connection.
void Run::answer(Peer& peer) {
  const std::uint8_t how = input_.byte();
  FrameHeader header;
  header.kind = FrameKind::Answer;
  header.sequence = peer.questions.empty() ? how : peer.questions.begin()->first;
  header.messageId = peer.questions.empty() ? 0x1A0101 : peer.questions.begin()->second + 1;
  if (how > 240) header.messageId += how;
  peer.delivery.send(Fuzz::frameOf(header, input_.piece()));
}

void Run::end(Peer& peer) {
  if (peer.questions.empty()) return;
  FrameHeader header;
  header.kind = FrameKind::Done;
  header.sequence = peer.questions.begin()->first;
  peer.questions.erase(peer.questions.begin());
  peer.delivery.send(Fuzz::frameOf(header, {}));
}

void Run::takeAnswer(Peer& peer, const Received& frame) {
  if (frame.header.kind == FrameKind::Welcome) return;
  // A greeting that was refused: no token may be shared by two names.
  if (frame.header.kind == FrameKind::Refusal && frame.header.sequence == 0) return;
  const auto found = peer.open.find(frame.header.sequence);
  require(found != peer.open.end(), "an answer belongs to a request, which has no other");
  if (frame.header.kind == FrameKind::Response) {
    require(frame.header.messageId == found->second + 1, "an answer is of its request's kind");
    Fuzz::requireMessage(frame.header.messageId, frame.payload);
  }
  peer.open.erase(found);
}

void Run::readAnswers(Peer& peer) {
  for (const Received& frame : peer.requests.receive()) takeAnswer(peer, frame);
  if (peer.requests.isClosedByService()) peer.requests.close();
}

void Run::readDeliveries(Peer& peer) {
  for (const Received& frame : peer.delivery.receive()) {
    if (frame.header.kind != FrameKind::Notice && frame.header.kind != FrameKind::Question)
      continue;
    Fuzz::requireMessage(frame.header.messageId, frame.payload);
    if (frame.header.kind == FrameKind::Question) {
      peer.questions.emplace(frame.header.sequence, frame.header.messageId);
    }
  }
  if (peer.delivery.isClosedByService()) peer.delivery.close();
}

}  // namespace

// As Run::act reads them.
Fuzz::InputShape Fuzz::inputShape() {
  return {0, InputShape::Rest::Steps, [](std::string_view bytes) {
            const std::size_t action = static_cast<std::uint8_t>(bytes.front()) / kPeers % 12;
            if (action < 6) return StepForm{3, Piece::Message};
            return action == 6 ? StepForm{2, Piece::Message} : StepForm{1};
          }};
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  Run(input).run();
  return 0;
}
