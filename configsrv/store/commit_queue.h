// CommitQueue: a thread that makes transactions durable, so that the thread that answers reads
// never waits for the disk.
//
// Grouping what is submitted while a commit is on its way goes into the next one, all of it
//          together: ten writers pay for one write to the disk. Each transaction keeps a revision
//          of its own, in the order of submission. A group fails as a whole.
// Wake-ups one for a submit() to an idle queue, none for one to a busy queue.
// Threads  submit() and stop() from any. `deliver` runs on the queue's thread with no lock held,
//          once for each commit; it must not block, nor call stop(). The `done` functions are not
//          called by the queue: whoever gets the completions calls them, where it wants to.
// Owns     its thread. The store is the caller's, and the queue's alone to use until stop().
// Limits   none of its own: what waits here is a request whose sender waits for the answer, so
//          the serving side's limit of requests on their way is the limit of this queue.
//
//   CommitQueue queue(*store, [&](std::vector<Completion> batch) { loop.post(std::move(batch)); });
//   queue.submit({change}, [](const StoreStatus& status, std::uint64_t revision) { ... });
//   // On the loop: for (Completion& c : batch) c.done(c.status, c.revision);
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
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
  using Deliver = std::function<void(std::vector<Completion> batch)>;

  CommitQueue(Store& store, Deliver deliver);
  ~CommitQueue();  // stop()
  CommitQueue(const CommitQueue&) = delete;
  CommitQueue& operator=(const CommitQueue&) = delete;

  // False after stop(): the transaction is dropped and `done` will not be delivered.
  [[nodiscard]] bool submit(StoreTransaction transaction, CommitDone done);

  // Commits and delivers what was submitted, then ends the thread. A second call does nothing.
  void stop();

 private:
  // What waits, side by side, so that the transactions can be handed to the store as they are.
  struct Group {
    std::vector<StoreTransaction> transactions;
    std::vector<Completion> completions;
  };

  void run();
  bool waitForWork(Group* group);
  void commitGroup(Group group);

  Store& store_;
  const Deliver deliver_;

  // Guards the three members below; nothing else is taken, and nothing called, while it is held.
  std::mutex mutex_;
  std::condition_variable wake_;
  Group waiting_;
  bool idle_ = false;  // The thread waits for wake_: only then is a notification worth its price.
  bool stopping_ = false;

  std::mutex stopMutex_;  // Lets one stop() join the thread while others wait for it.
  std::thread thread_;
};

}  // namespace ConfigSrv
