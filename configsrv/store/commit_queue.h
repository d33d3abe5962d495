// CommitQueue: what waits to be made durable, so that whoever answers reads never waits for the disk.
//
// Grouping: what is submitted while a commit is on its way goes into the next one together: ten
//           writers pay for one write to the disk. Each transaction keeps a revision of its own.
//           A group fails as a whole.
// Fairness: a group ends at kGroupBytes and takes from each user in turn, so that the megabytes of one
//           do not go before the few bytes of another. Those of one user keep their order. When the
//           store's log is due to be copied, that is a turn like a group's, behind one of what is small.
// Large:    a transaction of more than kGroupBytes takes the disk and a processor for some milliseconds,
//           and nothing goes in between. While other users write, those of ordinary users therefore
//           wait until nobody else has written for kQuiet, or kLargeEvery after the last such one.
// Threads:  submit() and goOn() from any. The queue has no thread: `start` is called, with no lock
//           held, by the submit() or take() that finds something to do and nobody doing it. It
//           brings about one commit(), on a thread that may wait for the disk, and then one take(),
//           wherever the `done` functions are to be called: the queue does not call them.
// Owns:     what waits. The store is the caller's, and commit()'s alone while that runs.
// Limits:   none of its own: what waits here is a request whose sender waits for the answer, so
//           the serving side's limit of requests on their way is the limit of this queue.
//
//   CommitQueue queue(*store, [&] {
//     loop.aside([&] { queue.commit(); },
//                [&] { for (Completion& c : queue.take()) c.done(c.status, c.revision); });
//   });
//   queue.submit(uid, {change}, [](const StoreStatus& status, std::uint64_t revision) { ... });
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <utility>
#include <vector>

#include "base/mutex.h"
#include "configsrv/store/store.h"

namespace ConfigSrv {

// The revision is 0 when the status is not ok.
using CommitDone = std::function<void(const StoreStatus& status, std::uint64_t revision)>;

struct Completion {
  CommitDone done;
  StoreStatus status;
  std::uint64_t revision = 0;
};

class CommitQueue {
 public:
  // What a group holds, save that its first transaction may be larger. A transaction counts with its
  // strings and this for each of its changes: a row, and the pages that it makes the disk write.
  static constexpr std::size_t kGroupBytes = std::size_t{256} * 1024;
  static constexpr std::size_t kChangeBytes = 256;
  static constexpr std::chrono::milliseconds kQuiet{20};
  static constexpr std::chrono::milliseconds kLargeEvery{500};

  using Start = std::function<void()>;

  using Clock = std::chrono::steady_clock;
  // What makes transactions wait. Without it, none does.
  struct Pace {
    // Brings about one goOn() after this time. Called where take() is.
    std::function<void(std::chrono::milliseconds)> later;
    // Whose transactions never wait, beside root's.
    uid_t own = 0;
    Clock::time_point (*now)() = Clock::now;
  };

  CommitQueue(Store& store, Start start);
  CommitQueue(Store& store, Start start, Pace pace);
  CommitQueue(const CommitQueue&) = delete;
  CommitQueue& operator=(const CommitQueue&) = delete;

  void submit(uid_t user, StoreTransaction transaction, CommitDone done);

  // Does other work with the store, on the thread of the commits and behind the next group of them,
  // however much waits besides; `done` comes out of take() like that of a commit.
  using Work = std::function<void(Store& store)>;
  void submitWork(Work work, std::function<void()> done);

  // Looks again at what had to wait.
  void goOn();
  // From now on nothing waits for others to be quiet: the end is near.
  void hurry();

  // Makes the next group of what waits durable, once for each `start`.
  void commit();
  // What the last commit() did, once for each. Calls `start` when there is more.
  std::vector<Completion> take();

 private:
  struct Waiting {
    uid_t user = 0;
    StoreTransaction transaction;
    CommitDone done;
    std::size_t bytes = 0;
  };
  using Left = std::map<uid_t, std::deque<Waiting>>;
  using Works = std::vector<std::pair<Work, CommitDone>>;
  // Side by side, so that the transactions can be handed to the store as they are.
  struct Group {
    std::vector<StoreTransaction> transactions;
    std::vector<Completion> completions;
    std::size_t bytes = 0;
    bool smallOnly = false;
    Works works;

    bool isEmpty() const { return transactions.empty() && works.empty(); }
    bool hasRoomFor(const Waiting& one) const {
      const bool mayBeLarger = transactions.empty() && !smallOnly;
      return mayBeLarger || bytes + one.bytes <= kGroupBytes;
    }
    void add(Waiting one);
  };
  void startIfIdle(bool wasBusy) const {
    if (!wasBusy) start_();
  }

  static bool isLarge(const Waiting& one) { return one.bytes > kGroupBytes; }

  // Who committed something small, and when.
  struct Active {
    uid_t user = 0;
    Clock::time_point at = Clock::time_point::min();
  };

  // When the transaction may go; past or present: now.
  Clock::time_point dueAt(const Waiting& one, Clock::time_point now) const;
  // When the first of what is left may go.
  Clock::time_point nextDue(Clock::time_point now) const;
  Group nextGroup(bool smallOnly);
  void takeTurns(Group& group, Clock::time_point now);
  // The user whose turn it is, if the group has room for what that one has next; else the end.
  Left::iterator nextUser(const Group& group, Clock::time_point now);
  void addTo(Group& group, Waiting one, Clock::time_point now);

  Store& store_;
  const Start start_;
  const Pace pace_;
  // From commit() to take().
  std::vector<Completion> committed_;
  // What did not go into a group yet, by user; commit()'s, and take()'s after it.
  Left left_;
  uid_t lastUser_ = 0;
  bool checkpointIsNext_ = false;
  // The last one, and the last one of another user.
  Active active_;
  Active activeBefore_;
  Clock::time_point lastLarge_ = Clock::time_point::min();
  bool waitsForNobody_ = false;  // As `hurries_` was last seen.

  // Nothing else is taken, and nothing called, while it is held.
  Base::Mutex mutex_;
  std::vector<Waiting> waiting_ APPCONFIG_GUARDED_BY(mutex_);
  std::size_t waitingBytes_ APPCONFIG_GUARDED_BY(mutex_) = 0;
  Works works_ APPCONFIG_GUARDED_BY(mutex_);
  // A goOn() will come.
  bool isToGoOn_ APPCONFIG_GUARDED_BY(mutex_) = false;
  bool hurries_ APPCONFIG_GUARDED_BY(mutex_) = false;
  // From the call of start_ to the take() that finds nothing more.
  bool busy_ APPCONFIG_GUARDED_BY(mutex_) = false;
};

}  // namespace ConfigSrv
