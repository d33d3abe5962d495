#include "configsrv/service/service.h"

#include <dirent.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "configsrv/access/access_policy.h"
#include "configsrv/access/name_claims.h"
#include "configsrv/audit/audit_trail.h"
#include "configsrv/changes/announcer.h"
#include "configsrv/changes/changes.h"
#include "configsrv/definitions/definitions.h"
#include "configsrv/log/flood_guard.h"
#include "configsrv/model/model.h"
#include "configsrv/monitor/monitor.h"
#include "configsrv/providers/provider_memory.h"
#include "configsrv/service/internal/free_memory.h"
#include "configsrv/service/internal/requests.h"
#include "configsrv/store/commit_queue.h"
#include "configsrv/store/store.h"
#include "configsrv/store/witness.h"
#include "configsrv/subscriptions/subscriptions.h"
#include "platform/messaging/runtime_dir.h"
#include "platform/messaging/server.h"

namespace ConfigSrv {
namespace {

using PbUtility::PeerId;
using PbUtility::Server;
using PbUtility::ServerOptions;

std::string endpointName(const std::string& prefix) {
  return prefix.empty() ? "ConfigSrvc" : prefix + "/ConfigSrvc";
}

// Descriptors that are none of a connection's: store, log, definitions, the event loop.
constexpr rlim_t kOtherDescriptors = 64;

// As many connections as the process may open descriptors; more would only fail later, and those
// kept for root would not be there.
unsigned connectionsThatFit(unsigned wanted) {
  rlimit files{};
  if (getrlimit(RLIMIT_NOFILE, &files) != 0 || files.rlim_cur >= wanted + kOtherDescriptors)
    return wanted;
  return static_cast<unsigned>(std::max(files.rlim_cur, 2 * kOtherDescriptors) - kOtherDescriptors);
}

ServerOptions serverOptions(const ServiceOptions& options, std::uint64_t epoch,
                            std::size_t variables) {
  ServerOptions result;
  result.maxConnections = connectionsThatFit(result.maxConnections);
  result.runtimeDir =
      options.runtimeDir.empty() ? PbUtility::defaultRuntimeDir() : options.runtimeDir;
  result.name = endpointName(options.endpointPrefix);
  result.listenFd = options.listenFd;
  result.epoch = epoch;
  // A client that registers for everything is owed a notice for each variable at once.
  result.maxNotices = std::max(result.maxNotices, 2 * variables);
  return result;
}

std::vector<std::string> linesOf(const std::vector<Mistake>& mistakes) {
  std::vector<std::string> lines;
  lines.reserve(mistakes.size());
  for (const Mistake& mistake : mistakes) lines.push_back(formatMistake(mistake));
  return lines;
}

// The socket's path with an ending; empty without a place for one.
std::string besideSocket(const ServiceOptions& options, const char* ending) {
  const ServerOptions server = serverOptions(options, 0, 0);
  std::string path;
  if (!PbUtility::socketPath(server.runtimeDir, server.name, path).empty()) return {};
  return path + ending;
}

std::string whyNotTrustedAt(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return {};
  return whyNotTrusted(status.st_uid, status.st_mode, ::geteuid());
}

// Definitions decide about values and roles. They are used all the same, for without them there is
// no service, but whoever looks after the device should know.
void warnOfDistrusted(const std::string& directory, const Log& log) {
  std::vector<std::string> paths{directory};
  if (DIR* stream = ::opendir(directory.c_str())) {
    while (const dirent* entry = ::readdir(stream)) {
      if (entry->d_name[0] != '.')
        paths.push_back(std::string(directory).append("/").append(entry->d_name));
    }
    ::closedir(stream);
  }
  std::sort(paths.begin(), paths.end());
  for (const std::string& path : paths) {
    const std::string why = whyNotTrustedAt(path);
    if (why.empty()) continue;
    std::string line = path;
    line.append(": this definition ").append(why);
    log.warning(line.append(", who can thereby change who may do what: make it root's alone"));
  }
}

// Who may write the socket's directory may put a socket of their own in its place.
void warnOfRuntimeDir(const ServiceOptions& options, const Log& log) {
  const std::string socket = besideSocket(options, "");
  if (socket.empty() || options.listenFd >= 0) return;
  const std::string directory = socket.substr(0, socket.rfind('/'));
  const std::string why = whyNotTrustedAt(directory);
  if (!why.empty())
    log.warning(
        directory + ": the socket's directory " + why +
        ", who can thereby take the service's place: make it root's or the service's alone");
}

StartedService failed(StartStatus status, std::vector<std::string> lines) {
  StartedService result;
  result.status = status;
  result.lines = std::move(lines);
  return result;
}

}  // namespace

class Service::Impl final : public PbUtility::ServerHandler, public Host {
 public:
  Impl(ServiceOptions options, const Log& log, AccessPolicy access, Definitions definitions,
       std::unique_ptr<Witness> witness, OpenedStore opened)
      : options_(std::move(options)),
        log_(log),
        access_(std::move(access)),
        names_(access_),
        audit_(options_.auditFile.empty() ? nullptr
                                          : std::make_unique<AuditTrail>(options_.auditFile, log)),
        providers_(besideSocket(options_, ".providers"), log),
        witness_(std::move(witness)),
        store_(std::move(opened.store)),
        model_(std::move(definitions)),
        epoch_(witness_->epochFor(store_->storeId(), model_.definitions().digest())),
        subscriptions_({}, ::geteuid(),
                       [this](uid_t user, std::function<void()> task) {
                         server_.later(user, std::move(task));
                       }),
        announcer_(model_, subscriptions_, *this),
        changes_(model_, subscriptions_, announcer_, *this, log, changesOptions(options_),
                 audit_.get()),
        server_(serverOptions(options_, epoch_, model_.size()), *this),
        monitor_(
            model_,
            // A report of a notice goes before the notice.
            [this](PeerId to, const ConfigIF::MonitorNtfy& notice) {
              server_.notify(to, notice, revisionThat(to, Knows::AllBefore), {});
            },
            {}, ::geteuid()),
        requests_({options_, log, access_, model_, subscriptions_, announcer_, changes_, monitor_,
                   server_, providers_, audit_.get(), *store_,
                   [this](CommitQueue::Work work, std::function<void()> done) {
                     withStore(std::move(work), std::move(done));
                   },
                   [this] { restart(); }}),
        commits_(*store_, [this] {
          server_.aside([this] { commits_.commit(); }, [this] { complete(commits_.take()); });
        }) {
    model_.setEpoch(epoch_);
    log_.whenHeldBack([this] { server_.post([this] { sumUpLater(); }); });
    records_ = std::move(opened.records);
    if (!opened.notice.empty()) log_.warning(opened.notice);
    for (const std::string& line : model_.restore(std::move(opened.variables), store_->revision()))
      log_.warning(line);
    changes_.countStored();
  }

