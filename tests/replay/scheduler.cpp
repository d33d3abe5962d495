// A thread that does not have the baton sleeps at a semaphore of its own. Whoever gives the baton
// away picks the next thread (choose), wakes it and goes to sleep; so between two such moments
// everything happens on one thread, and needs no lock.
//
// Descriptors are the system's own, which is as good as simulated ones: with one thread running,
// what the kernel does at sockets of this process follows from the calls alone. Only waiting is
// done here. Whoever waits for descriptors is looked after when a call has changed any.
//
// A thread that is killed gets the baton for a last time, jumps back to where it began, and ends.
// What it would have cleaned up stays: its memory is lost, as it should be.
#include "tests/replay/scheduler.h"

#include <semaphore.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "tests/replay/real.h"

namespace Replay {

struct Scheduler::Thread {
  enum class State { Ready, Waiting, Ended };

  int number = 0;
  int program = 0;
  State state = State::Ready;
  const void* object = nullptr;
  std::vector<pollfd> descriptors;
  Time deadline = kNever;
  bool inTime = true;
  bool killed = false;
  bool detached = false;
  int batonHolds = 0;
  int sharedHolds = 0;
  const char* doing = "";

  pthread_t id{};
  sem_t turn{};
  std::function<void*()> main;
  void* result = nullptr;
  jmp_buf begin{};
};

namespace {

// What each call takes.
constexpr Time kCall = 500;

Scheduler* scheduler = nullptr;
thread_local Scheduler::Thread* self = nullptr;

}  // namespace

Scheduler::Scheduler(std::uint64_t seed, bool isTraced) : isTraced_(isTraced), random_(seed) {}

// Never destroyed: threads that wait are left at the end.
Scheduler& Scheduler::begin(std::uint64_t seed, bool isTraced) {
  scheduler = new Scheduler(seed, isTraced);
  self = &scheduler->add(0);
  self->id = ::pthread_self();
  return *scheduler;
}

Scheduler* Scheduler::here() { return self == nullptr ? nullptr : scheduler; }

Scheduler::Thread& Scheduler::add(int program) {
  threads_.push_back(std::make_unique<Thread>());
  Thread& thread = *threads_.back();
  thread.number = ++lastNumber_;
  thread.program = program;
  ::sem_init(&thread.turn, 0, 0);
  return thread;
}

int Scheduler::program() const { return self->program; }

// --- The digest ---

void Scheduler::noteWord(std::uint64_t word) {
  digest_ = (digest_ ^ word) * 0x9E3779B97F4A7C15ULL;
  digest_ ^= digest_ >> 29;
}

void Scheduler::noteBytes(const void* bytes, std::size_t size) {
  const auto* next = static_cast<const char*>(bytes);
  for (; size > 0; next += std::min(size, sizeof(std::uint64_t)),
                   size -= std::min(size, sizeof(std::uint64_t))) {
    std::uint64_t word = size;
    std::memcpy(&word, next, std::min(size, sizeof word));
    noteWord(word);
  }
}

void Scheduler::note(const char* what, std::uint64_t detail) {
  if (isTraced_)
    std::fprintf(stderr, "%lld.%09lld %d/%d %s %llx\n", static_cast<long long>(now_ / kSecond),
                 static_cast<long long>(now_ % kSecond), self->program, self->number, what,
                 static_cast<unsigned long long>(detail));
  noteBytes(what, std::strlen(what));
  noteWord(static_cast<std::uint64_t>(now_));
  noteWord(static_cast<std::uint64_t>(self->number));
  noteWord(detail);
}

// --- Who goes on ---

void Scheduler::point(const char* what, std::uint64_t detail) {
  ++calls_;
  now_ += kCall;
  self->doing = what;
  note(what, detail);
  if (self->batonHolds > 0) return;
  if (happens(chances.delays))
    return sleepUntil(now_ +
                      static_cast<Time>(chance(static_cast<std::uint64_t>(chances.longest))));
  if (happens(chances.switches)) pass(*self);
}

void Scheduler::holdBaton(int more) { self->batonHolds += more; }
void Scheduler::holdShared(int more) { self->sharedHolds += more; }

void Scheduler::pass(Thread& me) {
  Thread& next = choose();
  if (&next != &me) give(next, me);
}

void Scheduler::give(Thread& next, Thread& me) {
  ++switches_;
  ::sem_post(&next.turn);
  takeBaton(me);
}

void Scheduler::takeBaton(Thread& me) {
  while (::sem_wait(&me.turn) != 0) {
  }
  if (me.killed) ::longjmp(me.begin, 1);
  buryEnded();
}

// Waits for the thread of the system, so that its last steps do not run beside anybody's.
void Scheduler::buryEnded() {
  if (ended_ == nullptr) return;
  Thread* const thread = std::exchange(ended_, nullptr);
  REPLAY_REAL(pthread_join)(thread->id, nullptr);
  ::sem_destroy(&thread->turn);
  wake(thread, true);
  if (thread->detached) forget(*thread);
}

void Scheduler::forget(const Thread& thread) {
  threads_.erase(std::find_if(threads_.begin(), threads_.end(),
                              [&](const auto& one) { return one.get() == &thread; }));
}

Scheduler::Thread& Scheduler::choose() {
  for (;;) {
    ringAlarms();
    if (isAnyReady_) lookAtDescriptors();
    std::size_t ready = 0;
    for (const auto& thread : threads_) ready += thread->state == Thread::State::Ready ? 1U : 0U;
    if (ready > 0) {
      std::size_t left = chance(ready);
      for (const auto& thread : threads_)
        if (thread->state == Thread::State::Ready && left-- == 0) return *thread;
    }
    const Time next = nextMoment();
    if (next == kNever) endOfTime();
    now_ = std::max(now_, next);
  }
}

Time Scheduler::nextMoment() const {
  Time next = kNever;
  for (const auto& thread : threads_)
    if (thread->state == Thread::State::Waiting) next = std::min(next, thread->deadline);
  for (const auto& [fd, alarm] : alarms_) next = std::min(next, alarm.when);
  return next;
}

void Scheduler::endOfTime() {
  std::fprintf(stderr, "replay: all threads wait for ever\n");
  for (const auto& thread : threads_)
    std::fprintf(stderr, "  program %d, thread %d: %s\n", thread->program, thread->number,
                 thread->doing);
  std::_Exit(3);
}

void Scheduler::ringAlarms() {
  for (auto& [fd, alarm] : alarms_) {
    if (alarm.when > now_) continue;
    alarm.when = kNever;
    alarm.ring();
    isAnyReady_ = true;
  }
  for (const auto& thread : threads_) {
    if (thread->state != Thread::State::Waiting || thread->deadline > now_) continue;
    thread->inTime = false;
    thread->state = Thread::State::Ready;
  }
}

// All who wait for descriptors, with one call.
void Scheduler::lookAtDescriptors() {
  isAnyReady_ = false;
  std::vector<pollfd> all;
  for (const auto& thread : threads_)
    if (thread->state == Thread::State::Waiting)
      all.insert(all.end(), thread->descriptors.begin(), thread->descriptors.end());
  if (all.empty() || REPLAY_REAL(poll)(all.data(), all.size(), 0) <= 0) return;
  std::size_t next = 0;
  for (const auto& thread : threads_) {
    if (thread->state != Thread::State::Waiting) continue;
    for (std::size_t i = 0; i < thread->descriptors.size(); ++i)
      if (all[next++].revents != 0) thread->state = Thread::State::Ready;
  }
}

// --- Waiting ---

bool Scheduler::waitFor(const void* object, Time deadline) {
  Thread& me = *self;
  me.state = Thread::State::Waiting;
  me.object = object;
  me.deadline = deadline;
  me.inTime = true;
  pass(me);
  me.object = nullptr;
  return me.inTime;
}

void Scheduler::wake(const void* object, bool all) {
  std::vector<Thread*> waiting;
  for (const auto& thread : threads_)
    if (thread->state == Thread::State::Waiting && thread->object == object)
      waiting.push_back(thread.get());
  if (waiting.empty()) return;
  if (!all) waiting = {waiting[chance(waiting.size())]};
  for (Thread* thread : waiting) thread->state = Thread::State::Ready;
}

bool Scheduler::waitForReady(std::vector<pollfd> descriptors, Time deadline) {
  Thread& me = *self;
  me.descriptors = std::move(descriptors);
  isAnyReady_ = true;
  const bool inTime = waitFor(&me.descriptors, deadline);
  me.descriptors.clear();
  return inTime;
}

// --- Threads ---

void* Scheduler::trampoline(void* thread) {
  Thread& me = *static_cast<Thread*>(thread);
  self = &me;
  while (::sem_wait(&me.turn) != 0) {
  }
  scheduler->buryEnded();
  if (::setjmp(me.begin) == 0 && !me.killed) me.result = me.main();
  if (me.killed) {
    self = nullptr;
    return nullptr;
  }
  me.state = Thread::State::Ended;
  scheduler->ended_ = &me;
  Thread& next = scheduler->choose();
  self = nullptr;
  ::sem_post(&next.turn);
  return nullptr;
}

int Scheduler::makeThread(pthread_t* id, void* (*function)(void*), void* argument) {
  Thread& thread = add(self->program);
  thread.main = [function, argument] { return function(argument); };
  if (REPLAY_REAL(pthread_create)(&thread.id, nullptr, trampoline, &thread) != 0) std::abort();
  *id = thread.id;
  point("thread", static_cast<std::uint64_t>(thread.number));
  return 0;
}

Scheduler::Thread* Scheduler::find(pthread_t id) {
  for (const auto& thread : threads_)
    if (thread->id == id && !thread->detached) return thread.get();
  return nullptr;
}

int Scheduler::joinThread(pthread_t id, void** result) {
  point("join");
  Thread* const thread = find(id);
  if (thread == nullptr) return ESRCH;
  while (thread->state != Thread::State::Ended || ended_ == thread) waitFor(thread, kNever);
  if (result != nullptr) *result = thread->result;
  forget(*thread);
  return 0;
}

void Scheduler::detachThread(pthread_t id) {
  Thread* const thread = find(id);
  if (thread == nullptr) return;
  thread->detached = true;
  if (thread->state == Thread::State::Ended) forget(*thread);
}

// --- Descriptors and alarms ---

void Scheduler::own(int fd) {
  if (fd >= 0) owners_[fd] = self->program;
}

void Scheduler::disown(int fd) {
  owners_.erase(fd);
  alarms_.erase(fd);
  isAnyReady_ = true;
}

void Scheduler::setAlarm(int fd, Time when, std::function<void()> ring) {
  alarms_[fd] = {when, std::move(ring)};
}

// --- Programs ---

void Scheduler::start(int program, std::function<void()> main) {
  Thread& thread = add(program);
  thread.detached = true;
  thread.main = [main = std::move(main)]() -> void* {
    main();
    return nullptr;
  };
  if (REPLAY_REAL(pthread_create)(&thread.id, nullptr, trampoline, &thread) != 0) std::abort();
  point("start", static_cast<std::uint64_t>(program));
}

bool Scheduler::isRunning(int program) const {
  return std::any_of(threads_.begin(), threads_.end(), [&](const auto& thread) {
    return thread->program == program && thread->state != Thread::State::Ended;
  });
}

void Scheduler::kill(int program) {
  const auto holdsShared = [&] {
    return std::any_of(threads_.begin(), threads_.end(), [&](const auto& thread) {
      return thread->program == program && thread->sharedHolds + thread->batonHolds > 0;
    });
  };
  while (holdsShared()) sleepUntil(now_ + kMicrosecond);
  note("kill", static_cast<std::uint64_t>(program));
  std::vector<Thread*> victims;
  for (const auto& thread : threads_)
    if (thread->program == program && thread->state != Thread::State::Ended)
      victims.push_back(thread.get());
  for (Thread* victim : victims) {
    victim->killed = true;
    ::sem_post(&victim->turn);
    // It ends as the only one that runs, and gives the baton to nobody.
    REPLAY_REAL(pthread_join)(victim->id, nullptr);
  }
  threads_.erase(std::remove_if(threads_.begin(), threads_.end(),
                                [&](const auto& thread) { return thread->program == program; }),
                 threads_.end());
  std::vector<int> open;
  for (const auto& [fd, owner] : owners_)
    if (owner == program) open.push_back(fd);
  for (const int fd : open) {
    disown(fd);
    REPLAY_REAL(close)(fd);
  }
}

}  // namespace Replay
