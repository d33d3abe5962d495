// Ties the service's objects together, and after each step checks what has to hold whatever came
// in.
//
// Definitions and store are made once for all runs, and the model once for all that commit nothing:
// only a commit changes it. All else is each run's own. Log and audit record are checked line by line;
// at the end of a run a second model is restored from what commits kept and has to equal the
// first.
#include "fuzz/service_harness.h"

#include <algorithm>
#include <memory>
#include <sstream>
#include <utility>

#include "appconfig/core/key_notation.h"
#include "configsrv/store/store.h"
#include "fuzz/definitions.h"
#include "fuzz/files.h"
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
  // A turn that ends by the clock ends elsewhere each time.
  options.turnTime = std::chrono::hours(1);
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

// Opened once for all runs, which ask it for nothing but its counters.
struct Surroundings {
  Surroundings() {
    StoreOptions options;
    options.file = files.path("store.db");
    store = Store::open(options).store;
    require(store != nullptr, "a new store is opened");
  }

  Files files;
  std::unique_ptr<Store> store;
};

const Surroundings& surroundings() {
  static const Surroundings all;
  return all;
}

constexpr const char* kAuditName = "audit.jsonl";

// Each run begins with an empty record.
ServiceOptions serviceOptions() {
  const Files& files = surroundings().files;
  ServiceOptions options;
  options.definitionsDirs = {"definitions.d"};
  options.storeFile = files.path("store.db");
  options.auditFile = files.path(kAuditName);
  files.write(kAuditName, "");
  return options;
}

// Stored variables that earlier definitions allowed and the present ones do not, in part or as a
// whole.
std::vector<StoredVariable> leftovers() {
  StoredVariable mtu(ConfigVar("net", 0, "mtu", 0));
  mtu.value = {"70000"};
  StoredVariable mode(ConfigVar("net", 0, "mode", 0));
  mode.options = {"eco", "manual", "boost"};
  mode.defaultIndex = 2;
  mode.value = {"other"};
  StoredVariable name(ConfigVar("net", 0, "name", 0));
  name.options = {"a", "b"};
  name.value = {"B"};
  return {mtu, mode, name};
}

// As each run finds it: what was committed raises the revision, and such a model is thrown away.
Model& unchangedModel() {
  static std::unique_ptr<Model> model;
  if (model == nullptr || model->revision() != 0) {
    model = std::make_unique<Model>(definitions());
    model->restore(leftovers(), 0);
  }
  return *model;
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
      audit_(options_.auditFile, log_),
      providers_("", log_),
      model_(unchangedModel()),
      announcer_(model_, subscriptions_, *this),
      changes_(model_, subscriptions_, announcer_, *this, log_, {}, &audit_),
      tap_(monitor_, *this, server_),
      server_(serverOptions(listenFd), tap_),
      monitor_(model_,
               [this](PeerId to, const ConfigIF::MonitorNtfy& notice) {
                 server_.notify(to, notice, revisionThat(to, Knows::AllBefore), {});
               }),
      requests_({options_, log_, standing_, access_, model_, subscriptions_, announcer_, changes_,
                 monitor_, tap_, server_, providers_, &audit_, *surroundings().store,
                 // A copy of the store is the disk's business, and takes too long for it here.
                 [this](const CommitQueue::Work&, std::function<void()> done) {
                   server_.post(std::move(done));
                 },
                 [] {}}) {
  for (StoredVariable& variable : leftovers()) kept_.emplace(variable.key, variable);
  require(server_.open().ok(), "a server adopts a listening socket");
}

ServiceHarness::~ServiceHarness() = default;

void ServiceHarness::onAnswer(PeerId peer, std::uint32_t question, std::uint32_t messageId,
                              std::string_view payload) {
  changes_.onAnswer(peer, question, messageId, payload);
}

void ServiceHarness::onQuestionDone(PeerId peer, std::uint32_t question, bool peerGone) {
  changes_.onQuestionDone(peer, question, peerGone);
}

Base::Status<> ServiceHarness::onGreeting(const PbUtility::Peer& peer) {
  const NameClaims::Answer answer = names_.ask(peer.name, peer.uid, peer.gid);
  return answer.accepted ? Base::Status<>() : Base::failed(answer.text);
}

void ServiceHarness::onPeerCame(const PbUtility::Peer& peer) {
  names_.came(peer.name, peer.uid, peer.gid);
}

void ServiceHarness::onPeerGone(const PbUtility::Peer& peer) {
  names_.went(peer.name, peer.uid);
  providers_.gone(peer.id);
  subscriptions_.forget(peer.id);
}

std::uint32_t ServiceHarness::ask(PeerId peer, const google::protobuf::MessageLite& question) {
  return tap_.ask(peer, question, model_.revision());
}

std::uint64_t ServiceHarness::revisionThat(PeerId peer, Knows knows) const {
  const std::uint64_t present = model_.revision();
  const bool isAll = knows == Knows::AllOfThis || present == 0;
  return requests_.carried(peer, isAll ? present : present - 1);
}

void ServiceHarness::notify(PeerId peer, const google::protobuf::MessageLite& notice,
                            const std::string& coalescingKey, Knows knows) {
  tap_.notify(peer, notice, revisionThat(peer, knows), coalescingKey);
}

bool ServiceHarness::mayProvide(PeerId id, const Variable& variable) const {
  const PbUtility::Peer* peer = server_.peer(id);
  return peer != nullptr && access_.mayClaim(peer->uid, peer->gid, variable.writeRole());
}

bool ServiceHarness::expectsProvider(const Variable& variable) const {
  return providers_.expects(variable.key().dottedName(), [](const KnownProvider&) { return true; });
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

void ServiceHarness::commit(uid_t /*user*/, StoreTransaction transaction, CommitDone done) {
  commits_.push_back({std::move(transaction), std::move(done)});
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

// Clients choose most of what stands in it.
void ServiceHarness::checkRecord() const {
  std::istringstream record(surroundings().files.read(kAuditName));
  for (std::string line; std::getline(record, line);) {
    requireOneLine(line);
    require(line.size() > 2 && line.front() == '{' && line.back() == '}',
            "a change is recorded as one object", line);
  }
}

void ServiceHarness::checkState() const {
  constexpr unsigned kAlwaysEvery = 64;
  static unsigned runs = 0;
  checkRecord();
  if (model_.revision() != 0 || revision_ != 0 || runs++ % kAlwaysEvery == 0) checkModel();
}

void ServiceHarness::checkModel() const {
  std::vector<StoredVariable> stored;
  for (const auto& [key, variable] : kept_) stored.push_back(variable);
  Model restarted(definitions());
  restarted.restore(std::move(stored), revision_);
  require(model_.revision() == revision_, "the model is at the revision of the last commit");
  for (const Variable* variable : model_.covered("")) {
    const Base::Status<> fits =
        checkValue(variable->definition(), variable->options(), variable->value());
    require(fits.ok(), "a variable holds what it may hold", fits.text);
    const Variable& again = *restarted.find(variable->key());
    requireSame(*variable, again);
    // All that this run kept has to be usable at a start.
    require(variable->hasLeftOutValue() == again.hasLeftOutValue() &&
                variable->hasLeftOutOptions() == again.hasLeftOutOptions(),
            "nothing but what was left out before is left out");
  }
}

}  // namespace Fuzz