  ~Impl() override { log_.whenHeldBack({}); }

  // Empty on success.
  std::string open();
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
  void reportNotice(PeerId peer, const google::protobuf::MessageLite& notice) {
    const PbUtility::Peer* to = server_.peer(peer);
    if (to != nullptr) monitor_.noticeLeaves(*to, notice);
  }
  // How often is looked whether an expected provider's process still lives.
  static constexpr std::chrono::milliseconds kProviderCheck{20};

  void expectProviders();
  void watchExpectedProviders();
  bool mayProvide(uid_t uid, gid_t gid, const Variable& variable) const {
    return access_.mayClaim(uid, gid, variable.writeRole());
  }

  void withStore(CommitQueue::Work work, std::function<void()> done);
  void restart();
  void repairAudit();
  void syncAudit();
  void endAudit();
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
    if (monitor_.isActive()) monitor_.answerCame(peer, question, messageId, payload);
    changes_.onAnswer(peer, question, messageId, payload);
  }
  void onQuestionDone(PeerId peer, std::uint32_t question, bool peerGone) override {
    if (monitor_.isActive()) monitor_.questionDone(peer, question, peerGone);
    changes_.onQuestionDone(peer, question, peerGone);
  }
  std::string onGreeting(const PbUtility::Peer& peer) override;
  void onPeerCame(const PbUtility::Peer& peer) override {
    names_.came(peer.name, peer.uid, peer.gid);
    changes_.peerCame(peer);
    if (monitor_.isActive()) monitor_.peerCame(peer);
  }
  void onDeliveryReady(const PbUtility::Peer& peer) override { changes_.onDeliveryReady(peer.id); }
  void onPeerGone(const PbUtility::Peer& peer) override {
    names_.went(peer.name, peer.uid);
    providers_.gone(peer.id);
    subscriptions_.forget(peer.id);
    changes_.peerWent(peer);
    giveBackMemoryLater();
    monitor_.remove(peer.id);
    if (monitor_.isActive()) monitor_.peerWent(peer);
  }
  void onFault(PbUtility::Fault kind, const std::string& line) override {
    log_.repeatable(LogLevel::Warning, "fault " + std::to_string(static_cast<int>(kind)), line);
  }

