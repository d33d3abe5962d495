// Each change is a state machine (State below) that is moved by answers, completions and timers. A
// change is known by its number; whoever calls back later holds the number and finds the change
// gone when it has ended meanwhile.
//
// Each variable with a change on its way has a queue whose front is that change. Ended changes
// release their queue through a list that the outermost call works off: a long queue of changes
// that end at once (they change nothing, say) must not nest as deep as it is long.
//
// Who waits for whom: a change waits for the front of its queue and for the peer that it asks; a
// peer waits, with the thread that answers questions, for those of its changes that it requested
// from inside a receiver. A change adds such an edge when it is queued and when it asks, so a
// circle is found by walking from that change and coming back to it.
#include "configsrv/changes/changes.h"

#include <algorithm>
#include <map>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "appconfig/core/key_notation.h"
#include "configsrv/changes/internal/change_check.h"
#include "configsrv/changes/internal/change_shares.h"
#include "configsrv/changes/internal/questions.h"
#include "configsrv/changes/written_shares.h"
#include "platform/schema/config_if.pb.h"

namespace ConfigSrv {
namespace {

using AppConfig::formatKey;
using PbUtility::PeerId;
using Number = std::uint64_t;

enum class State { Waiting, Validating, OnChange, Committing, Ended };

const char* stateName(State state) {
  switch (state) {
    case State::Waiting:
      return "waiting";
    case State::Validating:
      return "validating";
    case State::OnChange:
      return "on-change";
    case State::Committing:
      return "committing";
    case State::Ended:
      return "ended";
  }
  return "?";
}

struct Provider {
  PeerId peer;
  std::string clientName;
};

struct Change {
  explicit Change(ChangeRequest&& wanted) : request(std::move(wanted)) {}

  Number number = 0;
  ChangeRequest request;
  ChangeDone done;
  // Its part of its owner's share.
  std::size_t bytes = 0;
  // What it comes to, once it has its turn.
  WrittenShares::Plan written;
  const Variable* variable = nullptr;
  // Ends after the dynamic validation and is in no queue.
  bool validateOnly = false;
  State state = State::Waiting;

  // Providers of this phase that were not asked yet, the next one last.
  std::vector<Provider> toAsk;
  // Whom it waits for; meaningful while a question is open.
  Provider asked{0, {}};
  std::uint32_t question = 0;
  bool answered = false;
  std::uint64_t timer = 0;
  // What the observer has kept with it, from its commit on.
  std::string record;
  // Everybody who was told the new value on change.
  std::vector<PeerId> told;

  const ConfigVar& key() const { return variable->key(); }
  bool asking() const { return question != 0; }
  Phase phase() const { return state == State::OnChange ? Phase::OnChange : Phase::Validate; }
};

using QuestionId = std::pair<PeerId, std::uint32_t>;

void forgetTold(Change& change, PeerId peer) {
  std::vector<PeerId>& told = change.told;
  told.erase(std::remove(told.begin(), told.end(), peer), told.end());
}

ChangeOutcome unchangedAt(const Variable& variable, const StoreChange& what) {
  ChangeOutcome outcome;
  outcome.unchanged = true;
  outcome.changedAt = partChangedAt(variable, what);
  return outcome;
}

ChangeOutcome notFound(const ConfigVar& key) {
  return failure(key, eErrNotFound, "no such variable");
}

}  // namespace

class Changes::Impl {
 public:
  Impl(Model& model, const Subscriptions& subscriptions, Announcer& announcer, Host& host,
       const Log& log, ChangesOptions options, ChangeObserver* observer)
      : model_(model),
        subscriptions_(subscriptions),
        announcer_(announcer),
        host_(host),
        log_(log),
        options_(options),
        observer_(observer),
        shares_(options_),
        written_(model, options_.written, options_.own),
        hourly_(options_.hourly, options_.own) {}

  void submit(ChangeRequest&& request, ChangeDone&& done);
  void validate(ChangeRequest&& request, ChangeDone&& done);
  void onAnswer(PeerId peer, std::uint32_t question, std::uint32_t messageId,
                std::string_view payload);
  void onQuestionDone(PeerId peer, std::uint32_t question, bool peerGone);
  void providersCame();
  void onDeliveryReady(PeerId peer);
  void broughtUpToDate(PeerId peer, const Variable& variable);
  void stop();
  std::size_t underWay() const { return changes_.size(); }
  const ChangeCounters& counters() const { return counters_; }
  ChangeShares& shares() { return shares_; }
  WrittenShares& written() { return written_; }

