// Each change is a state machine (ChangeState) that is moved by answers, completions and timers.
// What happens to a change in each state is here; two things that have a life of their own are not:
// whose turn it is and who waits for whom (ChangeQueues), and whom to ask and what the answers say
// (ProviderRounds).
//
// A change consists of parts, one for each variable. It has its turn, is asked about, is committed
// and ends as a whole; its parts become one transaction, with one revision. What the store keeps of
// a part is computed once, when it is committed, and that is also what is applied to the model.
//
// Whatever is called from outside ends with beginNextTurns(): a change that ends gives up its turn,
// and those behind it begin there, one after another, instead of one inside the other.
#include "configsrv/changes/changes.h"

#include <algorithm>
#include <utility>

#include "appconfig/core/key_notation.h"
#include "configsrv/changes/internal/change_check.h"
#include "configsrv/changes/internal/change_queues.h"
#include "configsrv/changes/internal/change_shares.h"
#include "configsrv/changes/internal/pending_change.h"
#include "configsrv/changes/internal/provider_rounds.h"

namespace ConfigSrv {

using AppConfig::formatKey;
using PbUtility::Owner;
using PbUtility::PeerId;

const char* stateName(ChangeState state) {
  switch (state) {
    case ChangeState::Waiting:
      return "waiting";
    case ChangeState::Validating:
      return "validating";
    case ChangeState::OnChange:
      return "on-change";
    case ChangeState::Committing:
      return "committing";
    case ChangeState::Ended:
      return "ended";
  }
  return "?";
}

namespace {

void forgetTold(PendingChange& change, PeerId peer) {
  std::vector<PeerId>& told = change.told;
  told.erase(std::remove(told.begin(), told.end(), peer), told.end());
}

ChangeOutcome unchangedAt(std::uint64_t revision) {
  ChangeOutcome outcome;
  outcome.unchanged = true;
  outcome.changedAt = revision;
  return outcome;
}

bool changesNothing(const PendingChange& change) {
  return std::all_of(change.parts.begin(), change.parts.end(), [](const ChangePart& part) {
    return changesNothing(*part.variable, part.wanted);
  });
}

// The newest of its parts.
std::uint64_t changedAt(const PendingChange& change) {
  std::uint64_t newest = 0;
  for (const ChangePart& part : change.parts)
    newest = std::max(newest, partChangedAt(*part.variable, part.wanted));
  return newest;
}

bool changesAnyValue(const PendingChange& change) {
  return std::any_of(change.parts.begin(), change.parts.end(),
                     [](const ChangePart& part) { return changesValue(part.wanted); });
}

std::size_t bytesOf(const PendingChange& change) {
  std::size_t bytes = 0;
  for (const ChangePart& part : change.parts) bytes += bytesOf(part.wanted);
  return bytes;
}

}  // namespace

Changes::Changes(Model& model, const Subscriptions& subscriptions, Announcer& announcer, Host& host,
                 const Log& log, ChangesOptions options, ChangeObserver* observer)
    : model_(model),
      announcer_(announcer),
      host_(host),
      log_(log),
      observer_(observer),
      queues_(std::make_unique<ChangeQueues>(options.waitingPerVariable, options.own)),
      rounds_(std::make_unique<ProviderRounds>(model, subscriptions, host, log,
                                               options.providerDeadline,
                                               [this](Number number) { onDeadline(number); })),
      shares_(std::make_unique<ChangeShares>(options)),
      written_(model, options.written, options.own),
      hourly_(options.hourly, options.own) {}

Changes::~Changes() = default;

// --- Taking a request in ---

void Changes::submit(ChangeRequest request, ChangeDone done) {
  admit(std::move(request), std::move(done), false);
  beginNextTurns();
}

void Changes::validate(ChangeRequest request, ChangeDone done) {
  admit(std::move(request), std::move(done), true);
  beginNextTurns();
}

Base::Status<> Changes::reserve(Owner owner, std::size_t bytes) {
  return shares_->reserve(owner, bytes);
}

void Changes::release(Owner owner, std::size_t bytes) { shares_->release(owner, bytes); }

void Changes::admit(ChangeRequest&& request, ChangeDone&& done, bool validateOnly) {
  const Variable* variable = model_.find(request.what.key);
  const std::size_t bytes = ChangeShares::bytesOf(request);
  const ChangeOutcome refusal = refusalOf(variable, request, bytes);
  if (!refusal.ok()) {
    if (!validateOnly) ++counters_.refused;
    if (!validateOnly && observer_ != nullptr)
      observer_->changeEnds(request.by, request.what, variable, refusal);
    return done(refusal);
  }
  if (!validateOnly && endsAtOnce(*variable, request)) return endAtOnce(*variable, request, done);
  PendingChange& change = remember(*variable, std::move(request), std::move(done), bytes);
  change.validateOnly = validateOnly;
  if (validateOnly)
    beginToValidate(change);
  else
    enqueue(change);
}

ChangeOutcome Changes::refusalOf(const Variable* variable, const ChangeRequest& request,
                                 std::size_t bytes) const {
  if (variable == nullptr) return failure(request.what.key, eErrNotFound, "no such variable");
  if (stopped_) return failure(variable->key(), eErrUnavailable, "the service is stopping");
  ChangeOutcome outcome = checkChange(*variable, request.what, request.by.role);
  if (!outcome.ok()) return outcome;
  const Base::Status<> room = shares_->room(request.by.owner, bytes);
  return room.ok() ? ChangeOutcome{} : failure(variable->key(), eErrLimit, room.text);
}

// A device writes what it has again and again; with no change before it, nothing of such a write has
// to be remembered.
bool Changes::endsAtOnce(const Variable& variable, const ChangeRequest& request) const {
  return changesNothing(variable, request.what) && queues_->isFree(variable);
}

void Changes::endAtOnce(const Variable& variable, const ChangeRequest& request,
                        const ChangeDone& done) {
  if (log_.isOn(LogLevel::Debug))
    log_.debug("a change of " + formatKey(variable.key()) + " by " + request.by.clientName +
               ": changes nothing");
  const ChangeOutcome unchanged = unchangedAt(partChangedAt(variable, request.what));
  ++counters_.unchanged;
  if (observer_ != nullptr) observer_->changeEnds(request.by, request.what, &variable, unchanged);
  done(unchanged);
}

PendingChange& Changes::remember(const Variable& variable, ChangeRequest&& request,
                                 ChangeDone&& done, std::size_t bytes) {
  auto change = std::make_unique<PendingChange>();
  change->number = ++lastNumber_;
  change->by = std::move(request.by);
  change->done = std::move(done);
  change->parts.emplace_back(variable, std::move(request.what));
  change->bytes = bytes;
  shares_->add(change->by.owner, bytes);
  queues_->requested(*change);
  return *changes_.emplace(lastNumber_, std::move(change)).first->second;
}

void Changes::enqueue(PendingChange& change) {
  if (queues_->takeTurn(change)) return begin(change);
  const ChangeOutcome refusal = queues_->wait(change);
  if (!refusal.ok()) end(change, refusal);
}

// --- The phases ---

void Changes::setState(PendingChange& change, ChangeState state) {
  if (log_.isOn(LogLevel::Debug))
    log_.debug("change " + std::to_string(change.number) + " of " + formatKey(change.key()) +
               " by " + change.by.clientName + ": " + stateName(change.state) + " -> " +
               stateName(state));
  change.state = state;
}

void Changes::begin(PendingChange& change) {
  const ChangeOutcome outcome = checkAgain(change);
  if (!outcome.ok()) return end(change, outcome);
  if (changesNothing(change)) return end(change, unchangedAt(changedAt(change)));
  for (ChangePart& part : change.parts)
    part.written = written_.planOf(*part.variable, part.wanted, change.by.owner);
  // Before anybody is asked about it.
  const Base::Status<> room = roomToKeep(change);
  if (!room.ok()) return fail(change, eErrLimit, room.text);
  if (changesAnyValue(change))
    beginToValidate(change);
  else
    commit(change);
}

// Roles, options and the value may have changed while it waited.
ChangeOutcome Changes::checkAgain(const PendingChange& change) const {
  ChangeOutcome outcome;
  for (const ChangePart& part : change.parts) {
    outcome = checkChange(*part.variable, part.wanted, change.by.role);
    if (!outcome.ok()) break;
  }
  return outcome;
}

// A provider that was there when the service ended must not miss a change because the service was
// quicker to come back than the provider.
void Changes::beginToValidate(PendingChange& change) {
  if (!expectsProvider(change)) return beginPhase(change, ChangeState::Validating);
  log_.debug(formatKey(change.key()) + ": a change waits for the return of a provider");
  held_.push_back(change.number);
}

bool Changes::expectsProvider(const PendingChange& change) const {
  return std::any_of(change.parts.begin(), change.parts.end(), [this](const ChangePart& part) {
    return host_.expectsProvider(*part.variable);
  });
}

void Changes::providersCame() {
  const std::vector<Number> held = std::exchange(held_, {});
  for (const Number number : held) {
    PendingChange* change = find(number);
    if (change == nullptr) continue;
    if (expectsProvider(*change))
      held_.push_back(number);
    else if (change->validateOnly)
      beginPhase(*change, ChangeState::Validating);
    else
      begin(*change);
  }
  beginNextTurns();
}

void Changes::beginPhase(PendingChange& change, ChangeState state) {
  setState(change, state);
  rounds_->begin(change);
  askNext(change);
}

void Changes::askNext(PendingChange& change) {
  if (!ProviderRounds::moveOn(change)) return endPhase(change);
  // Found out before asking: an open question can only be answered, not taken back.
  const ChangeOutcome outcome =
      queues_->waitsForItself(change)
          ? rounds_->failed(change, eErrConflict, "waits for this change and cannot be asked")
          : rounds_->ask(change);
  if (!outcome.ok()) end(change, outcome);
}

void Changes::onAnswer(PeerId peer, std::uint32_t question, std::uint32_t messageId,
                       std::string_view payload) {
  PendingChange* change = rounds_->asking(peer, question);
  if (change == nullptr) return;
  const ChangeOutcome outcome = rounds_->answered(*change, messageId, payload);
  if (outcome.ok()) return;
  end(*change, outcome);
  beginNextTurns();
}

void Changes::onQuestionDone(PeerId peer, std::uint32_t question, bool peerGone) {
  PendingChange* change = rounds_->asking(peer, question);
  if (change == nullptr) return;
  const ChangeOutcome outcome = rounds_->answeredByAll(*change, peerGone);
  if (outcome.ok())
    askNext(*change);
  else
    end(*change, outcome);
  beginNextTurns();
}

void Changes::onDeadline(Number number) {
  PendingChange* change = find(number);
  if (change == nullptr || !change->round.isAsking()) return;
  end(*change, rounds_->timedOut(*change));
  beginNextTurns();
}

// What the peer is told now takes the place of what it was told on change.
void Changes::onDeliveryReady(PeerId peer) {
  for (const auto& [number, change] : changes_) forgetTold(*change, peer);
}

// Registrations are repeated one after another, and a change may ask between two of them, or between
// what one of them is owed of this variable and of another.
void Changes::broughtUpToDate(PeerId peer, const Variable& variable) {
  PendingChange* underWay = queues_->atTurn(variable);
  if (underWay != nullptr) forgetTold(*underWay, peer);
}

void Changes::endPhase(PendingChange& change) {
  if (change.validateOnly) return end(change, {});
  if (change.state == ChangeState::Validating) return beginPhase(change, ChangeState::OnChange);
  commit(change);
}

// For what the change comes to.
Base::Status<> Changes::roomToKeep(const PendingChange& change) const {
  for (const ChangePart& part : change.parts) {
    Base::Status<> room = written_.room(part.written);
    if (!room.ok()) return room;
  }
  const Owner owner = change.by.owner;
  if (!hourly_.limits(owner)) return {};
  return hourly_.room(owner, bytesOf(change), host_.now());
}

void Changes::commit(PendingChange& change) {
  // Others of the same user's may have come before it, while providers were asked.
  const Base::Status<> room = roomToKeep(change);
  if (!room.ok()) return fail(change, eErrLimit, room.text);
  const Owner owner = change.by.owner;
  if (hourly_.limits(owner)) hourly_.add(owner, bytesOf(change), host_.now());
  setState(change, ChangeState::Committing);
  StoreTransaction transaction;
  transaction.reserve(change.parts.size());
  for (ChangePart& part : change.parts) {
    written_.take(part.written);
    part.instead = storedInstead(*part.variable, part.wanted);
    transaction.push_back(part.stored());
    transaction.back().row = part.variable->rowBefore(transaction.back());
    if (observer_ == nullptr) continue;
    part.record = observer_->changeCommits(change.by, part.wanted, *part.variable);
    transaction.back().record = part.record;
  }
  host_.commit(owner.uid, std::move(transaction),
               [this, number = change.number](const StoreStatus& status, std::uint64_t revision) {
                 onCommitted(number, status, revision);
               });
}

void Changes::onCommitted(Number number, const StoreStatus& status, std::uint64_t revision) {
  PendingChange* change = find(number);
  if (change == nullptr) return;
  if (status.ok()) {
    applyAndAnnounce(*change, revision);
  } else {
    log_.repeatable(LogLevel::Error, "not stored",
                    formatKey(change->key()) + ": not stored: " + status.text);
    fail(*change, eErrStorage, status.text);
  }
  beginNextTurns();
}

void Changes::applyAndAnnounce(PendingChange& change, std::uint64_t revision) {
  for (ChangePart& part : change.parts) {
    if (observer_ != nullptr) observer_->changeCommitted(part.record, revision);
    part.before = {part.variable->readRole(), part.variable->writeRole()};
    part.wasDefault = part.variable->isDefault();
    model_.apply(part.stored(), revision);
    written_.apply(std::exchange(part.written, {}));
  }
  ChangeOutcome outcome;
  outcome.revision = revision;
  outcome.changedAt = revision;
  const std::unique_ptr<PendingChange> ended = finish(change, outcome);
  for (const ChangePart& part : ended->parts) announce(part, ended->told);
}

void Changes::announce(const ChangePart& part, const std::vector<PeerId>& told) {
  const Variable& variable = *part.variable;
  if (changesValue(part.wanted)) {
    // On change they heard the value and not whether it is the default.
    const bool flagIsNews = variable.isDefault() != part.wasDefault;
    announcer_.valueMissedOnChange(variable, flagIsNews ? std::vector<PeerId>() : told);
    return announcer_.valueChanged(variable);
  }
  if (std::holds_alternative<StoreChange::SetOptions>(part.wanted.what))
    return announcer_.optionsChanged(variable);
  announcer_.accessLevelsChanged(variable, part.before);
  if (!std::holds_alternative<StoreChange::ResetAttributes>(part.wanted.what)) return;
  announcer_.optionsChanged(variable, Announcer::Knows::AllBefore);
  announcer_.attributesReset(variable);
}

// --- The ends ---

void Changes::fail(PendingChange& change, eErrorT error, const std::string& text) {
  end(change, failure(change.key(), error, text));
}

void Changes::end(PendingChange& change, const ChangeOutcome& outcome) {
  static_cast<void>(finish(change, outcome));
}

// Ends the change. What is left of it is the caller's; nobody else finds it any more.
std::unique_ptr<PendingChange> Changes::finish(PendingChange& change,
                                               const ChangeOutcome& outcome) {
  rounds_->close(change);
  setState(change, ChangeState::Ended);
  count(change, outcome);
  if (outcome.revision == 0) tellObserver(change, outcome);
  queues_->leave(change);
  const auto found = changes_.find(change.number);
  std::unique_ptr<PendingChange> ended = std::move(found->second);
  changes_.erase(found);
  shares_->remove(ended->by.owner, ended->bytes);
  for (const ChangePart& part : ended->parts) written_.drop(part.written);
  ended->done(outcome);
  if (outcome.ok()) return ended;
  for (const PeerId peer : ended->told) {
    for (const ChangePart& part : ended->parts) announcer_.repeatValue(*part.variable, peer);
  }
  return ended;
}

void Changes::count(const PendingChange& change, const ChangeOutcome& outcome) {
  if (change.validateOnly) return;
  if (!outcome.ok())
    ++counters_.refused;
  else if (outcome.unchanged)
    ++counters_.unchanged;
  else
    ++counters_.commits;
}

void Changes::tellObserver(const PendingChange& change, const ChangeOutcome& outcome) const {
  if (change.validateOnly || observer_ == nullptr) return;
  for (const ChangePart& part : change.parts)
    observer_->changeEnds(change.by, part.wanted, part.variable, outcome);
}

void Changes::beginNextTurns() {
  if (beginningTurns_) return;
  beginningTurns_ = true;
  while (PendingChange* next = queues_->nextTurn()) begin(*next);
  beginningTurns_ = false;
}

void Changes::stop() {
  stopped_ = true;
  std::vector<Number> numbers;
  for (const auto& [number, change] : changes_) {
    if (change->state != ChangeState::Committing) numbers.push_back(number);
  }
  for (const Number number : numbers) {
    PendingChange* change = find(number);
    if (change != nullptr) fail(*change, eErrUnavailable, "the service is stopping");
  }
  beginNextTurns();
}

PendingChange* Changes::find(Number number) const {
  const auto found = changes_.find(number);
  return found == changes_.end() ? nullptr : found->second.get();
}

}  // namespace ConfigSrv
