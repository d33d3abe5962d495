// An endpoint is a pool of connections for requests and one delivery for each process it is used
// in. State is that process's part: a child after fork has the parent's memory but none of its
// threads, and must not speak on its connections. So State is remade there, from what the parent
// knew (names, receivers, registrations). Of the parent's, fork waits until what will be copied is
// whole (State::holdForFork) and the child closes the descriptors; the rest is left alone for ever,
// since its locks may be held by threads that the child does not have.
#include "platform/messaging/endpoint.h"

#include <google/protobuf/message_lite.h>
#include <pthread.h>
#include <sys/random.h>

#include <map>
#include <utility>
#include <vector>

#include "base/mutex.h"
#include "platform/messaging/client/internal/connection_pool.h"
#include "platform/messaging/client/internal/delivery.h"
#include "platform/messaging/client/internal/dispatch.h"
#include "platform/messaging/client/internal/private_fd.h"
#include "platform/messaging/internal/layer_table.h"
#include "platform/messaging/wire/runtime_dir.h"
#include "platform/schema/message_ids.h"
#include "platform/schema/registration_key.h"

namespace PbUtility {
namespace {

// Grows by one in each child: tells a state of another process without a system call.
std::atomic<unsigned> forkGeneration{0};

// Held while a child replaces a state that it has of its parent. The next is taken while it is held.
Base::Mutex remakeMutex;
// Guards the list of all states. Their locks are taken while it is held, by fork alone.
Base::Mutex statesMutex;

// What this thread was told last: the revision of the answer, and by whom. A registration that
// follows a read carries it, so that a change between the two is told.
struct LastAnswer {
  // Number of the remote; 0: none has answered yet.
  std::uint64_t remote = 0;
  std::uint64_t epoch = 0;
  std::uint64_t revision = 0;
};
thread_local LastAnswer lastAnswer;
thread_local std::string lastProblem;

// Unlike an address, a number is not used again after its remote is gone.
std::uint64_t nextRemoteNumber() {
  static std::atomic<std::uint64_t> last{0};
  return ++last;
}

EndpointToken randomToken() {
  EndpointToken token{};
  std::size_t have = 0;
  while (have < token.size()) {
    const ssize_t got = ::getrandom(token.data() + have, token.size() - have, 0);
    if (got > 0) have += static_cast<std::size_t>(got);
  }
  return token;
}

Base::Status<> checkName(const std::string& name) {
  Hello hello;
  hello.name = name;
  Hello decoded;
  return decode(encode(hello), decoded);
}

}  // namespace

const char* describe(CallStatus status) {
  switch (status) {
    case kCallOk:
      return "success";
    case kCallNoService:
      return "the service is not running";
    case kCallServiceDied:
      return "the service went away before it answered";
    case kCallTimedOut:
      return "the service did not answer in time";
    case kCallRefused:
      return "the service refused the request";
    case kCallBrokenAnswer:
      return "the service's answer could not be read";
    case kCallBadRequest:
      return "the request cannot be sent";
    case kCallBadEndpoint:
      return "the endpoint's name cannot be used, or the system is out of resources";
    case kCallUntrusted:
      return "what listens there is not to be trusted";
    case kCallForbidden:
      return "this user may not open the service's socket";
  }
  return "unknown status";
}

class Endpoint::State {
 public:
  State(const PbUtils* layer, std::string name, EndpointOptions options)
      : layer_(layer),
        generation_(forkGeneration),
        options_(std::move(options)),
        hello_{ConnectionUse::Requests, randomToken(), std::move(name)},
        named_(checkName(hello_.name)),
        delivery_(hello_, [this] { return receivers(); }) {
    if (options_.runtimeDir.empty()) options_.runtimeDir = defaultRuntimeDir();
    joinList();
  }
  ~State() { leaveList(); }
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  // For a child after fork.
  State(const State& parent, unsigned generation)
      : State(parent.layer_, parent.hello_.name, parent.options_) {
    generation_ = generation;
    tables_ = parent.tables_;
    for (const auto& [name, remote] : parent.remotes_) {
      Remote* own = this->remote(name);
      if (own == nullptr) continue;
      remote->registrations.copyTo(own->registrations);
      if (hasDelivery(*remote)) deliverFrom(*own);
    }
  }

