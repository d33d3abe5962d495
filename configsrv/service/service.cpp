// Service::Impl owns one of everything and ties it together: it is the handler behind the message layer
// (PbUtility::ServerHandler) and the world of changes (Host). What it does itself is to begin, to end,
// and to tell several of its parts at once, of a peer that is gone for instance.
//
// Way in:   server -> tap (where the monitor listens) -> Impl -> requests or changes.
// Way out:  requests, announcer, changes -> Impl as Host -> tap -> server.
// Disk:     commits run aside from the loop (Server::aside); their outcomes come back into it.
#include "configsrv/service/service.h"

#include <unistd.h>

#include <utility>

#include "configsrv/access/access_policy.h"
#include "configsrv/access/name_claims.h"
#include "configsrv/audit/audit_trail.h"
#include "configsrv/changes/announcer.h"
#include "configsrv/changes/changes.h"
#include "configsrv/in_force/in_force.h"
#include "configsrv/log/flood_guard.h"
#include "configsrv/model/model.h"
#include "configsrv/monitor/monitor.h"
#include "configsrv/monitor/monitor_tap.h"
#include "configsrv/providers/provider_memory.h"
#include "configsrv/providers/provider_wait.h"
#include "configsrv/service/internal/audit_upkeep.h"
#include "configsrv/service/internal/free_memory.h"
#include "configsrv/service/internal/requests.h"
#include "configsrv/service/internal/socket_place.h"
#include "configsrv/service/internal/start_checks.h"
#include "configsrv/store/commit_queue.h"
#include "configsrv/store/store.h"
#include "configsrv/store/witness.h"
#include "configsrv/subscriptions/subscriptions.h"
#include "platform/messaging/serving/server.h"

namespace ConfigSrv {
namespace {

using PbUtility::PeerId;
using PbUtility::Server;

StartedService failed(StartStatus status, std::vector<std::string> lines) {
  StartedService result;
  result.status = status;
  result.lines = std::move(lines);
  return result;
}

}  // namespace

class Service::Impl final : public PbUtility::ServerHandler, public Host {
 public:
  Impl(ServiceOptions options, const Log& log, InForce inForce, std::unique_ptr<Witness> witness,
       OpenedStore opened)
      : options_(std::move(options)),
        log_(log),
        standing_(std::move(inForce.standing)),
        access_(std::move(inForce.access)),
        names_(access_),
        audit_(options_.auditFile.empty() ? nullptr
                                          : std::make_unique<AuditTrail>(options_.auditFile, log)),
        providers_(besideSocket(options_, ".providers"), log),
        witness_(std::move(witness)),
        store_(std::move(opened.store)),
        model_(std::move(inForce.definitions)),
        epoch_(witness_->epochFor(store_->storeId(), model_.definitions().digest())),
        subscriptions_({}, ::geteuid(),
                       [this](uid_t user, std::function<void()> task) {
                         server_.later(user, std::move(task));
                       }),
        announcer_(model_, subscriptions_, *this),
        changes_(model_, subscriptions_, announcer_, *this, log, changesOptions(options_),
                 audit_.get()),
        tap_(monitor_, *this, server_),
        server_(serverOptions(options_, epoch_, model_.size()), tap_),
        monitor_(
            model_,
            // A report of a notice goes before the notice.
            [this](PeerId to, const ConfigIF::MonitorNtfy& notice) {
              server_.notify(to, notice, revisionThat(to, Knows::AllBefore), {});
            },
            {}, ::geteuid()),
        providerWait_(
            providers_,
            [this](std::chrono::milliseconds delay, std::function<void()> task) {
              server_.after(delay, std::move(task));
            },
            [this] { changes_.providersCame(); }),
        auditUpkeep_(audit_.get(), *store_, log, storeWorker()),
        requests_({options_, log, standing_, access_, model_, subscriptions_, announcer_, changes_,
                   monitor_, tap_, server_, providers_, audit_.get(), *store_, storeWorker(),
                   [this] { restart(); }}),
        commits_(*store_,
                 [this] {
                   server_.aside([this] { commits_.commit(); },
                                 [this] { complete(commits_.take()); });
                 },
                 {[this](std::chrono::milliseconds wait) {
                    server_.after(wait, [this] { commits_.goOn(); });
                  },
                  ::geteuid()}) {
    model_.setEpoch(epoch_);
    log_.whenHeldBack([this] { server_.post([this] { sumUpLater(); }); });
    records_ = std::move(opened.records);
    if (!opened.notice.empty()) log_.warning(opened.notice);
    for (const std::string& line : model_.restore(std::move(opened.variables), store_->revision()))
      log_.warning(line);
    changes_.countStored();
  }

  ~Impl() override { log_.whenHeldBack({}); }

  Base::Status<> open();
  End run();
  void stop() {
    server_.post([this] { beginToStop(); });
  }
  std::string describe() const;