  // Host
  std::uint32_t ask(PeerId peer, const google::protobuf::MessageLite& question) override {
    const std::uint32_t number = server_.ask(peer, question, model_.revision());
    if (number != 0 && monitor_.isActive()) {
      monitor_.questionLeaves(*server_.peer(peer), number, question);
    }
    return number;
  }
  void notify(PeerId peer, const google::protobuf::MessageLite& notice,
              const std::string& coalescingKey, Knows knows) override {
    if (monitor_.isActive()) reportNotice(peer, notice);
    server_.notify(peer, notice, revisionThat(peer, knows), coalescingKey);
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
  Server server_;
  Monitor monitor_;
  Requests requests_;
  CommitQueue commits_;
  bool stopping_ = false;
  bool restarting_ = false;
  // A part of the audit record is on its way to the disk.
  bool syncingAudit_ = false;
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
std::string Service::Impl::open() {
  std::string problem = server_.open();
  if (!problem.empty()) return problem;
  providers_.open();
  witness_->begin({epoch_, model_.definitions().digest(), store_->storeId()}, store_->mark());
  repairAudit();
  return {};
}

std::string Service::Impl::onGreeting(const PbUtility::Peer& peer) {
  const NameClaims::Answer answer = names_.ask(peer.name, peer.uid, peer.gid);
  const std::string who = "client \"" + peer.name + "\" (pid " + std::to_string(peer.pid) +
                          ", uid " + std::to_string(peer.uid) + ")";
  if (!answer.text.empty() && !answer.repeated)
    log_.warning(who + (answer.accepted ? ": " : " refused: ") + answer.text);
  return answer.accepted ? std::string() : answer.text;
}

bool Service::Impl::expectsProvider(const Variable& variable) const {
  if (!providers_.expectsAny()) return false;
  return providers_.expects(variable.key().dottedName(), [&](const KnownProvider& provider) {
    return provider.role >= variable.readRole() && mayProvide(provider.uid, provider.gid, variable);
  });
}

void Service::Impl::expectProviders() {
  if (!providers_.expectsAny()) return;
  server_.after(options_.providerGrace, [this] {
    providers_.giveUp();
    changes_.providersCame();
  });
  watchExpectedProviders();
}

void Service::Impl::watchExpectedProviders() {
  server_.after(kProviderCheck, [this] {
    if (providers_.forgetDead()) changes_.providersCame();
    if (providers_.expectsAny()) watchExpectedProviders();
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

void Service::Impl::repairAudit() {
  if (records_.empty()) return;
  if (audit_->repair(records_)) store_->forgetRecords(records_.back().revision);
  records_.clear();
}

// What cannot be forced to the disk is not kept for ever: the store is not where records pile up.
void Service::Impl::syncAudit() {
  if (audit_ == nullptr || syncingAudit_ || !audit_->isWorthSyncing()) return;
  syncingAudit_ = true;
  const std::shared_ptr<AuditSync> lines = audit_->takeUnsynced();
  const auto problem = std::make_shared<std::string>();
  withStore(
      [lines, problem](Store& store) {
        *problem = lines->wait();
        store.forgetRecords(lines->revision);
      },
      [this, problem] {
        syncingAudit_ = false;
        audit_->synced(*problem);
      });
}

// An orderly end leaves nothing to be made up for.
void Service::Impl::endAudit() {
  if (audit_ == nullptr) return;
  const std::shared_ptr<AuditSync> lines = audit_->takeUnsynced();
  const std::string problem = lines->wait();
  audit_->synced(problem);
  if (lines->revision == 0 || !problem.empty()) return;
  const StoreStatus status = store_->forgetRecordsNow(lines->revision);
  if (!status.ok()) log_.warning(status.text);
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
  expectProviders();
  server_.run();
  log_.sumUp(true);
  endAudit();
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
  syncAudit();
  leaveWhenIdle();
}

void Service::Impl::beginToStop() {
  stopping_ = true;
  changes_.stop();
  leaveWhenIdle();
}

void Service::Impl::leaveWhenIdle() {
  if (stopping_ && changes_.underWay() == 0 && storeWorks_ == 0) server_.stop();
}

std::string Service::Impl::describe() const {
  const std::string where =
      options_.listenFd >= 0
          ? "the socket that was handed over"
          : serverOptions(options_, 0, 0).runtimeDir + "/" + endpointName(options_.endpointPrefix);
  return std::to_string(model_.size()) + (model_.size() == 1 ? " variable at " : " variables at ") +
         where;
}

StartedService Service::start(const ServiceOptions& options, const Log& log) {
  LoadResult loaded = loadDefinitions(options.definitionsDir);
  std::vector<std::string> mistakes = linesOf(loaded.mistakes);
  AccessPolicy access(geteuid());
  if (!options.rolesFile.empty()) {
    AccessLoadResult roles = AccessPolicy::load(options.rolesFile, geteuid());
    for (const std::string& line : linesOf(roles.mistakes)) mistakes.push_back(line);
    if (!roles.distrust.empty()) log.error(roles.distrust);
    access = std::move(roles.policy);
  }
  if (!mistakes.empty()) return failed(StartStatus::BadDefinitions, std::move(mistakes));
  warnOfDistrusted(options.definitionsDir, log);

  auto witness = std::make_unique<Witness>(besideSocket(options, ".witness"),
                                           [&log](const std::string& line) { log.warning(line); });
  witness->read();
  StoreOptions storeOptions;
  storeOptions.file = options.storeFile;
  storeOptions.witness = witness.get();
  storeOptions.keepsRecords = !options.auditFile.empty();
  OpenedStore opened = Store::open(storeOptions);
  if (!opened.status.ok()) return failed(StartStatus::BadStore, {opened.status.text});

  auto impl = std::make_unique<Impl>(options, log, std::move(access), std::move(loaded.definitions),
                                     std::move(witness), std::move(opened));
  const std::string problem = impl->open();
  if (!problem.empty()) return failed(StartStatus::BadSocket, {problem});
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

std::vector<std::string> checkDefinitions(const std::string& directory, std::size_t& variables) {
  const LoadResult loaded = loadDefinitions(directory);
  variables = loaded.definitions.size();
  return linesOf(loaded.mistakes);
}

}  // namespace ConfigSrv