  // The first endpoint of a process begins to watch its forks. pthread_atfork is called once, also
  // when a fork comes in between.
  static void watchForks() {
    // First, because fork takes the locks of those who came last first: the table's lock is taken while
    // locks of the states are held, and must be so here too.
    LayerTable::watchForks();
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once,
                 [] { pthread_atfork(holdAllForFork, releaseAllInParent, leaveAllToParent); });
  }

  // Disposes of a state, at once or, on its own delivery thread, as soon as the receiver that the
  // endpoint was destroyed in has returned. A program that calls exit in a receiver gets here.
  static void end(State* state) {
    if (!state->delivery_.isOnItsThread()) return delete state;
    state->delivery_.endByItself([state] { delete state; });
  }

  bool isOfThisProcess() const { return generation_ == forkGeneration; }
  const std::string& name() const { return hello_.name; }

  void addHandlers(const MSG_Callback* table) {
    const Base::MutexLock guard(mutex_);
    for (; table->receiver != nullptr; ++table) tables_.push_back(*table);
  }

  void addRemote(const std::string& name) {
    Remote* remote = this->remote(name);
    if (remote != nullptr) deliverFrom(*remote);
  }

  int call(const google::protobuf::MessageLite& request, google::protobuf::MessageLite* response,
           const std::string& endpointName, unsigned int* sequence) {
    lastProblem.clear();
    Exchange exchange;
    exchange.messageId = PlatformSchema::messageIdOf(request);
    exchange.oneWay = response == nullptr;
    exchange.insideReceiver = isInsideReceiver();
    exchange.deadline = Clock::now() + options_.deadline;
    if (exchange.messageId == PlatformSchema::kNoMessageId) {
      lastProblem = "the request is no message of the protocol";
      return kCallBadRequest;
    }
    Remote* remote = this->remote(endpointName);
    if (remote == nullptr || !remote->named.ok()) {
      lastProblem = remote == nullptr ? tooManyRemotes() : remote->named.text;
      return kCallBadEndpoint;
    }
    CallOutcome outcome = exchangeWith(*remote, request, response, exchange);
    if (!outcome.ok()) lastProblem = std::move(outcome.text);
    if (exchange.opened) delivery_.kick(endpointName);
    if (sequence != nullptr) *sequence = exchange.sequence;
    return outcome.code;
  }

  bool waitUntilConnected(const std::string& name, std::chrono::milliseconds atMost) {
    addRemote(name);
    return delivery_.waitUntilStanding(name, Clock::now() + atMost);
  }

  bool waitUntilHandled(std::chrono::milliseconds atMost) {
    return delivery_.waitUntilHandled(Clock::now() + atMost);
  }

 private:
  class Remote;
  // The one way to it, so that nobody gets there without the mutex.
  bool& hasDelivery(Remote& remote) APPCONFIG_REQUIRES(mutex_) { return remote.hasDelivery_; }
  class Remote {
   public:
    Remote(std::string remoteName, std::string socketPath, Base::Status<> isNamed,
           const Hello& hello, unsigned maxConnections, const PbUtils* layer)
        : name(std::move(remoteName)),
          path(std::move(socketPath)),
          named(std::move(isNamed)),
          pool(path, hello, maxConnections),
          registrations(layer, name) {}

    const std::uint64_t number = nextRemoteNumber();
    const std::string name;
    const std::string path;
    // Whether an endpoint can have these names, this one and our own.
    const Base::Status<> named;
    ConnectionPool pool;
    KeptRegistrations registrations;

   private:
    friend bool& State::hasDelivery(Remote& remote);
    bool hasDelivery_ = false;
  };

  void joinList() {
    const Base::MutexLock guard(statesMutex);
    next_ = first_;
    if (next_ != nullptr) next_->previous_ = this;
    first_ = this;
  }
  void leaveList() {
    const Base::MutexLock guard(statesMutex);
    (previous_ != nullptr ? previous_->next_ : first_) = next_;
    if (next_ != nullptr) next_->previous_ = previous_;
  }

