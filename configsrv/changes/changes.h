// Changes: takes each change from the request to the notices.
//
//   checked (role, read-only, limits) -> in its turn, checked again -> nothing to do? answered ->
//   each provider's dynamic validation -> each provider's on-change -> durable commit -> model ->
//   answer to the requester -> notices to everybody concerned
//
// Order:     changes of one variable run one after another, in the order of their requests; those
//            of different variables never wait for each other.
// Providers: those peers that registered for the variable, whose role may read it, and whose user
//            may write it (Host::mayProvide). Each is asked once per phase, one at a time. A refusal
//            fails the change with eErrVetoed and their messages. A provider that answers nothing,
//            or that the variable is none of its business, has no objection.
// Restart:   as long as a provider of the variable is expected back (Host::expectsProvider), a
//            change or validation of its value waits before anybody is asked; those behind it wait
//            too.
// Faults:    a provider that dies fails the change at once with eErrUnavailable, one that does not
//            answer by the deadline with eErrTimedOut, a store that cannot keep it with eErrStorage.
//            Whoever was told the new value on change is then told the one that still holds.
// Deadlock:  a change that would have to wait for a peer which itself waits for this very change
//            fails at once with eErrConflict: a provider writes the variable that it is being asked
//            about, or writes, from inside its handler, what it would be asked about.
// Limits:    ChangesOptions; what goes past one fails with eErrLimit and says whose it is. They are
//            shared out: no user, and no process, can take what others need.
// Threads:   one at a time, whichever runs the server's loop; completions and timers come in it too.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/status.h"
#include "configsrv/changes/announcer.h"
#include "configsrv/changes/change.h"
#include "configsrv/changes/changes_options.h"
#include "configsrv/changes/host.h"
#include "configsrv/changes/hourly_limits.h"
#include "configsrv/changes/written_shares.h"
#include "configsrv/log/log.h"

namespace ConfigSrv {

class ChangeQueues;
class ChangeShares;
class ProviderRounds;
struct ChangePart;
struct PendingChange;
enum class ChangeState;

class Changes {
 public:
  // The observer, when there is one, outlives this object.
  Changes(Model& model, const Subscriptions& subscriptions, Announcer& announcer, Host& host,
          const Log& log, ChangesOptions options = {}, ChangeObserver* observer = nullptr);
  ~Changes();
  Changes(const Changes&) = delete;
  Changes& operator=(const Changes&) = delete;

  // Once, after the model was restored: what stands there counts for all.
  void countStored() { written_.countStored(); }
  // An endpoint of a process came, or went.
  void peerCame(const PbUtility::Peer& peer) { written_.came(peer.pid); }
  void peerWent(const PbUtility::Peer& peer) { written_.went(peer.pid); }

  void submit(ChangeRequest request, ChangeDone done);

  // Whether a change would be accepted: checks it and asks the providers' dynamic validation, right
  // now and without waiting for changes on their way. Changes nothing.
  void validate(ChangeRequest request, ChangeDone done);

  // Takes bytes of the owner's share of what is under way, for a request that makes many changes,
  // until they are released. A failure says which limit they would pass, and whose.
  Base::Status<> reserve(PbUtility::Owner owner, std::size_t bytes);
  void release(PbUtility::Owner owner, std::size_t bytes);

  // A provider that was expected is back, or is not expected any more.
  void providersCame();

  // What the serving side hears; see PbUtility::ServerHandler.
  void onAnswer(PbUtility::PeerId peer, std::uint32_t question, std::uint32_t messageId,
                std::string_view payload);
  void onQuestionDone(PbUtility::PeerId peer, std::uint32_t question, bool peerGone);

  // The peer has a new delivery connection, and is about to be told what holds now.
  void onDeliveryReady(PbUtility::PeerId peer);

  // The peer is being told what holds of a variable, for a registration. If it was told on change a
  // value that does not hold yet, this takes the place of that value, and the peer counts as not
  // told: it is told again if the change succeeds.
  void broughtUpToDate(PbUtility::PeerId peer, const Variable& variable);

  // From now on every change fails, those that wait or ask at once. What is being committed ends
  // well; it is over when underWay() is 0.
  void stop();
  std::size_t underWay() const { return changes_.size(); }

  const ChangeCounters& counters() const { return counters_; }

 private:
  using Number = std::uint64_t;

  // Taking a request in.
  void admit(ChangeRequest&& request, ChangeDone&& done, bool validateOnly);
  ChangeOutcome refusalOf(const Variable* variable, const ChangeRequest& request,
                          std::size_t bytes) const;
  bool endsAtOnce(const Variable& variable, const ChangeRequest& request) const;
  void endAtOnce(const Variable& variable, const ChangeRequest& request, const ChangeDone& done);
  PendingChange& remember(const Variable& variable, ChangeRequest&& request, ChangeDone&& done,
                          std::size_t bytes);
  void enqueue(PendingChange& change);

  // The phases.
  void setState(PendingChange& change, ChangeState state);
  void begin(PendingChange& change);
  ChangeOutcome checkAgain(const PendingChange& change) const;
  void beginToValidate(PendingChange& change);
  bool expectsProvider(const PendingChange& change) const;
  void beginPhase(PendingChange& change, ChangeState state);
  void askNext(PendingChange& change);
  void endPhase(PendingChange& change);
  void onDeadline(Number number);
  Base::Status<> roomToKeep(const PendingChange& change) const;
  void commit(PendingChange& change);
  void onCommitted(Number number, const StoreStatus& status, std::uint64_t revision);
  void applyAndAnnounce(PendingChange& change, std::uint64_t revision);
  void announce(const ChangePart& part, const std::vector<PbUtility::PeerId>& told);

  // The ends.
  void fail(PendingChange& change, eErrorT error, const std::string& text);
  void end(PendingChange& change, const ChangeOutcome& outcome);
  std::unique_ptr<PendingChange> finish(PendingChange& change, const ChangeOutcome& outcome);
  void count(const PendingChange& change, const ChangeOutcome& outcome);
  void tellObserver(const PendingChange& change, const ChangeOutcome& outcome) const;
  void beginNextTurns();
  PendingChange* find(Number number) const;

  Model& model_;
  Announcer& announcer_;
  Host& host_;
  const Log& log_;
  ChangeObserver* const observer_;

  Number lastNumber_ = 0;
  const std::unique_ptr<ChangeQueues> queues_;
  const std::unique_ptr<ProviderRounds> rounds_;
  // Changes that wait for a provider's return, in the order in which they came.
  std::vector<Number> held_;
  bool beginningTurns_ = false;
  bool stopped_ = false;
  // Under way, standing in values, and in an hour.
  const std::unique_ptr<ChangeShares> shares_;
  WrittenShares written_;
  HourlyLimits hourly_;
  ChangeCounters counters_;
  // Each change by its number. Who is called back later holds the number, and finds the change gone
  // when it has ended meanwhile. The last member: what a change's `done` holds may give a share back
  // when it goes.
  std::unordered_map<Number, std::unique_ptr<PendingChange>> changes_;
};

}  // namespace ConfigSrv
