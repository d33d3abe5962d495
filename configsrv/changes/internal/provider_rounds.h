// ProviderRounds: asks the providers of a variable about a change, one after another.
//
// A round is the questions of one phase: every provider is asked once, whatever it has registered.
// It ends when all have been asked, or with the first failure: a provider that refuses, cannot be
// reached, goes away, or does not answer by the deadline. What then becomes of the change is for
// the caller to decide; nothing here ends one.
//
//   rounds.begin(change);                                   // in its state of that phase
//   while (rounds.moveOn(change)) { outcome = rounds.ask(change); ...; }
//   PendingChange* change = rounds.asking(peer, question);  // an answer came: whose is it?
//
// Errors:   every function that may end a change returns how; success: the round goes on.
// Threads:  one. What it is made of outlives it.
// Owns:     nothing. An open question is closed before its change is gone.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "configsrv/changes/host.h"
#include "configsrv/changes/internal/pending_change.h"
#include "configsrv/log/log.h"
#include "configsrv/model/model.h"
#include "configsrv/subscriptions/subscriptions.h"

namespace ConfigSrv {

class ProviderRounds {
 public:
  // Called with the number of a change when the deadline of its question has passed.
  using DeadlinePassed = std::function<void(ChangeNumber change)>;

  ProviderRounds(const Model& model, const Subscriptions& subscriptions, Host& host, const Log& log,
                 std::chrono::milliseconds deadline, DeadlinePassed deadlinePassed);

  // Finds out who has to be asked in the change's phase.
  void begin(PendingChange& change) const;
  // Makes the next of them the one that is asked; false when all have been.
  static bool moveOn(PendingChange& change);
  // Asks that one.
  [[nodiscard]] ChangeOutcome ask(PendingChange& change);
  // Takes no more answers to the open question, if there is one.
  void close(PendingChange& change);

  // The change whose open question this is; null when it is none.
  PendingChange* asking(PbUtility::PeerId peer, std::uint32_t question) const;
  // An answer came. A question stays open behind it, for a process with two links answers twice;
  // but the first refusal is the verdict.
  [[nodiscard]] ChangeOutcome answered(PendingChange& change, std::uint32_t messageId,
                                       std::string_view payload);
  // All answers that will ever come have come, and the question is closed; or the peer is gone.
  [[nodiscard]] ChangeOutcome answeredByAll(PendingChange& change, bool peerGone);
  ChangeOutcome timedOut(const PendingChange& change) const;
  // Why the provider whose turn it is could not be asked, or did not answer. Logs it.
  ChangeOutcome failed(const PendingChange& change, eErrorT error, const std::string& why) const;

 private:
  using QuestionId = std::pair<PbUtility::PeerId, std::uint32_t>;

  bool isAsked(const Subscriber& subscriber, const Variable& variable) const;
  void logAnswer(const PendingChange& change, std::string_view kind, const char* what) const;

  const Model& model_;
  const Subscriptions& subscriptions_;
  Host& host_;
  const Log& log_;
  const std::chrono::milliseconds deadline_;
  const DeadlinePassed deadlinePassed_;
  std::map<QuestionId, PendingChange*> open_;
};

}  // namespace ConfigSrv
