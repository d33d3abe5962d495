#include "tests/soak/worker.h"

#include <sys/socket.h>

#include <chrono>
#include <cstdlib>
#include <set>

#include "appconfig/registry/registration.h"
#include "tests/support/cut_connections.h"

namespace Soak {
namespace {

constexpr std::size_t kFindingsTold = 8;

// Its number is of the kind that providers refuse when they are asked.
constexpr const char* kRefusedByAll = "flush-3";

PbUtility::EndpointOptions endpointOptions(const WorkerOptions& options) {
  PbUtility::EndpointOptions result;
  result.runtimeDir = options.runtimeDir;
  result.deadline = std::chrono::seconds(20);
  return result;
}

bool operator==(const Truth& a, const Truth& b) {
  return a.value == b.value && a.isDefault == b.isDefault;
}

std::string describe(const Truth& what) {
  return what.value + (what.isDefault ? " (default)" : "");
}

bool once(std::mt19937& random, unsigned in) { return random() % in == 0; }

void rest(std::chrono::microseconds time) { std::this_thread::sleep_for(time); }

std::uint64_t numberIn(const std::string& value) {
  const std::size_t dash = value.find('-');
  return dash == std::string::npos ? 0 : std::strtoull(value.c_str() + dash + 1, nullptr, 10);
}

// The place of a value among those of its variable's only writer: "w3x1-17" is the 17th of its second
// life. A default comes before all.
std::uint64_t placeOf(const std::string& value) {
  const std::size_t cross = value.find('x');
  if (value.empty() || value.front() != 'w' || cross == std::string::npos) return 0;
  const std::uint64_t life = std::strtoull(value.c_str() + cross + 1, nullptr, 10);
  return ((life + 1) << 40U) + numberIn(value);
}

}  // namespace

Worker::Worker(WorkerOptions options)
    : options_(std::move(options)),
      plan_(options_.variables),
      writer_("w" + std::to_string(options_.number) + "x" + std::to_string(options_.life)),
      histories_(plan_.size()),
      seen_(plan_.size()),
      newest_(plan_.size()),
      atQuestions_(options_.seed + static_cast<unsigned>(options_.number + options_.life)),
      config_(AppConfig::AppCfgManager::getInstance()),
      endpoint_(writer_, endpointOptions(options_)) {
  config_->setPbInterface(&endpoint_);
  start();
}

Worker::~Worker() {
  gate_.end();
  for (std::thread& thread : threads_) thread.join();
}

void Worker::start() {
  if (options_.provides) {
    for (const std::string& group : Plan::providedGroups())
      registerHandler(group, static_cast<ProviderConfigHandler*>(this));
  }
  registerFirstHandlers();
  for (int i = 0; i < options_.readers; ++i)
    startThread(&Worker::readSome, static_cast<unsigned>(i));
  for (int i = 0; i < options_.writers; ++i)
    startThread(&Worker::writeSome, static_cast<unsigned>(100 + i));
}

void Worker::startThread(void (Worker::*step)(Random&), unsigned number) {
  gate_.expect();
  threads_.emplace_back([this, step, number] {
    std::seed_seq seed{options_.seed, static_cast<unsigned>(options_.number),
                       static_cast<unsigned>(options_.life), number};
    Random random(seed);
    while (gate_.pass()) (this->*step)(random);
  });
}

// Of three groups, one is watched as a whole from the start, one variable by variable, and one
// later, in the middle of everything.
void Worker::registerFirstHandlers() {
  registerHandler(Plan::marker().group(), static_cast<ConsumerConfigHandler*>(this));
  const auto& groups = plan_.groups();
  for (std::size_t i = 0; i < groups.size(); i += 3) registerGroup(groups[i]);
  for (std::size_t i = 1; i < groups.size(); i += 3) {
    std::set<std::string> names;
    for (const std::size_t index : plan_.inGroup(groups[i])) names.insert(plan_[index].key.name());
    for (const std::string& name : names)
      registerHandler(groups[i], name, static_cast<ConsumerConfigHandler*>(this));
    for (const std::size_t index : plan_.inGroup(groups[i])) histories_[index].noteHandler();
  }
  for (const std::string& group : Plan::providedGroups()) {
    if (options_.number % 2 == 0) registerGroup(group);
  }
}

void Worker::registerGroup(const std::string& group) {
  registerHandler(group, static_cast<ConsumerConfigHandler*>(this));
  for (const std::size_t index : plan_.inGroup(group)) histories_[index].noteHandler();
}

void Worker::registerOneMore() {
  const std::size_t next = handlersOfGroup_++ * 3 + 2;
  if (next < plan_.groups().size()) registerGroup(plan_.groups()[next]);
}

// --- Work ---

// Threads of all workers are often at the same few variables, so that they meet there.
std::size_t Worker::pick(Random& random) const {
  const std::size_t some = once(random, 2) ? plan_.size() : plan_.size() / 16 + 1;
  return random() % some;
}

bool Worker::isOnlyWriterOf(std::size_t index) const {
  const Kind kind = plan_[index].kind;
  if (kind == Kind::Contended || kind == Kind::Untouched) return false;
  return index / 8 % static_cast<std::size_t>(options_.workers) ==
         static_cast<std::size_t>(options_.number);
}

void Worker::readSome(Random& random) {
  for (int i = 0; i < 20; ++i) read(pick(random), random);
  if (once(random, 50)) {
    const auto& groups = plan_.groups();
    const std::string& group = groups[random() % groups.size()];
    config_->removeVars(once(random, 4) ? "soak.p" : group);
  }
  if (once(random, 1000)) registerOneMore();
  rest(std::chrono::microseconds(500));
}

void Worker::read(std::size_t index, Random& random) {
  const ConfigVar& key = plan_[index].key;
  histories_[index].noteCached();
  if (once(random, 8)) {
    config_->isDefault(key.group(), 0, key.name(), key.nameInstance());
  } else {
    const std::uint64_t newestBefore = newest_[index];
    noteRead(index, newestBefore, config_->getConfigVar(key));
  }
  ++counts_.reads;
}

// Values of several writers have no order that a reader knows; a provider has cached what it refuses
// a moment later.
bool Worker::hasKnownOrder(std::size_t index) const {
  const Kind kind = plan_[index].kind;
  if (kind == Kind::Provided) return !options_.provides;
  return kind != Kind::Contended && kind != Kind::Untouched;
}

// Nothing is read while the service is away and nothing is cached.
void Worker::noteRead(std::size_t index, std::uint64_t newestBefore, const std::string& value) {
  if (value.empty() || !hasKnownOrder(index)) return;
  if (placeOf(value) < newestBefore) {
    ++counts_.backwards;
    histories_[index].noteEvent("read " + value + ", older than what was read or written before");
  }
  noteNewest(index, value);
}

void Worker::noteNewest(std::size_t index, const std::string& value) {
  const std::uint64_t place = placeOf(value);
  std::uint64_t known = newest_[index];
  while (known < place && !newest_[index].compare_exchange_weak(known, place)) continue;
}

void Worker::writeSome(Random& random) {
  for (int tries = 0; tries < 100; ++tries) {
    const std::size_t index = pick(random);
    const bool contended = plan_[index].kind == Kind::Contended;
    if (!contended && !isOnlyWriterOf(index)) continue;
    // Each may wait for a provider that is stopped.
    if (plan_[index].kind == Kind::Provided && !once(random, 4)) continue;
    return write(index, random);
  }
}

// Several threads of a process share its variables. The order of their writes is known only when one
// waits for the other.
void Worker::write(std::size_t index, Random& random) {
  History& history = histories_[index];
  const ConfigVar& key = plan_[index].key;
  if (plan_[index].kind != Kind::Contended || once(random, 2)) return writeAndWait(index);
  if (once(random, 2)) {
    history.noteEvent("resets it");
    config_->resetValue(key.group(), 0, key.name(), key.nameInstance());
    return;
  }
  const std::string value = writer_ + "o-" + std::to_string(random());
  const bool sent = config_->setConfigVar(key, value);
  history.noteEvent("sent " + value + (sent ? "" : ": failed"));
  if (!sent) rest(std::chrono::milliseconds(2));
}

void Worker::writeAndWait(std::size_t index) {
  static std::vector<std::mutex> turns(64);
  const std::lock_guard<std::mutex> turn(turns[index % turns.size()]);
  History& history = histories_[index];
  const std::string value = history.nextValue(writer_);
  history.noteCached();
  ConfigResult result;
  const bool done = config_->setConfigVar(plan_[index].key, value, &result);
  const bool answered = done || result.error() != eErrNone;
  if (done) noteNewest(index, value);
  history.noteWritten(value, done,
                      done       ? "acknowledged"
                      : answered ? "refused with " + std::to_string(result.error())
                                 : "no answer");
  ++(done ? counts_.changes : answered ? counts_.refused : counts_.unanswered);
  if (!answered) awaitService(index);
}

// A request that got no answer may still wait in the service's socket. A later one that was
// answered over a new connection has passed it, so that the next value cannot be committed before.
void Worker::awaitService(std::size_t index) {
  ConfigResult result;
  for (int tries = 0; tries < 1000; ++tries) {
    rest(std::chrono::milliseconds(2));
    if (config_->isValid(plan_[index].key, {"x"}, &result) || result.error() != eErrNone) return;
  }
}

int Worker::cut(bool all) {
  static std::atomic<unsigned> turn{0};
  if (all) return TestSupport::cutConnectionsToServices();
  const std::vector<int> connections = TestSupport::connectionsToServices();
  if (connections.empty()) return 0;
  shutdown(connections[turn++ % connections.size()], SHUT_RDWR);
  return 1;
}

// --- Handlers ---

void Worker::configChanged(const std::string& group, int, const std::string& name, int nameInstance,
                           const std::list<std::string>& value, const std::string&) {
  const std::string text = value.empty() ? "" : value.front();
  if (group == Plan::marker().group()) return noteMark(text);
  const std::size_t index = plan_.find(group, name, nameInstance);
  if (index == plan_.size()) return;
  ++counts_.told;
  histories_[index].noteCached();
  if (!histories_[index].noteTold(text)) ++counts_.outOfOrder;
}

bool Worker::dynamicValidate(const std::string&, int, const std::string&, int,
                             const std::list<std::string>& value, AppConfig::SecurityRole,
                             ConfigResult* result) {
  ++counts_.asked;
  if (numberIn(value.front()) % 7 != 3) return true;
  result->addResultMessage("numbers of this kind are refused");
  return result->fillConfigResult(false, eErrVetoed, false);
}

// What is refused here was stored in this process's cache a moment ago.
bool Worker::onChange(const std::string& group, int, const std::string& name, int nameInstance,
                      const std::list<std::string>& value, AppConfig::SecurityRole,
                      ConfigResult* result) {
  ++counts_.asked;
  const std::size_t index = plan_.find(group, name, nameInstance);
  if (index == plan_.size()) return true;
  histories_[index].noteCached();
  const bool refuses = numberIn(value.front()) % 11 == 5;
  histories_[index].noteEvent("on change " + value.front() + (refuses ? ": refused" : ""));
  interrupt();
  if (!refuses) return true;
  result->addResultMessage("this provider cannot follow");
  return result->fillConfigResult(false, eErrVetoed, false);
}

// The change is in nobody's hands but ours: the best time for a fault.
void Worker::interrupt() {
  if (once(atQuestions_, 4)) rest(std::chrono::microseconds(atQuestions_() % 3000));
  if (once(atQuestions_, 40)) TestSupport::cutConnectionsToServices();
}

// --- When all is delivered ---

// Changes of one variable follow each other, so the answer comes behind all that came before.
bool Worker::flush() {
  for (std::size_t index = 0; index < plan_.size(); ++index) {
    if (plan_[index].kind != Kind::Provided) continue;
    ConfigResult result;
    if (config_->setConfigVar(plan_[index].key, kRefusedByAll, &result)) return false;
    if (result.error() == eErrNone) return false;  // no answer
  }
  return true;
}

std::string Worker::mark() {
  const auto until = Clock::now() + kPatience;
  while (Clock::now() < until) {
    const std::string value =
        writer_ + "-" + std::to_string(Clock::now().time_since_epoch().count());
    ConfigResult result;
    if (config_->setConfigVar(Plan::marker(), value, &result)) return value;
    rest(std::chrono::milliseconds(2));
  }
  return {};
}

bool Worker::awaitMark(const std::string& value) {
  std::unique_lock<std::mutex> lock(markMutex_);
  return marked_.wait_for(lock, kPatience, [&] { return mark_ == value; });
}

void Worker::noteMark(const std::string& value) {
  const std::lock_guard<std::mutex> guard(markMutex_);
  mark_ = value;
  marked_.notify_all();
}

// --- Comparing ---

void Worker::look() {
  for (std::size_t index = 0; index < plan_.size(); ++index) {
    const ConfigVar& key = plan_[index].key;
    histories_[index].look();
    seen_[index].reset();
    if (!histories_[index].mayBeCached()) continue;
    seen_[index] = Truth{config_->getConfigVar(key),
                         config_->isDefault(key.group(), 0, key.name(), key.nameInstance())};
  }
}

Findings Worker::compare(const std::vector<Truth>& truths) {
  Findings findings;
  for (std::size_t index = 0; index < plan_.size() && index < truths.size(); ++index)
    compareOne(index, truths[index], findings);
  return findings;
}

void Worker::compareOne(std::size_t index, const Truth& truth, Findings& findings) {
  History& history = histories_[index];
  const std::optional<Truth>& seen = seen_[index];
  if (seen && !(*seen == truth)) {
    ++findings.stale;
    report(index, "stale", "cached " + describe(*seen) + ", the service holds " + describe(truth),
           findings);
  }
  const std::string lost = history.lostWrite(writer_, truth, isOnlyWriterOf(index));
  const std::string untold = history.neverTold(truth);
  for (const std::string& wrong : {lost, untold}) {
    if (wrong.empty()) continue;
    ++findings.lost;
    report(index, "lost", wrong, findings);
  }
}

void Worker::report(std::size_t index, const char* what, const std::string& wrong,
                    Findings& findings) {
  if (findings.stale + findings.lost > kFindingsTold) return;
  const ConfigVar& key = plan_[index].key;
  findings.text += std::string("  ") + what + ": " + writer_ + ": " + key.dottedName() + "[" +
                   std::to_string(key.nameInstance()) + "]: " + wrong + "\n" +
                   histories_[index].lastEvents();
}

}  // namespace Soak
