#include "fuzz/service_harness.h"

#include <algorithm>
#include <utility>

#include "appconfig/core/key_notation.h"
#include "fuzz/definitions.h"
#include "fuzz/input.h"

namespace Fuzz {
namespace {

using namespace ConfigSrv;
using PbUtility::PeerId;

PbUtility::ServerOptions serverOptions(int listenFd) {
  PbUtility::ServerOptions options;
  options.listenFd = listenFd;
  options.epoch = 5;
  options.maxNotices = 64;
  return options;
}

void requireOneLine(const std::string& line) {
  const auto isControl = [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; };
  require(std::none_of(line.begin(), line.end(), isControl), "a log line is one line", line);
}

// The one of configsrvd: control characters are escaped before the sink sees the line.
Log::Sink checkingSink() {
  return [](LogLevel, const std::string& line) { requireOneLine(line); };
}

ServiceOptions serviceOptions() {
  ServiceOptions options;
  options.definitionsDir = "definitions.d";
  options.storeFile = "store.db";
  return options;
}

void requireSame(const Variable& a, const Variable& b) {
  const std::string name = AppConfig::formatKey(a.key());
  require(a.value() == b.value(), "a value survives a restart", name);
  require(a.options() == b.options() && a.defaultIndex() == b.defaultIndex(),
          "options survive a restart", name);
  require(a.readRole() == b.readRole() && a.writeRole() == b.writeRole(),
          "access levels survive a restart", name);
  require(a.changedAt() == b.changedAt(), "revisions survive a restart", name);
}

}  // namespace

ServiceHarness::ServiceHarness(int listenFd)
    : options_(serviceOptions()),
      log_(LogLevel::Debug, checkingSink()),
      model_(definitions()),
      announcer_(model_, subscriptions_, *this),
      changes_(model_, subscriptions_, announcer_, *this, log_),
      server_(serverOptions(listenFd), *this),
      monitor_(model_,
               [this](PeerId to, const ConfigIF::MonitorNtfy& notice) {
                 server_.notify(to, notice, model_.revision(), {});
               }),
      requests_({options_, log_, access_, model_, subscriptions_, announcer_, changes_, monitor_,
                 server_}) {
  require(server_.open().empty(), "a server adopts a listening socket");
}

ServiceHarness::~ServiceHarness() = default;

void ServiceHarness::onAnswer(PeerId peer, std::uint32_t question, std::uint32_t messageId,
                              std::string_view payload) {
  if (monitor_.isActive()) monitor_.answerCame(peer, question, messageId, payload);
  changes_.onAnswer(peer, question, messageId, payload);
}

void ServiceHarness::onQuestionDone(PeerId peer, std::uint32_t question, bool peerGone) {
  if (monitor_.isActive()) monitor_.questionDone(peer, question, peerGone);
  changes_.onQuestionDone(peer, question, peerGone);
}

void ServiceHarness::onPeerCame(const PbUtility::Peer& peer) {
  if (monitor_.isActive()) monitor_.peerCame(peer);
}

void ServiceHarness::onPeerGone(const PbUtility::Peer& peer) {
  subscriptions_.forget(peer.id);
  monitor_.remove(peer.id);
  if (monitor_.isActive()) monitor_.peerWent(peer);
}

std::uint32_t ServiceHarness::ask(PeerId peer, const google::protobuf::MessageLite& question) {
  const std::uint32_t number = server_.ask(peer, question, model_.revision());
  if (number != 0 && monitor_.isActive()) {
    monitor_.questionLeaves(*server_.peer(peer), number, question);
  }
  return number;
}

void ServiceHarness::notify(PeerId peer, const google::protobuf::MessageLite& notice,
                            const std::string& coalescingKey) {
  const PbUtility::Peer* to = server_.peer(peer);
  if (monitor_.isActive() && to != nullptr) monitor_.noticeLeaves(*to, notice);
  server_.notify(peer, notice, model_.revision(), coalescingKey);
}

std::uint64_t ServiceHarness::after(std::chrono::milliseconds /*delay*/,
                                    std::function<void()> task) {
  timers_.emplace(++lastTimer_, std::move(task));
  return lastTimer_;
}

bool ServiceHarness::passDeadline() {
  if (timers_.empty()) return false;
  const std::function<void()> task = std::move(timers_.begin()->second);
  timers_.erase(timers_.begin());
  task();
  return true;
}

bool ServiceHarness::commit(StoreTransaction transaction, CommitDone done) {
  commits_.push_back({std::move(transaction), std::move(done)});
  return true;
}

bool ServiceHarness::endCommit(bool well) {
  if (commits_.empty()) return false;
  const Commit commit = std::move(commits_.front());
  commits_.pop_front();
  if (well) {
    keep(commit.transaction);
    commit.done({}, revision_);
  } else {
    commit.done({StoreCode::kDiskFull, "the disk is full"}, 0);
  }
  return true;
}

void ServiceHarness::keep(const StoreTransaction& transaction) {
  ++revision_;
  for (const StoreChange& change : transaction) {
    applyChange(change, revision_, &kept_.try_emplace(change.key, change.key).first->second);
  }
}

void ServiceHarness::checkState() const {
  std::vector<StoredVariable> stored;
  for (const auto& [key, variable] : kept_) stored.push_back(variable);
  Model restarted(definitions());
  const std::vector<std::string> lines = restarted.restore(std::move(stored), revision_);
  require(lines.empty(), "what was kept can be used again", lines.empty() ? "" : lines.front());
  require(model_.revision() == revision_, "the model is at the revision of the last commit");
  for (const Variable* variable : model_.covered("")) {
    const std::string mistake =
        checkValue(variable->definition(), variable->options(), variable->value());
    require(mistake.empty(), "a variable holds what it may hold", mistake);
    requireSame(*variable, *restarted.find(variable->key()));
  }
}

}  // namespace Fuzz
