// One epoll. Plain epoll, because the loop is the latency of every request: docs/decisions/event-loop.md
// has the figures.
//
// Two threads can lead the loop, one at a time. The leader waits at epoll_; the other one waits at
// offers_, an epoll of its own. When the leader steps aside to do work that blocks, it puts epoll_
// into offers_: the first event that comes meanwhile wakes the other thread, which takes the lead
// and keeps it. If none comes, the leader takes epoll_ out again and goes on, and nobody was woken.
//
// Some work comes without an event: jobs aside, and what the client has left for its next round. The
// leader looks for it before it waits (hasMore_). Another thread that brings such work, by a task that
// it posts, makes wakeUp_ readable.
#include "platform/messaging/serving/internal/event_loop.h"

#include <signal.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

namespace PbUtility {
namespace {

constexpr std::uint64_t kWakeUpKey = 1;
constexpr std::uint64_t kTimerKey = 2;
constexpr std::uint64_t kStopKey = 3;
constexpr std::uint64_t kLeadKey = 4;
// All that may be ready at once: who comes last would wait for several rounds otherwise.
constexpr int kEventsAtOnce = 1088;
// In one round.
constexpr std::size_t kTimersAtOnce = 64;

void signalEvent(int fd) noexcept {
  const std::uint64_t one = 1;
  // A full counter is readable too, so the result does not matter.
  static_cast<void>(!::write(fd, &one, sizeof one));
}

void drainEvent(int fd) {
  std::uint64_t count = 0;
  static_cast<void>(!::read(fd, &count, sizeof count));
}

bool control(const Base::UniqueFd& epoll, int operation, int fd, std::uint64_t key,
             std::uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = key;
  return ::epoll_ctl(epoll.get(), operation, fd, &event) == 0;
}

}  // namespace

EventLoop::EventLoop(LoopClient& client) : client_(client), turn_([this] { settle(); }) {}

bool EventLoop::open() {
  epoll_.reset(::epoll_create1(EPOLL_CLOEXEC));
  offers_.reset(::epoll_create1(EPOLL_CLOEXEC));
  wakeUp_.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  stop_.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  timer_.reset(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
  return epoll_ && offers_ && wakeUp_ && stop_ && timer_ &&
         watch(wakeUp_.get(), kWakeUpKey, EPOLLIN) && watch(timer_.get(), kTimerKey, EPOLLIN) &&
         watch(stop_.get(), kStopKey, EPOLLIN) &&
         control(offers_, EPOLL_CTL_ADD, stop_.get(), kStopKey, EPOLLIN);
}

bool EventLoop::watch(int fd, std::uint64_t key, std::uint32_t events) {
  return control(epoll_, EPOLL_CTL_ADD, fd, key, events);
}

void EventLoop::changeWatch(int fd, std::uint64_t key, std::uint32_t events) {
  control(epoll_, EPOLL_CTL_MOD, fd, key, events);
}

void EventLoop::endWatch(int fd) { control(epoll_, EPOLL_CTL_DEL, fd, 0, 0); }

void EventLoop::stop() noexcept {
  stopping_ = true;
  signalEvent(stop_.get());
}

// --- Who leads ---

void EventLoop::run() {
  serve(Seat::Caller);
  if (standIn_.joinable()) standIn_.join();
}

void EventLoop::serve(Seat seat) {
  while (!stopping_) leader_ == seat ? lead(seat) : standBy(seat);
}

void EventLoop::lead(Seat seat) {
  epoll_event events[kEventsAtOnce];
  const int ready = ::epoll_wait(epoll_.get(), events, kEventsAtOnce, hasMore_ ? 0 : -1);
  turn_.lock();
  if (handleEvents(seat, events, ready)) return stepAside(seat);
  turn_.unlock();
}

// Whether there is work to be done aside. The lead may have been taken while this thread waited.
bool EventLoop::handleEvents(Seat seat, const epoll_event* events, int count) {
  if (leader_ != seat) return false;
  if (leadIsOffered_) withdrawOffer();
  leadingThread_ = std::this_thread::get_id();
  client_.beginRound(count == 1);
  for (int i = 0; i < count; ++i) handleEvent(events[i]);
  client_.endRound();
  return !aside_.empty();
}

void EventLoop::handleEvent(const epoll_event& event) {
  switch (event.data.u64) {
    case kWakeUpKey:
      return drainEvent(wakeUp_.get());
    case kTimerKey:
      return runDueTimers();
    case kStopKey:
      return;
    default:
      return client_.onReady(event.data.u64, event.events);
  }
}

void EventLoop::standBy(Seat seat) {
  epoll_event event;
  ::epoll_wait(offers_.get(), &event, 1, -1);
  turn_.lock();
  if (leadIsOffered_) takeLead(seat);
  turn_.unlock();
}

void EventLoop::takeLead(Seat seat) {
  withdrawOffer();
  leader_ = seat;
  leadingThread_ = std::this_thread::get_id();
}

void EventLoop::aside(std::function<void()> work, std::function<void()> done) {
  turn_.assertHeld();
  aside_.push_back({std::move(work), std::move(done)});
}

// A thread that still leads afterwards looks for events before it steps aside once more, so that jobs
// which these bring are done together.
//
// The end of a job needs the turn. If the other thread has it, that thread is left the rest: it takes
// the turn over and over, and to wait for it here could take long.
void EventLoop::stepAside(Seat seat) {
  for (;;) {
    const Aside job = std::move(aside_.front());
    aside_.pop_front();
    if (leader_ == seat) offerLead();
    // No event tells the other thread of what the client has left.
    if (client_.hasWaiting()) signalEvent(wakeUp_.get());
    turn_.unlock();
    job.work();
    if (!turn_.tryLock()) return turn_.post(job.done);
    // Before anybody is answered, whose next request would wake the other thread.
    if (leader_ == seat && leadIsOffered_) withdrawOffer();
    job.done();
    if (leader_ == seat || aside_.empty()) return turn_.unlock();
  }
}

void EventLoop::offerLead() {
  if (!standIn_.joinable()) startStandIn();
  leadIsOffered_ = control(offers_, EPOLL_CTL_ADD, epoll_.get(), kLeadKey, EPOLLIN);
}

void EventLoop::withdrawOffer() {
  leadIsOffered_ = false;
  control(offers_, EPOLL_CTL_DEL, epoll_.get(), kLeadKey, 0);
}

// Signals are for the thread that made this one, and for those it chose.
void EventLoop::startStandIn() {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  standIn_ = std::thread([this] { serve(Seat::StandIn); });
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void EventLoop::settle() {
  turn_.assertHeld();
  const bool hasWaiting = client_.settle();
  hasMore_ = hasWaiting || !aside_.empty();
  if (hasMore_ && leadingThread_ != std::this_thread::get_id()) signalEvent(wakeUp_.get());
}

// --- Timers ---

std::uint64_t EventLoop::after(std::chrono::milliseconds delay, std::function<void()> task) {
  turn_.assertHeld();
  const std::uint64_t number = timers_.add(Timers::Clock::now() + delay, std::move(task));
  if (timers_.next() < timerArmedFor_) armTimer();
  return number;
}

// A timer that was cancelled leaves the clock as it is: it rings once for nothing.
void EventLoop::armTimer() {
  timerArmedFor_ = timers_.next();
  if (timerArmedFor_ == Timers::kNever) return;
  const auto left =
      std::chrono::ceil<std::chrono::microseconds>(timerArmedFor_ - Timers::Clock::now());
  // None at all would disarm it.
  const auto wait = std::max(left, std::chrono::microseconds(1));
  itimerspec when{};
  when.it_value.tv_sec = static_cast<time_t>(wait.count() / 1'000'000);
  when.it_value.tv_nsec = static_cast<long>(wait.count() % 1'000'000) * 1000;
  ::timerfd_settime(timer_.get(), 0, &when, nullptr);
}

void EventLoop::runDueTimers() {
  drainEvent(timer_.get());
  timers_.runDue(kTimersAtOnce);
  armTimer();
}

}  // namespace PbUtility
