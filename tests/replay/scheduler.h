// Scheduler: runs the threads of several programs one at a time, in an order that a seed gives.
//
// Each simulated thread is a thread of the system, of which one has the baton and all others sleep.
// At each call that another thread could notice (libc_*.cpp) the baton may pass on, by chance; it
// has to when the call would wait. Time stands in a variable. Each call takes some of it, and when
// all threads wait, it is set to the moment at which the first of them waits no more. So a day in
// which little happens takes no longer than what happens in it.
//
// Programs are numbers. A thread belongs to the program of the thread that made it, and so does a
// descriptor; kill() ends both wherever they are, as SIGKILL would.
//
// All that is done is summed up in one number, digest(): two runs that have the same digest did the
// same.
//
// Errors:   threads that wait for each other for ever end the process, with a list of who waits for
//           what.
// Threads:  whoever has the baton. A thread that is not of the simulation is left alone: begin()
//           makes the calling thread its first.
#pragma once

#include <poll.h>
#include <pthread.h>
#include <setjmp.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace Replay {

// Nanoseconds since the device was made.
using Time = std::int64_t;
constexpr Time kMicrosecond = 1'000;
constexpr Time kMillisecond = 1'000'000;
constexpr Time kSecond = 1'000'000'000;
constexpr Time kNever = INT64_MAX;

// How often chance does something, in so many of kChances calls.
struct Chances {
  static constexpr unsigned kOf = 65536;
  unsigned switches = kOf / 16;  // another thread goes on
  unsigned delays = 0;           // a thread is kept from running, for as long as `longest` at most
  unsigned cuts = 0;             // a connection is cut
  unsigned pieces = 0;           // fewer bytes move than were asked for
  Time longest = 300 * kMillisecond;
};

class Scheduler {
 public:
  struct Thread;

  // From here on the calling thread is simulated, and belongs to program 0. When traced, each call
  // is a line of standard error: time, program and thread, call, detail.
  static Scheduler& begin(std::uint64_t seed, bool isTraced);
  // The scheduler, when the calling thread is one of its threads; null otherwise.
  static Scheduler* here();

  Time now() const { return now_; }
  std::uint64_t digest() const { return digest_; }
  std::uint64_t calls() const { return calls_; }
  std::uint64_t switches() const { return switches_; }
  std::uint64_t cuts() const { return cuts_; }
  void countCut() { ++cuts_; }
  // A number below `end`; of the seed, as all that is chance.
  std::uint64_t chance(std::uint64_t end) { return end <= 1 ? 0 : random_() % end; }
  bool happens(unsigned often) { return often != 0 && random_() % Chances::kOf < often; }
  Chances chances;

  // --- What calls do ---

  // Something happens that others can notice; another thread may go on first.
  void point(const char* what, std::uint64_t detail = 0);
  // Adds to the digest alone.
  void note(const char* what, std::uint64_t detail);
  void noteBytes(const void* bytes, std::size_t size);
  // Waits until somebody wakes who waits for this object. False at the deadline.
  bool waitFor(const void* object, Time deadline);
  void wake(const void* object, bool all);
  // Waits until one of the descriptors is ready. False at the deadline.
  bool waitForReady(std::vector<pollfd> descriptors, Time deadline);
  // Something at a descriptor has changed: those who wait look again.
  void descriptorsChanged() { isAnyReady_ = true; }
  void sleepUntil(Time deadline) { waitFor(nullptr, deadline); }
  // While one is held, chance lets no other thread go on.
  void holdBaton(int more);
  // A lock that all programs share: who is killed must not have it.
  void holdShared(int more);

  int makeThread(pthread_t* id, void* (*function)(void*), void* argument);
  int joinThread(pthread_t id, void** result);
  void detachThread(pthread_t id);

  // --- Descriptors and alarms ---

  void own(int fd);
  void disown(int fd);
  // `ring` is called when the time has come; kNever: not at all.
  void setAlarm(int fd, Time when, std::function<void()> ring);

  // --- Programs ---

  int program() const;
  // Starts a program, on a thread of its own.
  void start(int program, std::function<void()> main);
  bool isRunning(int program) const;
  // Ends all threads of a program where they are and closes its descriptors. Of another program.
  void kill(int program);

 private:
  Scheduler(std::uint64_t seed, bool isTraced);
  ~Scheduler() = delete;

  static void* trampoline(void* thread);
  void noteWord(std::uint64_t word);
  void pass(Thread& self);
  void give(Thread& next, Thread& self);
  Thread& choose();
  void takeBaton(Thread& self);
  void buryEnded();
  void forget(const Thread& thread);
  void ringAlarms();
  void lookAtDescriptors();
  void endOfTime();
  Time nextMoment() const;
  Thread* find(pthread_t id);
  Thread& add(int program);

  const bool isTraced_;
  std::mt19937_64 random_;
  // Far from 0, which some programs take for "never".
  Time now_ = 1000 * kSecond;
  std::uint64_t digest_ = 14695981039346656037ULL;
  std::uint64_t calls_ = 0;
  std::uint64_t switches_ = 0;
  std::uint64_t cuts_ = 0;
  bool isAnyReady_ = false;
  int lastNumber_ = 0;
  std::vector<std::unique_ptr<Thread>> threads_;
  Thread* ended_ = nullptr;
  std::map<int, int> owners_;
  struct Alarm {
    Time when;
    std::function<void()> ring;
  };
  std::map<int, Alarm> alarms_;
};

}  // namespace Replay
