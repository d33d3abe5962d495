// PendingChange: one change, or one validation, between its request and its end.
//
// Changes owns it and moves it through its states, ChangeQueues knows where it waits and for whom,
// ProviderRounds keeps in it whom it asks.
//
// Threads:  one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "configsrv/changes/announcer.h"
#include "configsrv/changes/change.h"
#include "configsrv/changes/internal/questions.h"
#include "configsrv/changes/written_shares.h"
#include "configsrv/model/model.h"

namespace ConfigSrv {

using ChangeNumber = std::uint64_t;

enum class ChangeState { Waiting, Validating, OnChange, Committing, Ended };

const char* stateName(ChangeState state);

// What a change makes of one variable.
struct ChangePart {
  ChangePart(const Variable& of, StoreChange what) : variable(&of), wanted(std::move(what)) {}

  const Variable* variable;
  StoreChange wanted;
  // What the store keeps, where that is not what was wanted; see storedInstead().
  std::unique_ptr<const StoreChange> instead{};
  // What it takes of its owner's share of all that is written, once it has its turn.
  WrittenShares::Plan written{};
  // What the observer keeps with it, from its commit on.
  std::string record{};
  // As it was before it was applied.
  Announcer::Roles before{};
  bool wasDefault = false;

  const StoreChange& stored() const { return instead ? *instead : wanted; }
};

struct Provider {
  PbUtility::PeerId peer = 0;
  std::string clientName;
};

// The questions of one phase; see ProviderRounds.
struct ProviderRound {
  // Not asked yet, the next one last.
  std::vector<Provider> toAsk;
  // Whose answer the change waits for, or waited for last.
  Provider asked;
  // Number of the open question; 0: none is open.
  std::uint32_t question = 0;
  // It was answered, perhaps by only one of a process's two links.
  bool answered = false;
  std::uint64_t timer = 0;

  bool isAsking() const { return question != 0; }
};

struct PendingChange {
  ChangeNumber number = 0;
  Requester by;
  ChangeDone done;
  // A set of one: who writes several variables makes a change of each.
  std::vector<ChangePart> parts;
  // Its part of its owner's share of what is under way.
  std::size_t bytes = 0;
  // Ends after the dynamic validation and is in no queue.
  bool validateOnly = false;
  ChangeState state = ChangeState::Waiting;
  ProviderRound round;
  // Everybody who was told the new value on change, in whichever round.
  std::vector<PbUtility::PeerId> told;

  // The first of its parts, by which the log names it.
  const ConfigVar& key() const { return parts.front().variable->key(); }
  Phase phase() const { return state == ChangeState::OnChange ? Phase::OnChange : Phase::Validate; }
};

}  // namespace ConfigSrv