  // Each takes or lets go of as many locks as there are states, which the compiler cannot count.
  static void holdAllForFork() APPCONFIG_NO_THREAD_CHECK {
    remakeMutex.lock();
    statesMutex.lock();
    for (State* state = first_; state != nullptr; state = state->next_) state->holdForFork();
    PrivateFd::holdForFork();
  }
  static void releaseAllInParent() APPCONFIG_NO_THREAD_CHECK {
    PrivateFd::releaseInParent();
    for (State* state = first_; state != nullptr; state = state->next_) state->releaseAfterFork();
    statesMutex.unlock();
    remakeMutex.unlock();
  }
  static void leaveAllToParent() APPCONFIG_NO_THREAD_CHECK {
    ++forkGeneration;
    PrivateFd::closeAllInChild();
    forgetDispatch();
    for (State* state = first_; state != nullptr; state = state->next_) {
      state->delivery_.abandon();
      state->releaseAfterFork();
    }
    statesMutex.unlock();
    remakeMutex.unlock();
  }
  // What a child copies is neither half changed nor locked when it does. The locks of the remotes are
  // not counted either.
  void holdForFork() APPCONFIG_NO_THREAD_CHECK {
    mutex_.lock();
    for (const auto& [name, remote] : remotes_) remote->registrations.holdForFork();
  }
  void releaseAfterFork() APPCONFIG_NO_THREAD_CHECK {
    for (const auto& [name, remote] : remotes_) remote->registrations.releaseAfterFork();
    mutex_.unlock();
  }

  std::vector<MSG_Callback> receivers() {
    const Base::MutexLock guard(mutex_);
    return tables_;
  }

  static std::string tooManyRemotes() {
    return "more remote endpoints than the limit of " + std::to_string(kMaxRemotes);
  }

  // Null when it would be one too many.
  Remote* remote(const std::string& name) {
    const Base::MutexLock guard(mutex_);
    const auto found = remotes_.find(name);
    if (found != remotes_.end()) return found->second.get();
    if (remotes_.size() >= kMaxRemotes) return nullptr;
    std::string path;
    Base::Status<> named = socketPath(options_.runtimeDir, name, path);
    if (named.ok() && !named_.ok()) named = Base::failed("own name: " + named_.text);
    auto made = std::make_unique<Remote>(name, path, std::move(named), hello_,
                                         options_.maxConnections, layer_);
    return remotes_.emplace(name, std::move(made)).first->second.get();
  }

  void deliverFrom(Remote& remote) {
    if (!remote.named.ok()) return;
    {
      const Base::MutexLock guard(mutex_);
      hasDelivery(remote) = true;
    }
    // Not only by the thread that set hasDelivery: the other must not go on before this is done either.
    delivery_.add(remote.name, remote.path, remote.registrations);
  }

  CallOutcome exchangeWith(Remote& remote, const google::protobuf::MessageLite& request,
                           google::protobuf::MessageLite* response, Exchange& exchange) {
    if (PlatformSchema::isRepeatedOnReconnect(exchange.messageId)) {
      return registerAt(remote, request, response, exchange);
    }
    forgetWithdrawn(remote, request, exchange.messageId);
    CallOutcome outcome = remote.pool.call(request, response, exchange);
    if (outcome.ok() && response != nullptr) {
      lastAnswer = {remote.number, exchange.epoch, exchange.answerRevision};
      remote.registrations.answered(exchange.epoch);
    }
    return outcome;
  }

  // A registration is for being told, so the connection for being told comes first: a provider that
  // was registered but could not be asked would make changes fail.
  CallOutcome registerAt(Remote& remote, const google::protobuf::MessageLite& request,
                         google::protobuf::MessageLite* response, Exchange& exchange) {
    deliverFrom(remote);
    if (lastAnswer.remote == remote.number) {
      exchange.revision = lastAnswer.revision;
      exchange.knownEpoch = lastAnswer.epoch;
    }
    // Waited for before it is kept, so that it is not repeated by the very connection it waits for.
    const bool isDelivered = delivery_.waitForAttempt(remote.name, exchange.deadline);
    std::string payload = request.SerializeAsString();
    const std::string key = PlatformSchema::registrationKey(exchange.messageId, payload);
    KeptRegistrations& kept = remote.registrations;
    const auto connection = kept.keep(key, exchange.messageId, std::move(payload),
                                      exchange.knownEpoch, exchange.revision);
    if (!isDelivered) {
      kept.abandon(key, connection);
      return {kCallBadEndpoint, "the system has no thread to deliver messages on"};
    }
    CallOutcome outcome = remote.pool.call(request, response, exchange);
    if (outcome.ok() && response != nullptr) {
      noteAnswer(remote, key, connection, *response, exchange);
    } else if (outcome.code == kCallBadRequest) {
      kept.withdraw(key);
    } else {
      // The delivery connection may be as good as before, and nobody would ask again.
      kept.abandon(key, connection);
      delivery_.repeatAbandoned(remote.name);
    }
    return outcome;
  }

