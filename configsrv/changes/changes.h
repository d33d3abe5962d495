// Changes: takes each change from the request to the notices.
//
//   checked (role, read-only, limits) -> in its turn, checked again -> nothing to do? answered ->
//   each provider's dynamic validation -> each provider's on-change -> durable commit -> model ->
//   answer to the requester -> notices to everybody concerned
//
// Order    changes of one variable run one after another, in the order of their requests; those of
//          different variables never wait for each other.
// Providers are those peers that registered for the variable, whose role may read it, and whose
//          user may write it (Host::mayProvide). Each is asked once per phase, one at a time. A refusal fails the change with eErrVetoed and
//          their messages. A provider that answers nothing, or that the variable is none of its
//          business, has no objection.
// Restart  as long as a provider of the variable is expected back (Host::expectsProvider), a change
//          or validation of its value waits before anybody is asked; those behind it wait too.
// Faults   a provider that dies fails the change at once with eErrUnavailable, one that does not
//          answer by the deadline with eErrTimedOut, a store that cannot keep it with eErrStorage.
//          Whoever was told the new value on change is then told the one that still holds.
// Deadlock a change that would have to wait for a peer which itself waits for this very change
//          fails at once with eErrConflict: a provider writes the variable that it is being asked
//          about, or writes, from inside its handler, what it would be asked about.
// Limits   ChangesOptions; what goes past one fails with eErrLimit and says whose it is. They are
//          shared out: no user, and no process, can take what others need.
// Threads  one at a time, whichever runs the server's loop; completions and timers come in it too.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "configsrv/changes/announcer.h"
#include "configsrv/changes/change.h"
#include "configsrv/changes/host.h"
#include "configsrv/changes/hourly_limits.h"
#include "configsrv/log/log.h"
#include "platform/messaging/shares.h"

namespace ConfigSrv {

struct ChangesOptions {
  // How long a provider may take to answer one question.
  std::chrono::milliseconds providerDeadline{3000};
  // The service's own user, who is no ordinary one.
  uid_t own = 0;
  // Changes that may wait for their turn at one variable: all, ordinary users, a user, a process.
  PbUtility::ShareLimits waitingPerVariable{1024, 768, 256, 1024};
  // Changes and validations under way, and what they take in memory (ChangeShares::bytesOf).
  // One endpoint of root's is slowed down before it has as much as a process may have.
  PbUtility::ShareLimits underWay{16384, 12288, 2048, 4096};
  // What stands in values and options that are not the definition's (WrittenShares). The store's file
  // has room for twice as much.
  PbUtility::ShareLimits written{std::size_t{32} << 20, std::size_t{24} << 20, std::size_t{8} << 20,
                                 std::size_t{16} << 20};
  // What one ordinary user may have made durable in an hour.
  HourlyOptions hourly{};
  PbUtility::ShareLimits bytesUnderWay{std::size_t{64} << 20, std::size_t{6} << 20,
                                       std::size_t{3} << 20, std::size_t{32} << 20};
};

// Since the start.
struct ChangeCounters {
  std::uint64_t commits = 0;
  std::uint64_t unchanged = 0;
  std::uint64_t refused = 0;
};

class Changes {
 public:
  // The observer, when there is one, outlives this object.
  Changes(Model& model, const Subscriptions& subscriptions, Announcer& announcer, Host& host,
          const Log& log, ChangesOptions options = {}, ChangeObserver* observer = nullptr);
  ~Changes();
  Changes(const Changes&) = delete;
  Changes& operator=(const Changes&) = delete;

  // Once, after the model was restored: what stands there counts for all.
  void countStored();
  // An endpoint of a process came, or went.
  void peerCame(const PbUtility::Peer& peer);
  void peerWent(const PbUtility::Peer& peer);

  void submit(ChangeRequest request, ChangeDone done);

  // Whether a change would be accepted: checks it and asks the providers' dynamic validation, right
  // now and without waiting for changes on their way. Changes nothing.
  void validate(ChangeRequest request, ChangeDone done);

  // Takes bytes of the owner's share of what is under way, for a request that makes many changes,
  // until they are released. Empty on success, else which limit they would pass, and whose.
  [[nodiscard]] std::string reserve(PbUtility::Owner owner, std::size_t bytes);
  void release(PbUtility::Owner owner, std::size_t bytes);

  // A provider that was expected is back, or is not expected any more.
  void providersCame();

  // What the serving side hears; see PbUtility::ServerHandler.
  void onAnswer(PbUtility::PeerId peer, std::uint32_t question, std::uint32_t messageId,
                std::string_view payload);
  void onQuestionDone(PbUtility::PeerId peer, std::uint32_t question, bool peerGone);

  // The peer has a new delivery connection, and is about to be told what holds now.
  void onDeliveryReady(PbUtility::PeerId peer);

  // The peer is being told what holds of a variable, for a registration. It may have heard on change
  // what does not hold yet, and forgets that again.
  void broughtUpToDate(PbUtility::PeerId peer, const Variable& variable);

  // From now on every change fails, those that wait or ask at once. What is being committed ends
  // well; it is over when underWay() is 0.
  void stop();
  std::size_t underWay() const;

  const ChangeCounters& counters() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace ConfigSrv
