// The room of the questions that are open now, with what tells a provider from other subscribers.
//
// An answer names its question, and a question its change. A change has one open question at most:
// providers are asked one at a time, so that a refusal spares the others the question, and so that
// those who were told of a value on change are known in order.
#include "configsrv/changes/internal/provider_rounds.h"

#include <algorithm>
#include <list>
#include <memory>

#include "appconfig/core/key_notation.h"
#include "configsrv/changes/internal/change_check.h"
#include "platform/schema/config_if.pb.h"

namespace ConfigSrv {

using AppConfig::formatKey;
using PbUtility::PeerId;

ProviderRounds::ProviderRounds(const Model& model, const Subscriptions& subscriptions, Host& host,
                               const Log& log, std::chrono::milliseconds deadline,
                               DeadlinePassed deadlinePassed)
    : model_(model),
      subscriptions_(subscriptions),
      host_(host),
      log_(log),
      deadline_(deadline),
      deadlinePassed_(std::move(deadlinePassed)) {}

void ProviderRounds::begin(PendingChange& change) const {
  const Variable& variable = *change.parts.front().variable;
  const auto type = change.phase() == Phase::Validate ? ConfigIF::CALLBACK_DYNAMIC_VALIDATE
                                                      : ConfigIF::CALLBACK_ON_CHANGE;
  std::vector<Provider> providers;
  for (const Subscriber& subscriber : subscriptions_.covering(change.key().dottedName(), type)) {
    if (!isAsked(subscriber, variable)) continue;
    // Each peer once, whatever it registered; those of one peer are next to each other.
    if (providers.empty() || providers.back().peer != subscriber.peer)
      providers.push_back({subscriber.peer, std::string(subscriber.clientName)});
  }
  std::reverse(providers.begin(), providers.end());
  change.round.toAsk = std::move(providers);
}

bool ProviderRounds::isAsked(const Subscriber& subscriber, const Variable& variable) const {
  const bool mayRead = subscriber.role >= variable.readRole();
  if (mayRead && host_.mayProvide(subscriber.peer, variable)) return true;
  log_.debug(formatKey(variable.key()) + ": " + std::string(subscriber.clientName) +
             " is not asked about a change, for its " +
             (mayRead ? "user may not write it" : "role may not read it"));
  return false;
}

bool ProviderRounds::moveOn(PendingChange& change) {
  ProviderRound& round = change.round;
  if (round.toAsk.empty()) return false;
  round.asked = std::move(round.toAsk.back());
  round.toAsk.pop_back();
  round.answered = false;
  return true;
}

ChangeOutcome ProviderRounds::ask(PendingChange& change) {
  const ChangePart& part = change.parts.front();
  const auto message = messageOf({change.phase(),
                                  "change " + std::to_string(change.number),
                                  change.key(),
                                  valueAfter(*part.variable, part.wanted),
                                  change.by,
                                  {model_.epoch(), part.variable->valueChangedAt()}});
  ProviderRound& round = change.round;
  round.question = host_.ask(round.asked.peer, *message);
  if (!round.isAsking()) return failed(change, eErrUnavailable, "cannot be reached");
  if (change.phase() == Phase::OnChange) change.told.push_back(round.asked.peer);
  open_[{round.asked.peer, round.question}] = &change;
  round.timer = host_.after(deadline_, [this, number = change.number] { deadlinePassed_(number); });
  return {};
}

void ProviderRounds::close(PendingChange& change) {
  ProviderRound& round = change.round;
  if (!round.isAsking()) return;
  open_.erase({round.asked.peer, round.question});
  host_.cancel(round.timer);
  round.question = 0;
}

PendingChange* ProviderRounds::asking(PeerId peer, std::uint32_t question) const {
  const auto found = open_.find({peer, question});
  return found == open_.end() ? nullptr : found->second;
}

ChangeOutcome ProviderRounds::answered(PendingChange& change, std::uint32_t messageId,
                                       std::string_view payload) {
  const Answer answer = readAnswer(change.phase(), messageId, payload);
  if (answer.broken)
    logAnswer(change, "broken answer", "sent an answer that is none");
  else
    change.round.answered = true;
  if (!answer.refused) return {};
  if (answer.messages.empty())
    return failure(
        change.key(), eErrVetoed,
        "provider " + change.round.asked.clientName + " refused the value without a reason");
  ChangeOutcome vetoed{{eErrVetoed, answer.messages.front()}};
  vetoed.reasons.assign(answer.messages.begin() + 1, answer.messages.end());
  return vetoed;
}

ChangeOutcome ProviderRounds::answeredByAll(PendingChange& change, bool peerGone) {
  if (peerGone) return failed(change, eErrUnavailable, "went away while it was being asked");
  if (!change.round.answered) logAnswer(change, "no answer", "was asked and gave no answer");
  close(change);
  return {};
}

ChangeOutcome ProviderRounds::timedOut(const PendingChange& change) const {
  return failed(change, eErrTimedOut,
                "did not answer within " + std::to_string(deadline_.count()) + " ms");
}

ChangeOutcome ProviderRounds::failed(const PendingChange& change, eErrorT error,
                                     const std::string& why) const {
  ChangeOutcome outcome =
      failure(change.key(), error, "provider " + change.round.asked.clientName + " " + why);
  log_.repeatable(LogLevel::Warning, "provider", outcome.text);
  return outcome;
}

void ProviderRounds::logAnswer(const PendingChange& change, std::string_view kind,
                               const char* what) const {
  log_.repeatable(
      LogLevel::Warning, kind,
      formatKey(change.key()) + ": provider " + change.round.asked.clientName + " " + what);
}

}  // namespace ConfigSrv