 private:
  static ChangesOptions changesOptions(const ServiceOptions& options) {
    ChangesOptions result;
    result.providerDeadline = options.providerDeadline;
    result.own = ::geteuid();
    result.hourly = {options.commitsPerHour, options.bytesPerHour};
    return result;
  }

  std::uint64_t revisionThat(PeerId peer, Knows knows) const {
    const std::uint64_t present = model_.revision();
    const bool isAll = knows == Knows::AllOfThis || present == 0;
    return requests_.carried(peer, isAll ? present : present - 1);
  }
  bool mayProvide(uid_t uid, gid_t gid, const Variable& variable) const {
    return access_.mayClaim(uid, gid, variable.writeRole());
  }

  void withStore(CommitQueue::Work work, std::function<void()> done);
  AuditUpkeep::WithStore storeWorker() {
    return [this](CommitQueue::Work work, std::function<void()> done) {
      withStore(std::move(work), std::move(done));
    };
  }
  void restart();
  void sumUpLater();
  void giveBackMemoryLater();
  void keepSnapshot();
  void complete(const std::vector<Completion>& batch);
  void beginToStop();
  void leaveWhenIdle();

  // PbUtility::ServerHandler
  void onRequest(const PbUtility::IncomingRequest& request) override { requests_.handle(request); }
  void onAnswer(PeerId peer, std::uint32_t question, std::uint32_t messageId,
                std::string_view payload) override {
    changes_.onAnswer(peer, question, messageId, payload);
  }
  void onQuestionDone(PeerId peer, std::uint32_t question, bool peerGone) override {
    changes_.onQuestionDone(peer, question, peerGone);
  }
  Base::Status<> onGreeting(const PbUtility::Peer& peer) override;
  void onPeerCame(const PbUtility::Peer& peer) override {
    names_.came(peer.name, peer.uid, peer.gid);
    changes_.peerCame(peer);
  }
  void onDeliveryReady(const PbUtility::Peer& peer) override { changes_.onDeliveryReady(peer.id); }
  void onPeerGone(const PbUtility::Peer& peer) override {
    names_.went(peer.name, peer.uid);
    providers_.gone(peer.id);
    subscriptions_.forget(peer.id);
    changes_.peerWent(peer);
    giveBackMemoryLater();
  }
  void onFault(PbUtility::Fault kind, const std::string& line) override {
    log_.repeatable(LogLevel::Warning, "fault " + std::to_string(static_cast<int>(kind)), line);
  }

  // Host
  std::uint32_t ask(PeerId peer, const google::protobuf::MessageLite& question) override {
    return tap_.ask(peer, question, model_.revision());
  }
  void notify(PeerId peer, const google::protobuf::MessageLite& notice,
              const std::string& coalescingKey, Knows knows) override {
    tap_.notify(peer, notice, revisionThat(peer, knows), coalescingKey);
  }
  bool mayProvide(PeerId id, const Variable& variable) const override {
    const PbUtility::Peer* peer = server_.peer(id);
    return peer != nullptr && mayProvide(peer->uid, peer->gid, variable);
  }
  bool expectsProvider(const Variable& variable) const override;
  std::uint64_t after(std::chrono::milliseconds delay, std::function<void()> task) override {
    return server_.after(delay, std::move(task));
  }
  void cancel(std::uint64_t timer) override { server_.cancel(timer); }
  void commit(uid_t user, StoreTransaction transaction, CommitDone done) override {
    commits_.submit(user, std::move(transaction), std::move(done));
  }

