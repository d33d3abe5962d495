// EventLoop: waits for what happens at descriptors and tells its client, one thread at a time.
//
// The thread in run() leads the loop. While it does work that blocks (aside), a second thread stands
// by, and takes the lead with the first event that comes. Whoever is in the loop has the turn (Turn):
// the client and everything below, save post() and stop(), is called with it alone.
//
//   loop.watch(socket, EventLoop::kFirstKey, EPOLLIN);   // client.onReady(kFirstKey, EPOLLIN) follows
//   loop.run();                                          // until stop()
//
// Threads:   post() from any thread, stop() also from a signal handler; all else from the client and
//            from tasks, or before run().
#pragma once

#include <sys/epoll.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <thread>

#include "base/mutex.h"
#include "base/unique_fd.h"
#include "platform/messaging/serving/internal/timers.h"
#include "platform/messaging/serving/internal/turn.h"

namespace PbUtility {

// What a loop works for. Each round is: beginRound, one onReady for each descriptor of the client's
// that is ready, endRound; timers run in between.
class LoopClient {
 public:
  // Epoll told of one thing alone, or of several; of nothing, perhaps, when hasWaiting.
  virtual void beginRound(bool isSingle) = 0;
  // What epoll says of the descriptor that is watched under this key.
  virtual void onReady(std::uint64_t key, std::uint32_t events) = 0;
  virtual void endRound() = 0;
  // The turn is about to be given back: what tasks have left to be done is done now. As hasWaiting.
  virtual bool settle() = 0;
  // Whether work is left for the next round, which is then begun without waiting for an event.
  virtual bool hasWaiting() const = 0;

 protected:
  ~LoopClient() = default;
};

class EventLoop {
 public:
  // Smaller keys are the loop's own.
  static constexpr std::uint64_t kFirstKey = 16;

  explicit EventLoop(LoopClient& client);
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  // Makes the descriptors. False when the system has none left; errno tells.
  [[nodiscard]] bool open();
  void run();
  void stop() noexcept;

  // False when the system has no room for it; errno tells.
  bool watch(int fd, std::uint64_t key, std::uint32_t events);
  void changeWatch(int fd, std::uint64_t key, std::uint32_t events);
  void endWatch(int fd);

  void post(std::function<void()> task) { turn_.post(std::move(task)); }
  // Runs work outside of the loop, on the thread that leads it now, once the events at hand are
  // handled; then `done` in the loop.
  void aside(std::function<void()> work, std::function<void()> done);
  // Runs a task in the loop at a time. The number, never 0, cancels it.
  std::uint64_t after(std::chrono::milliseconds delay, std::function<void()> task);
  void cancel(std::uint64_t timer) {
    turn_.assertHeld();
    timers_.cancel(timer);
  }

 private:
  // The two threads that can lead the loop.
  enum class Seat { Caller, StandIn };

  struct Aside {
    std::function<void()> work;
    std::function<void()> done;
  };

  void serve(Seat seat);
  void lead(Seat seat);
  bool handleEvents(Seat seat, const epoll_event* events, int count) APPCONFIG_REQUIRES(turn_);
  void handleEvent(const epoll_event& event) APPCONFIG_REQUIRES(turn_);
  void standBy(Seat seat);
  void stepAside(Seat seat) APPCONFIG_RELEASE(turn_);
  void takeLead(Seat seat) APPCONFIG_REQUIRES(turn_);
  void offerLead() APPCONFIG_REQUIRES(turn_);
  void withdrawOffer() APPCONFIG_REQUIRES(turn_);
  void startStandIn() APPCONFIG_REQUIRES(turn_);
  void settle();
  void armTimer() APPCONFIG_REQUIRES(turn_);
  void runDueTimers() APPCONFIG_REQUIRES(turn_);

  LoopClient& client_;
  Base::UniqueFd epoll_;
  Base::UniqueFd offers_;
  // Makes the leader look for work that was put aside by a thread that does not lead.
  Base::UniqueFd wakeUp_;
  // Readable once and for all when the loop is to end.
  Base::UniqueFd stop_;
  Base::UniqueFd timer_;
  std::atomic<bool> stopping_{false};
  std::thread standIn_;

  // Held by whoever is in the loop. Guards what follows, and all that is the client's.
  Turn turn_;
  // Changed with the turn; each thread compares it with its own seat without.
  std::atomic<Seat> leader_{Seat::Caller};
  bool leadIsOffered_ APPCONFIG_GUARDED_BY(turn_) = false;
  std::thread::id leadingThread_ APPCONFIG_GUARDED_BY(turn_);
  std::deque<Aside> aside_ APPCONFIG_GUARDED_BY(turn_);
  // Whether there is work aside, or some of the client's; the leader looks before it waits.
  std::atomic<bool> hasMore_{false};
  Timers timers_ APPCONFIG_GUARDED_BY(turn_);
  Timers::Clock::time_point timerArmedFor_ APPCONFIG_GUARDED_BY(turn_) = Timers::kNever;
};

}  // namespace PbUtility
