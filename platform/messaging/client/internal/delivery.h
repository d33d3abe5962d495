// Delivery: incoming messages of one endpoint: its connections to the remotes for notices and
// questions, and the one thread that reads them and calls the receivers.
//
// Each remote's connection goes through these conditions:
//
//   Away        no connection; tried again after a delay that doubles up to kLongestDelay, and at
//               once when a request finds the service (kick)
//   Greeting    connected; the service has not answered the greeting yet
//   Repeating   the kept registrations have been sent, not all are acknowledged
//   Standing    every registration is answered
//
// What the service has no room for is asked for again on the standing connection (RetryPace).
//
// Threads:  the delivery thread owns the connections; what others ask for is behind one mutex, which
//           is never held while a receiver runs or bytes move.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "base/mutex.h"
#include "platform/messaging/client/internal/kept_registrations.h"
#include "platform/messaging/client/internal/private_fd.h"
#include "platform/messaging/client/internal/stream.h"
#include "platform/messaging/msg.h"

namespace PbUtility {

class Delivery {
 public:
  // The hello's use is set here. `receivers` gives the present table of receivers.
  Delivery(Hello hello, std::function<std::vector<MSG_Callback>()> receivers);
  ~Delivery();
  Delivery(const Delivery&) = delete;
  Delivery& operator=(const Delivery&) = delete;

  // Starts to look for a remote; one that is known already is left as it is. The registrations
  // outlive this object.
  void add(const std::string& name, const std::string& path, KeptRegistrations& registrations);

  // The remote was just seen alive: do not wait out the delay.
  void kick(const std::string& name);

  // Some registrations were abandoned: repeat them on the connection that is there.
  void repeatAbandoned(const std::string& name);
  // Some were refused for want of room: repeat them there in a while.
  void repeatRefused() { wake(); }

  // Waits until the connection stands, or an attempt that began after the call has failed. False,
  // at once, when the system has no thread to deliver on.
  bool waitForAttempt(const std::string& name, Clock::time_point deadline);
  // Waits until the connection stands and every registration is answered.
  bool waitUntilStanding(const std::string& name, Clock::time_point deadline);

  // Waits until all that had come before the call is handled. False, at once, on the delivery thread.
  bool waitUntilHandled(Clock::time_point deadline);

  // Whether the calling thread is the delivery thread, which cannot wait for its own end.
  bool isOnItsThread() const;
  // On the delivery thread: it ends once the running receivers have returned, and the last that it
  // does is to call `after`, which may destroy this object.
  void endByItself(std::function<void()> after);
  // In a child after fork, which has this object but not its thread. A child that was made inside a
  // receiver has come back from there on what looks like the thread: it ends, and says nothing.
  void abandon() { stopping_ = abandoned_ = true; }

 private:
  enum class Condition { Away, Greeting, Repeating, Standing };
  // What others ask about a remote, and what they ask for.
  struct Asked {
    Condition condition = Condition::Away;
    std::uint64_t attemptsBegun = 0;
    std::uint64_t attemptsEnded = 0;
    bool kicked = false;
    bool abandoned = false;
  };
  class Remote;

  // The one way to it, so that nobody gets there without the mutex.
  Asked& asked(Remote& remote) APPCONFIG_REQUIRES(mutex_);
  bool startThread() APPCONFIG_REQUIRES(mutex_);
  void runOnThread();
  void run();
  void wake();
  void tryConnect(Remote& remote);
  std::string greeting() const;
  bool takeWelcome(Remote& remote, const FrameHeader& header, std::string_view payload);
  void endAttempt(Remote& remote);
  void repeat(Remote& remote, std::vector<KeptRegistrations::Repeat> repeats, bool retried = false);
  bool takeAbandonedMark(Remote& remote);
  void retryRefused(Remote& remote);
  // How many bytes came.
  std::size_t readFrom(Remote& remote);
  void readAllFrom(Remote& remote);
  void passBarriers(const std::vector<Remote*>& remotes);
  bool consume(Remote& remote);
  bool take(Remote& remote, const FrameHeader& header, std::string_view payload);
  void noteResponse(Remote& remote, const FrameHeader& header, std::string_view payload);
  bool writePending(Remote& remote);
  void lose(Remote& remote);
  void setCondition(Remote& remote, Condition condition);
  std::vector<Remote*> remotes();
  int poll(const std::vector<Remote*>& remotes);

  const Hello hello_;
  const std::function<std::vector<MSG_Callback>()> receivers_;
  PrivateFd wakeUp_;
  std::atomic<bool> stopping_{false};
  std::atomic<bool> abandoned_{false};
  // Of the remotes it guards the map and what is asked of each, not what the delivery thread owns.
  Base::Mutex mutex_;
  Base::Condition changed_;
  std::map<std::string, std::unique_ptr<Remote>> remotes_ APPCONFIG_GUARDED_BY(mutex_);
  // How often somebody has begun to wait until all is handled, and up to which of them all was. The
  // first is atomic so that the delivery thread sees without a lock, each time, that nobody waits.
  std::atomic<unsigned> barriersAsked_{0};
  unsigned barriersPassed_ APPCONFIG_GUARDED_BY(mutex_) = 0;
  // The delivery thread's own.
  std::vector<char> readBuffer_;
  unsigned lastBarrier_ = 0;
  std::function<void()> afterEnd_;
  // In the destructor nobody else is left to start it.
  std::thread thread_ APPCONFIG_GUARDED_BY(mutex_);
};

}  // namespace PbUtility