  const ServiceOptions options_;
  const Log& log_;
  const Standing standing_;
  const AccessPolicy access_;
  NameClaims names_;
  const std::unique_ptr<AuditTrail> audit_;
  ProviderMemory providers_;
  const std::unique_ptr<Witness> witness_;  // The store's; it outlives it.
  const std::unique_ptr<Store> store_;
  Model model_;
  const std::uint64_t epoch_;
  Subscriptions subscriptions_;
  Announcer announcer_;
  Changes changes_;
  MonitorTap tap_;
  Server server_;
  Monitor monitor_;
  ProviderWait providerWait_;
  AuditUpkeep auditUpkeep_;
  Requests requests_;
  CommitQueue commits_;
  bool stopping_ = false;
  bool restarting_ = false;
  // What the store has kept of the audit record; until open().
  std::vector<StoredRecord> records_;
  // Of withStore(), not done yet.
  std::size_t storeWorks_ = 0;
  // A timer for giving free memory back is set.
  bool givesBackMemory_ = false;
  // A timer for summing up the log is set.
  bool sumsUp_ = false;
};

// Only once the socket is ours are the files beside it, too.
Base::Status<> Service::Impl::open() {
  Base::Status<> opened = server_.open();
  if (!opened.ok()) return opened;
  providers_.open();
  witness_->begin({epoch_, model_.definitions().digest(), store_->storeId()}, store_->mark());
  auditUpkeep_.repair(std::exchange(records_, {}));
  return opened;
}

Base::Status<> Service::Impl::onGreeting(const PbUtility::Peer& peer) {
  const NameClaims::Answer answer = names_.ask(peer.name, peer.uid, peer.gid);
  const std::string who = "client \"" + peer.name + "\" (pid " + std::to_string(peer.pid) +
                          ", uid " + std::to_string(peer.uid) + ")";
  if (!answer.text.empty() && !answer.repeated)
    log_.warning(who + (answer.accepted ? ": " : " refused: ") + answer.text);
  return answer.accepted ? Base::Status<>() : Base::failed(answer.text);
}

bool Service::Impl::expectsProvider(const Variable& variable) const {
  if (!providers_.expectsAny()) return false;
  return providers_.expects(variable.key().dottedName(), [&](const KnownProvider& provider) {
    return provider.role >= variable.readRole() && mayProvide(provider.uid, provider.gid, variable);
  });
}

// What was read at the start has been checked whole, and what is there at the end is the newest:
// both are worth keeping for the day when the file is damaged.
void Service::Impl::keepSnapshot() {
  if (store_->commitsSinceSnapshot() == 0) return;
  const StoreStatus status = store_->snapshot();
  if (!status.ok()) log_.warning("no snapshot of the store was kept: " + status.text);
}

// As long as lines are held back, and no longer: an idle service does not wake.
void Service::Impl::sumUpLater() {
  if (std::exchange(sumsUp_, true)) return;
  server_.after(FloodGuard::kSpan, [this] {
    sumsUp_ = false;
    log_.sumUp();
    if (log_.holdsBack()) sumUpLater();
  });
}

// Once for all who go at about the same time, and when what they left is erased.
void Service::Impl::giveBackMemoryLater() {
  if (std::exchange(givesBackMemory_, true)) return;
  server_.after(kFreeMemoryCheck, [this] {
    givesBackMemory_ = false;
    subscriptions_.isErasing() ? giveBackMemoryLater() : giveBackFreeMemory();
  });
}

// A store that is about to be replaced is kept whole, and needs no snapshot.
Service::End Service::Impl::run() {
  keepSnapshot();
  providerWait_.begin(options_.providerGrace);
  server_.run();
  log_.sumUp(true);
  auditUpkeep_.end();
  if (restarting_) return End::Restart;
  keepSnapshot();
  return End::Stopped;
}

void Service::Impl::withStore(CommitQueue::Work work, std::function<void()> done) {
  ++storeWorks_;
  commits_.submitWork(std::move(work), [this, done = std::move(done)] {
    --storeWorks_;
    done();
  });
}

void Service::Impl::restart() {
  if (stopping_) return;
  restarting_ = true;
  beginToStop();
}

void Service::Impl::complete(const std::vector<Completion>& batch) {
  for (const Completion& completion : batch)
    completion.done(completion.status, completion.revision);
  auditUpkeep_.syncIfWorthIt();
  leaveWhenIdle();
}

void Service::Impl::beginToStop() {
  stopping_ = true;
  changes_.stop();
  commits_.hurry();
  leaveWhenIdle();
}

void Service::Impl::leaveWhenIdle() {
  if (stopping_ && changes_.underWay() == 0 && storeWorks_ == 0) server_.stop();
}

std::string Service::Impl::describe() const {
  return std::to_string(model_.size()) + (model_.size() == 1 ? " variable at " : " variables at ") +
         describeSocket(options_);
}

StartedService Service::start(const ServiceOptions& options, const Log& log) {
  InForceFiles files({options.definitionsDirs, options.rolesFile, options.storeFile});
  InForce inForce = files.read();
  if (!inForce.isComplete) return failed(StartStatus::BadDefinitions, std::move(inForce.errors));
  for (const std::string& line : inForce.errors) log.error(line);
  for (const std::string& line : inForce.warnings) log.warning(line);
  warnOfDefinitions(options, log);

  auto witness = std::make_unique<Witness>(besideSocket(options, ".witness"),
                                           [&log](const std::string& line) { log.warning(line); });
  witness->read();
  StoreOptions storeOptions;
  storeOptions.file = options.storeFile;
  storeOptions.witness = witness.get();
  storeOptions.keepsRecords = !options.auditFile.empty();
  OpenedStore opened = Store::open(storeOptions);
  if (!opened.status.ok()) return failed(StartStatus::BadStore, {opened.status.text});

  for (const std::string& line : files.keep()) log.warning(line);

  auto impl = std::make_unique<Impl>(options, log, std::move(inForce), std::move(witness),
                                     std::move(opened));
  const Base::Status<> ready = impl->open();
  if (!ready.ok()) return failed(StartStatus::BadSocket, {ready.text});
  warnOfRuntimeDir(options, log);
  StartedService result;
  result.service.reset(new Service(std::move(impl)));
  return result;
}

Service::Service(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Service::~Service() = default;
Service::End Service::run() { return impl_->run(); }
void Service::stop() { impl_->stop(); }
std::string Service::describe() const { return impl_->describe(); }

}  // namespace ConfigSrv