 private:
  // Nearly always one change long.
  using Queue = std::vector<Number>;

  // Taking a request in.
  void admit(ChangeRequest&& request, ChangeDone&& done, bool validateOnly);
  ChangeOutcome refusalOf(const Variable* variable, const ChangeRequest& request) const;
  bool endsAtOnce(const Variable& variable, const ChangeRequest& request) const;
  void endAtOnce(const Variable& variable, const ChangeRequest& request, const ChangeDone& done);
  Change& remember(const Variable& variable, ChangeRequest&& request, ChangeDone&& done);
  void enqueue(Change& change);
  std::string refusalToWait(const Queue& queue, const Change& change) const;
  bool asksItsRequester(const Queue& queue, PeerId requester) const;

  // The phases.
  void setState(Change& change, State state);
  void begin(Change& change);
  void beginToValidate(Change& change);
  void beginPhase(Change& change, State state);
  std::vector<Provider> providersOf(const Change& change) const;
  void askNext(Change& change);
  void ask(Change& change, Provider provider);
  void endPhase(Change& change);
  std::string refusalToKeep(const Change& change) const;
  void commit(Change& change);
  void onCommitted(Number number, const StoreStatus& status, std::uint64_t revision);
  void applyAndAnnounce(Change& change, std::uint64_t revision);
  void announce(const Variable& variable, const StoreChange& what, Announcer::Roles before,
                const std::vector<PeerId>& told);

  // Questions.
  Change* findAsking(PeerId peer, std::uint32_t question);
  void closeQuestion(Change& change);
  void onDeadline(Number number);
  void failForProvider(Change& change, eErrorT error, const std::string& text);

  // Ends.
  void fail(Change& change, eErrorT error, const std::string& text);
  void end(Change& change, const ChangeOutcome& outcome);
  void count(const Change& change, const ChangeOutcome& outcome);
  void record(const Change& change, const ChangeOutcome& outcome) const;
  void workOffReleased();
  void release(const Variable* variable);

  // Who waits for whom.
  bool waitsForItself(const Change& change) const;
  void appendAwaited(const Change& change, std::vector<const Change*>& awaited) const;

  Change* find(Number number);
  const Change* find(Number number) const;

  Model& model_;
  const Subscriptions& subscriptions_;
  Announcer& announcer_;
  Host& host_;
  const Log& log_;
  const ChangesOptions options_;
  ChangeObserver* const observer_;