  void noteAnswer(Remote& remote, const std::string& key, KeptRegistrations::Connection connection,
                  const google::protobuf::MessageLite& response, const Exchange& exchange) {
    KeptRegistrations& kept = remote.registrations;
    const auto refusal = PlatformSchema::refusalForRoom(PlatformSchema::messageIdOf(response),
                                                        response.SerializeAsString());
    if (!refusal) return kept.acknowledge(key, connection, exchange.epoch, exchange.answerRevision);
    kept.refuse(key, connection, *refusal);
    delivery_.repeatRefused();
  }

  static void forgetWithdrawn(Remote& remote, const google::protobuf::MessageLite& request,
                              std::uint32_t messageId) {
    const bool one = PlatformSchema::withdrawsOneRepeated(messageId);
    if (!one && !PlatformSchema::withdrawsAllRepeated(messageId)) return;
    const std::string key = PlatformSchema::registrationKey(messageId, request.SerializeAsString());
    one ? remote.registrations.withdraw(key) : remote.registrations.withdrawAll(key);
  }

  // All states of the process, and in a child those of its parent too.
  static State* first_ APPCONFIG_GUARDED_BY(statesMutex);
  State* previous_ APPCONFIG_GUARDED_BY(statesMutex) = nullptr;
  State* next_ APPCONFIG_GUARDED_BY(statesMutex) = nullptr;
  // The endpoint, as others know it.
  const PbUtils* const layer_;
  unsigned generation_;
  EndpointOptions options_;
  const Hello hello_;
  const Base::Status<> named_;
  // Of the remotes it guards the map and hasDelivery. Nothing is taken while it is held.
  Base::Mutex mutex_;
  std::vector<MSG_Callback> tables_ APPCONFIG_GUARDED_BY(mutex_);
  std::map<std::string, std::unique_ptr<Remote>> remotes_ APPCONFIG_GUARDED_BY(mutex_);
  Delivery delivery_;
};

Endpoint::State* Endpoint::State::first_ = nullptr;

Endpoint::Endpoint(std::string name, EndpointOptions options) : state_(nullptr) {
  State::watchForks();
  state_ = new State(this, std::move(name), std::move(options));
}

Endpoint::~Endpoint() {
  State* state = state_;
  if (state->isOfThisProcess()) State::end(state);
}

Endpoint::State& Endpoint::state() const {
  State* state = state_.load(std::memory_order_acquire);
  if (state->isOfThisProcess()) return *state;
  const Base::MutexLock guard(remakeMutex);
  state = state_;
  if (state->isOfThisProcess()) return *state;
  state_ = new State(*state, forkGeneration);
  return *state_;
}

void Endpoint::addRemoteEndpoint(const std::string& endpointName, int /*instance*/) {
  state().addRemote(endpointName);
}

void Endpoint::addHandlers(const MSG_Callback* table) { state().addHandlers(table); }

std::string Endpoint::localEndpoint() const { return state().name(); }

int Endpoint::send(const google::protobuf::MessageLite& request, const std::string& endpointName,
                   unsigned int* sequence) {
  return state().call(request, nullptr, endpointName, sequence);
}

int Endpoint::sendWaitResponse(const google::protobuf::MessageLite& request,
                               google::protobuf::MessageLite* response,
                               const std::string& endpointName) {
  return state().call(request, response, endpointName, nullptr);
}

std::string Endpoint::lastRefusal() const { return lastProblem; }

bool Endpoint::waitUntilConnected(const std::string& endpointName,
                                  std::chrono::milliseconds atMost) {
  return state().waitUntilConnected(endpointName, atMost);
}

bool Endpoint::waitUntilHandled(std::chrono::milliseconds atMost) {
  return state().waitUntilHandled(atMost);
}

}  // namespace PbUtility
