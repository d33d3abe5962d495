// CommitQueue: what waits to be made durable, so that whoever answers reads never waits for the disk.
//
// Grouping what is submitted while a commit is on its way goes into the next one, all of it
//          together: ten writers pay for one write to the disk. Each transaction keeps a revision
//          of its own, in the order of submission. A group fails as a whole.
// Threads  submit() from any. The queue has no thread: `start` is called, with no lock
//          held, by the submit() or take() that finds something to do and nobody doing it. It
//          brings about one commit(), on a thread that may wait for the disk, and then one take(),
//          wherever the `done` functions are to be called: the queue does not call them.
// Owns     what waits. The store is the caller's, and commit()'s alone while that runs.
// Limits   none of its own: what waits here is a request whose sender waits for the answer, so
//          the serving side's limit of requests on their way is the limit of this queue.
//
//   CommitQueue queue(*store, [&] {
//     loop.aside([&] { queue.commit(); },
//                [&] { for (Completion& c : queue.take()) c.done(c.status, c.revision); });
//   });
//   queue.submit({change}, [](const StoreStatus& status, std::uint64_t revision) { ... });
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <utility>
#include <vector>

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
  using Start = std::function<void()>;

  CommitQueue(Store& store, Start start);
  CommitQueue(const CommitQueue&) = delete;
  CommitQueue& operator=(const CommitQueue&) = delete;

  void submit(StoreTransaction transaction, CommitDone done);

  // Does other work with the store, on the thread of the commits and behind those that wait; `done`
  // comes out of take() like that of a commit.
  using Work = std::function<void(Store& store)>;
  void submitWork(Work work, std::function<void()> done);

  // Makes one transaction of everything that waits durable, once for each `start`.
  void commit();
  // What the last commit() did, once for each. Calls `start` when more has come meanwhile.
  std::vector<Completion> take();

 private:
  // What waits, side by side, so that the transactions can be handed to the store as they are.
  struct Group {
    std::vector<StoreTransaction> transactions;
    std::vector<Completion> completions;
    std::vector<std::pair<Work, CommitDone>> works;

    bool isEmpty() const { return transactions.empty() && works.empty(); }
  };
  void startIfIdle(bool wasBusy) const {
    if (!wasBusy) start_();
  }

  Group takeWaiting();

  Store& store_;
  const Start start_;
  // From commit() to take().
  std::vector<Completion> committed_;

  // Guards the members below; nothing else is taken, and nothing called, while it is held.
  std::mutex mutex_;
  Group waiting_;
  bool busy_ = false;  // From the call of start_ to the take() that finds nothing more.
};

}  // namespace ConfigSrv