  std::unordered_map<Number, std::unique_ptr<Change>> changes_;
  std::unordered_map<const Variable*, Queue> queues_;
  std::map<QuestionId, Number> questions_;
  // Changes that a peer's delivery thread waits for.
  std::unordered_map<PeerId, std::unordered_set<Number>> awaitedInside_;
  // Changes that wait for a provider's return, in the order in which they came.
  std::vector<Number> held_;
  std::vector<const Variable*> released_;
  bool workingOff_ = false;
  bool stopped_ = false;
  Number lastNumber_ = 0;
  ChangeShares shares_;
  WrittenShares written_;
  HourlyLimits hourly_;
  ChangeCounters counters_;
};

// --- Taking a request in ---

void Changes::Impl::submit(ChangeRequest&& request, ChangeDone&& done) {
  admit(std::move(request), std::move(done), false);
  workOffReleased();
}

void Changes::Impl::validate(ChangeRequest&& request, ChangeDone&& done) {
  admit(std::move(request), std::move(done), true);
  workOffReleased();
}

void Changes::Impl::admit(ChangeRequest&& request, ChangeDone&& done, bool validateOnly) {
  const Variable* variable = model_.find(request.what.key);
  const ChangeOutcome refusal = refusalOf(variable, request);
  if (refusal.error != eErrNone) {
    if (!validateOnly) ++counters_.refused;
    if (!validateOnly && observer_ != nullptr) observer_->changeEnds(request, variable, refusal);
    return done(refusal);
  }
  if (!validateOnly && endsAtOnce(*variable, request)) return endAtOnce(*variable, request, done);
  Change& change = remember(*variable, std::move(request), std::move(done));
  change.validateOnly = validateOnly;
  if (validateOnly)
    beginToValidate(change);
  else
    enqueue(change);
}

ChangeOutcome Changes::Impl::refusalOf(const Variable* variable,
                                       const ChangeRequest& request) const {
  if (variable == nullptr) return notFound(request.what.key);
  if (stopped_) return failure(variable->key(), eErrUnavailable, "the service is stopping");
  ChangeOutcome outcome = checkChange(*variable, request);
  if (outcome.error != eErrNone) return outcome;
  const std::string refusal = shares_.refusal(request.by.owner, ChangeShares::bytesOf(request));
  return refusal.empty() ? ChangeOutcome{} : failure(variable->key(), eErrLimit, refusal);
}

// A device writes what it has again and again; with no change before it, nothing of such a write has
// to be remembered.
bool Changes::Impl::endsAtOnce(const Variable& variable, const ChangeRequest& request) const {
  return changesNothing(variable, request.what) && queues_.find(&variable) == queues_.end();
}

void Changes::Impl::endAtOnce(const Variable& variable, const ChangeRequest& request,
                              const ChangeDone& done) {
  if (log_.isOn(LogLevel::Debug))
    log_.debug("a change of " + formatKey(variable.key()) + " by " + request.by.clientName +
               ": changes nothing");
  const ChangeOutcome unchanged = unchangedAt(variable, request.what);
  ++counters_.unchanged;
  if (observer_ != nullptr) observer_->changeEnds(request, &variable, unchanged);
  done(unchanged);
}

Change& Changes::Impl::remember(const Variable& variable, ChangeRequest&& request,
                                ChangeDone&& done) {
  auto change = std::make_unique<Change>(std::move(request));
  change->number = ++lastNumber_;
  change->done = std::move(done);
  change->variable = &variable;
  change->bytes = ChangeShares::bytesOf(change->request);
  shares_.add(change->request.by.owner, change->bytes);
  if (change->request.by.insideReceiver)
    awaitedInside_[change->request.by.peer].insert(change->number);
  return *changes_.emplace(lastNumber_, std::move(change)).first->second;
}

void Changes::Impl::enqueue(Change& change) {
  Queue& queue = queues_[change.variable];
  const bool asksRequester = asksItsRequester(queue, change.request.by.peer);
  const std::string refusal = refusalToWait(queue, change);
  queue.push_back(change.number);
  if (asksRequester)
    return fail(change, eErrConflict, "this process is being asked about a change of it right now");
  if (!refusal.empty()) return fail(change, eErrLimit, refusal);
  if (queue.size() == 1) return begin(change);
  if (waitsForItself(change))
    fail(change, eErrConflict, "the change before it waits for this process");
}

// Counted only where so many wait that somebody may have their share: all but rarely one change is
// alone.
std::string Changes::Impl::refusalToWait(const Queue& queue, const Change& change) const {
  const PbUtility::ShareLimits& limits = options_.waitingPerVariable;
  if (queue.size() <= std::min({limits.all, limits.ordinary, limits.perUser, limits.perProcess}))
    return {};
  PbUtility::Shares waiting("changes that wait for their turn at one variable", limits,
                            options_.own);
  // The first has its turn.
  for (std::size_t i = 1; i < queue.size(); ++i) {
    const Change* other = find(queue[i]);
    if (other != nullptr) waiting.add(other->request.by.owner);
  }
  const std::string refusal = waiting.refusal(change.request.by.owner);
  return refusal.empty() ? refusal : refusal + ": write less often";
}

// A provider that writes the variable it is being asked about, from whatever thread, could only be
// served after its own answer.
bool Changes::Impl::asksItsRequester(const Queue& queue, PeerId requester) const {
  const Change* front = queue.empty() ? nullptr : find(queue.front());
  return front != nullptr && front->asking() && front->asked.peer == requester;
}

// --- The phases ---

void Changes::Impl::setState(Change& change, State state) {
  if (log_.isOn(LogLevel::Debug))
    log_.debug("change " + std::to_string(change.number) + " of " + formatKey(change.key()) +
               " by " + change.request.by.clientName + ": " + stateName(change.state) + " -> " +
               stateName(state));
  change.state = state;
}

// Checked again, because roles, options and the value may have changed while it waited.
void Changes::Impl::begin(Change& change) {
  const ChangeOutcome outcome = checkChange(*change.variable, change.request);
  if (outcome.error != eErrNone) return end(change, outcome);
  if (changesNothing(*change.variable, change.request.what))
    return end(change, unchangedAt(*change.variable, change.request.what));
  // Before anybody is asked about it.
  change.written = written_.planOf(*change.variable, change.request.what, change.request.by.owner);
  const std::string refusal = refusalToKeep(change);
  if (!refusal.empty()) return fail(change, eErrLimit, refusal);
  if (changesValue(change.request.what))
    beginToValidate(change);
  else
    commit(change);
}

// A provider that was there when the service ended must not miss a change because the service was
// quicker to come back than the provider.
void Changes::Impl::beginToValidate(Change& change) {
  if (!host_.expectsProvider(*change.variable)) return beginPhase(change, State::Validating);
  log_.debug(formatKey(change.key()) + ": a change waits for the return of a provider");
  held_.push_back(change.number);
}

void Changes::Impl::providersCame() {
  const std::vector<Number> held = std::exchange(held_, {});
  for (const Number number : held) {
    Change* change = find(number);
    if (change == nullptr) continue;
    if (host_.expectsProvider(*change->variable))
      held_.push_back(number);
    else if (change->validateOnly)
      beginPhase(*change, State::Validating);
    else
      begin(*change);
  }
  workOffReleased();
}

void Changes::Impl::beginPhase(Change& change, State state) {
  setState(change, state);
  change.toAsk = providersOf(change);
  askNext(change);
}

// Each peer once, whatever it registered. The last of the list is asked first.
std::vector<Provider> Changes::Impl::providersOf(const Change& change) const {
  const auto type = change.phase() == Phase::Validate ? ConfigIF::CALLBACK_DYNAMIC_VALIDATE
                                                      : ConfigIF::CALLBACK_ON_CHANGE;
  std::vector<Provider> providers;
  for (const Subscriber& subscriber : subscriptions_.covering(change.key().dottedName(), type)) {
    if (subscriber.role < change.variable->readRole()) {
      log_.debug(formatKey(change.key()) + ": " + std::string(subscriber.clientName) +
                 " is not asked about a change, for its role may not read it");
    } else if (!host_.mayProvide(subscriber.peer, *change.variable)) {
      log_.debug(formatKey(change.key()) + ": " + std::string(subscriber.clientName) +
                 " is not asked about a change, for its user may not write it");
    } else if (providers.empty() || providers.back().peer != subscriber.peer) {
      providers.push_back({subscriber.peer, std::string(subscriber.clientName)});
    }
  }
  std::reverse(providers.begin(), providers.end());
  return providers;
}

void Changes::Impl::askNext(Change& change) {
  if (change.toAsk.empty()) return endPhase(change);
  Provider provider = std::move(change.toAsk.back());
  change.toAsk.pop_back();
  ask(change, std::move(provider));
}

void Changes::Impl::ask(Change& change, Provider provider) {
  const std::list<std::string> value = valueAfter(*change.variable, change.request.what);
  const auto message = messageOf({change.phase(),
                                  "change " + std::to_string(change.number),
                                  change.key(),
                                  value,
                                  change.request.by,
                                  {model_.epoch(), change.variable->valueChangedAt()}});
  change.asked = std::move(provider);
  change.answered = false;
  const PeerId peer = change.asked.peer;
  // Found out before asking: an open question can only be answered, not taken back.
  if (waitsForItself(change))
    return failForProvider(change, eErrConflict, "waits for this change and cannot be asked");
  change.question = host_.ask(peer, *message);
  if (change.question == 0) return failForProvider(change, eErrUnavailable, "cannot be reached");
  if (change.phase() == Phase::OnChange) change.told.push_back(peer);
  questions_[{peer, change.question}] = change.number;
  change.timer = host_.after(options_.providerDeadline,
                             [this, number = change.number] { onDeadline(number); });
}

void Changes::Impl::endPhase(Change& change) {
  if (change.validateOnly) return end(change, {});
  if (change.state == State::Validating) return beginPhase(change, State::OnChange);
  commit(change);
}

// Why what the change comes to cannot be kept; empty when it can.
std::string Changes::Impl::refusalToKeep(const Change& change) const {
  std::string refusal = written_.refusal(change.written);
  const PbUtility::Owner owner = change.request.by.owner;
  if (!refusal.empty() || !hourly_.limits(owner)) return refusal;
  return hourly_.refusal(owner, bytesOf(change.request.what), host_.now());
}

void Changes::Impl::commit(Change& change) {
  // Others of the same user's may have come before it, while providers were asked.
  const std::string refusal = refusalToKeep(change);
  if (!refusal.empty()) return fail(change, eErrLimit, refusal);
  written_.take(change.written);
  const PbUtility::Owner owner = change.request.by.owner;
  if (hourly_.limits(owner)) hourly_.add(owner, bytesOf(change.request.what), host_.now());
  setState(change, State::Committing);
  const auto done = [this, number = change.number](const StoreStatus& status,
                                                   std::uint64_t revision) {
    onCommitted(number, status, revision);
  };
  StoreChange stored = asStored(*change.variable, change.request.what);
  if (observer_ != nullptr)
    change.record = stored.record = observer_->changeCommits(change.request, *change.variable);
  if (!host_.commit(change.request.by.owner.uid, {std::move(stored)}, done))
    fail(change, eErrUnavailable, "the service is stopping");
}

void Changes::Impl::onCommitted(Number number, const StoreStatus& status, std::uint64_t revision) {
  Change* change = find(number);
  if (change == nullptr) return;
  if (status.ok()) {
    applyAndAnnounce(*change, revision);
  } else {
    log_.repeatable(LogLevel::Error, "not stored",
                    formatKey(change->key()) + ": not stored: " + status.text);
    fail(*change, eErrStorage, status.text);
  }
  workOffReleased();
}

void Changes::Impl::applyAndAnnounce(Change& change, std::uint64_t revision) {
  const Variable& variable = *change.variable;
  const Announcer::Roles before{variable.readRole(), variable.writeRole()};
  const bool wasDefault = variable.isDefault();
  ChangeOutcome outcome;
  outcome.revision = revision;
  outcome.changedAt = revision;
  if (observer_ != nullptr) observer_->changeCommitted(change.record, revision);
  const StoreChange what = asStored(variable, std::move(change.request.what));
  model_.apply(what, revision);
  written_.apply(std::exchange(change.written, {}));
  // On change they heard the value and not whether it is the default.
  const bool flagIsNews = variable.isDefault() != wasDefault;
  const std::vector<PeerId> told = flagIsNews ? std::vector<PeerId>() : std::move(change.told);
  end(change, outcome);
  announce(variable, what, before, told);
}

void Changes::Impl::announce(const Variable& variable, const StoreChange& what,
                             Announcer::Roles before, const std::vector<PeerId>& told) {
  if (changesValue(what)) {
    announcer_.valueMissedOnChange(variable, told);
    return announcer_.valueChanged(variable);
  }
  if (std::holds_alternative<StoreChange::SetOptions>(what.what))
    return announcer_.optionsChanged(variable);
  announcer_.accessLevelsChanged(variable, before);
  if (!std::holds_alternative<StoreChange::ResetAttributes>(what.what)) return;
  announcer_.optionsChanged(variable, Announcer::Knows::AllBefore);
  announcer_.attributesReset(variable);
}

// --- Questions ---

Change* Changes::Impl::findAsking(PeerId peer, std::uint32_t question) {
  const auto found = questions_.find({peer, question});
  return found == questions_.end() ? nullptr : find(found->second);
}

void Changes::Impl::closeQuestion(Change& change) {
  if (!change.asking()) return;
  questions_.erase({change.asked.peer, change.question});
  host_.cancel(change.timer);
  change.question = 0;
}

// The first refusal is the verdict. Otherwise the question stays open until it is done, because a
// process with two links answers twice.
void Changes::Impl::onAnswer(PeerId peer, std::uint32_t question, std::uint32_t messageId,
                             std::string_view payload) {
  Change* change = findAsking(peer, question);
  if (change == nullptr) return;
  const Answer answer = readAnswer(change->phase(), messageId, payload);
  if (answer.broken)
    log_.repeatable(LogLevel::Warning, "broken answer",
                    formatKey(change->key()) + ": provider " + change->asked.clientName +
                        " sent an answer that is none");
  else
    change->answered = true;
  if (!answer.refused) return;
  ChangeOutcome vetoed;
  vetoed.error = eErrVetoed;
  vetoed.messages = answer.messages;
  if (vetoed.messages.empty())
    vetoed =
        failure(change->key(), eErrVetoed,
                "provider " + change->asked.clientName + " refused the value without a reason");
  end(*change, vetoed);
  workOffReleased();
}

void Changes::Impl::onQuestionDone(PeerId peer, std::uint32_t question, bool peerGone) {
  Change* change = findAsking(peer, question);
  if (change == nullptr) return;
  if (peerGone) {
    failForProvider(*change, eErrUnavailable, "went away while it was being asked");
  } else {
    if (!change->answered)
      log_.repeatable(LogLevel::Warning, "no answer",
                      formatKey(change->key()) + ": provider " + change->asked.clientName +
                          " was asked and gave no answer");
    closeQuestion(*change);
    askNext(*change);
  }
  workOffReleased();
}

// What it was told on change it forgets again: the value that still holds comes after it.
void Changes::Impl::onDeliveryReady(PeerId peer) {
  for (const auto& [number, change] : changes_) forgetTold(*change, peer);
}

// Registrations are repeated one after another, and a change may ask between two of them, or between
// what one of them is owed of this variable and of another.
void Changes::Impl::broughtUpToDate(PeerId peer, const Variable& variable) {
  const auto queue = queues_.find(&variable);
  Change* underWay = queue == queues_.end() ? nullptr : find(queue->second.front());
  if (underWay != nullptr) forgetTold(*underWay, peer);
}

void Changes::Impl::onDeadline(Number number) {
  Change* change = find(number);
  if (change == nullptr || !change->asking()) return;
  failForProvider(
      *change, eErrTimedOut,
      "did not answer within " + std::to_string(options_.providerDeadline.count()) + " ms");
  workOffReleased();
}

void Changes::Impl::failForProvider(Change& change, eErrorT error, const std::string& text) {
  const ChangeOutcome outcome =
      failure(change.key(), error, "provider " + change.asked.clientName + " " + text);
  log_.repeatable(LogLevel::Warning, "provider", outcome.messages.front());
  end(change, outcome);
}

// --- Ends ---

void Changes::Impl::fail(Change& change, eErrorT error, const std::string& text) {
  end(change, failure(change.key(), error, text));
}

void Changes::Impl::end(Change& change, const ChangeOutcome& outcome) {
  closeQuestion(change);
  setState(change, State::Ended);
  count(change, outcome);
  if (outcome.revision == 0) record(change, outcome);
  const auto found = changes_.find(change.number);
  const std::unique_ptr<Change> ended = std::move(found->second);
  changes_.erase(found);
  shares_.remove(ended->request.by.owner, ended->bytes);
  written_.drop(ended->written);
  const auto inside = awaitedInside_.find(ended->request.by.peer);
  if (inside != awaitedInside_.end()) {
    inside->second.erase(ended->number);
    if (inside->second.empty()) awaitedInside_.erase(inside);
  }
  if (!ended->validateOnly) released_.push_back(ended->variable);
  ended->done(outcome);
  if (outcome.error == eErrNone) return;
  for (const PeerId peer : ended->told) announcer_.repeatValue(*ended->variable, peer);
}

void Changes::Impl::count(const Change& change, const ChangeOutcome& outcome) {
  if (change.validateOnly) return;
  if (outcome.error != eErrNone)
    ++counters_.refused;
  else if (outcome.unchanged)
    ++counters_.unchanged;
  else
    ++counters_.commits;
}

void Changes::Impl::record(const Change& change, const ChangeOutcome& outcome) const {
  if (change.validateOnly || observer_ == nullptr) return;
  observer_->changeEnds(change.request, change.variable, outcome);
}

void Changes::Impl::workOffReleased() {
  if (workingOff_) return;
  workingOff_ = true;
  while (!released_.empty()) {
    const Variable* variable = released_.back();
    released_.pop_back();
    release(variable);
  }
  workingOff_ = false;
}

// Takes ended changes out of a variable's queue and begins the next one when the front has ended.
void Changes::Impl::release(const Variable* variable) {
  const auto found = queues_.find(variable);
  if (found == queues_.end()) return;
  Queue& queue = found->second;
  const auto hasEnded = [this](Number number) { return find(number) == nullptr; };
  const bool frontEnded = hasEnded(queue.front());
  queue.erase(std::remove_if(queue.begin(), queue.end(), hasEnded), queue.end());
  if (queue.empty())
    queues_.erase(found);
  else if (frontEnded)
    begin(*find(queue.front()));
}

void Changes::Impl::stop() {
  stopped_ = true;
  std::vector<Number> numbers;
  for (const auto& [number, change] : changes_) {
    if (change->state != State::Committing) numbers.push_back(number);
  }
  for (const Number number : numbers) {
    Change* change = find(number);
    if (change != nullptr) fail(*change, eErrUnavailable, "the service is stopping");
  }
  workOffReleased();
}

// --- Who waits for whom ---

// Whether a walk along "waits for" that begins at this change comes back to it.
bool Changes::Impl::waitsForItself(const Change& change) const {
  std::vector<const Change*> toVisit;
  std::unordered_set<const Change*> visited;
  appendAwaited(change, toVisit);
  while (!toVisit.empty()) {
    const Change* next = toVisit.back();
    toVisit.pop_back();
    if (next == &change) return true;
    if (visited.insert(next).second) appendAwaited(*next, toVisit);
  }
  return false;
}

// The changes that this one waits for: the front of its queue, or what the peer that it asks waits
// for. Those between it and the front wait for the front too.
void Changes::Impl::appendAwaited(const Change& change, std::vector<const Change*>& awaited) const {
  if (change.state == State::Waiting && !change.validateOnly) {
    const auto queue = queues_.find(change.variable);
    const Change* front = queue == queues_.end() ? nullptr : find(queue->second.front());
    if (front != nullptr && front != &change) awaited.push_back(front);
    return;
  }
  if (change.state != State::Validating && change.state != State::OnChange) return;
  const auto inside = awaitedInside_.find(change.asked.peer);
  if (inside == awaitedInside_.end()) return;
  for (const Number number : inside->second) awaited.push_back(find(number));
}

Change* Changes::Impl::find(Number number) {
  const auto found = changes_.find(number);
  return found == changes_.end() ? nullptr : found->second.get();
}

const Change* Changes::Impl::find(Number number) const {
  const auto found = changes_.find(number);
  return found == changes_.end() ? nullptr : found->second.get();
}

// --- Changes ---

Changes::Changes(Model& model, const Subscriptions& subscriptions, Announcer& announcer, Host& host,
                 const Log& log, ChangesOptions options, ChangeObserver* observer)
    : impl_(std::make_unique<Impl>(model, subscriptions, announcer, host, log, options, observer)) {
}
Changes::~Changes() = default;

void Changes::countStored() { impl_->written().countStored(); }
void Changes::peerCame(const PbUtility::Peer& peer) { impl_->written().came(peer.pid); }
void Changes::peerWent(const PbUtility::Peer& peer) { impl_->written().went(peer.pid); }

void Changes::submit(ChangeRequest request, ChangeDone done) {
  impl_->submit(std::move(request), std::move(done));
}
void Changes::validate(ChangeRequest request, ChangeDone done) {
  impl_->validate(std::move(request), std::move(done));
}
std::string Changes::reserve(PbUtility::Owner owner, std::size_t bytes) {
  return impl_->shares().reserve(owner, bytes);
}
void Changes::release(PbUtility::Owner owner, std::size_t bytes) {
  impl_->shares().release(owner, bytes);
}
void Changes::onAnswer(PeerId peer, std::uint32_t question, std::uint32_t messageId,
                       std::string_view payload) {
  impl_->onAnswer(peer, question, messageId, payload);
}
void Changes::onQuestionDone(PeerId peer, std::uint32_t question, bool peerGone) {
  impl_->onQuestionDone(peer, question, peerGone);
}
void Changes::providersCame() { impl_->providersCame(); }
void Changes::onDeliveryReady(PeerId peer) { impl_->onDeliveryReady(peer); }
void Changes::broughtUpToDate(PeerId peer, const Variable& variable) {
  impl_->broughtUpToDate(peer, variable);
}
void Changes::stop() { impl_->stop(); }
std::size_t Changes::underWay() const { return impl_->underWay(); }
const ChangeCounters& Changes::counters() const { return impl_->counters(); }

}  // namespace ConfigSrv
