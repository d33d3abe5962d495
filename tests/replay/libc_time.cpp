// Time and chance, in place of libc's: the clocks show the scheduler's time, sleeping waits for it,
// and what is drawn is drawn from the seed.
//
// A timerfd is an eventfd that the scheduler makes readable when the time has come.
#include <sys/eventfd.h>
#include <sys/random.h>
#include <sys/time.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cstring>
#include <ctime>

#include "tests/replay/real.h"
#include "tests/replay/scheduler.h"

using Replay::kSecond;
using Replay::Scheduler;

namespace {

// When the device was made, in the clock of the wall: 2026-01-01.
constexpr std::time_t kMade = 1'767'225'600;

Replay::Time timeOf(const timespec& when) { return when.tv_sec * kSecond + when.tv_nsec; }

// Time goes on with each look at it, for those who look until it is late enough.
timespec look(Scheduler& scheduler, clockid_t clock) {
  scheduler.point("clock");
  const bool isWall = clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE;
  return {(isWall ? kMade : 0) + scheduler.now() / kSecond, scheduler.now() % kSecond};
}

}  // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec* now) {
  Scheduler* const scheduler = Scheduler::here();
  if (scheduler == nullptr) return REPLAY_REAL(clock_gettime)(clock, now);
  *now = look(*scheduler, clock);
  return 0;
}

int gettimeofday(timeval* now, void* zone) {
  Scheduler* const scheduler = Scheduler::here();
  if (scheduler == nullptr) return REPLAY_REAL(gettimeofday)(now, zone);
  const timespec time = look(*scheduler, CLOCK_REALTIME);
  *now = {time.tv_sec, time.tv_nsec / 1000};
  return 0;
}

std::time_t time(std::time_t* now) {
  Scheduler* const scheduler = Scheduler::here();
  if (scheduler == nullptr) return REPLAY_REAL(time)(now);
  const std::time_t seconds = look(*scheduler, CLOCK_REALTIME).tv_sec;
  if (now != nullptr) *now = seconds;
  return seconds;
}

int nanosleep(const timespec* howLong, timespec* left) {
  Scheduler* const scheduler = Scheduler::here();
  if (scheduler == nullptr) return REPLAY_REAL(nanosleep)(howLong, left);
  scheduler->point("sleep");
  scheduler->sleepUntil(scheduler->now() + timeOf(*howLong));
  return 0;
}

int clock_nanosleep(clockid_t clock, int flags, const timespec* when, timespec* left) {
  Scheduler* const scheduler = Scheduler::here();
  if (scheduler == nullptr) return REPLAY_REAL(clock_nanosleep)(clock, flags, when, left);
  const timespec now = look(*scheduler, clock);
  const Replay::Time wait = timeOf(*when) - ((flags & TIMER_ABSTIME) != 0 ? timeOf(now) : 0);
  scheduler->sleepUntil(scheduler->now() + wait);
  return 0;
}

int usleep(useconds_t microseconds) {
  const timespec howLong{static_cast<std::time_t>(microseconds / 1'000'000),
                         static_cast<long>(microseconds % 1'000'000) * 1000};
  return ::nanosleep(&howLong, nullptr);
}

int timerfd_create(clockid_t clock, int flags) noexcept {
  Scheduler* const scheduler = Scheduler::here();
  if (scheduler == nullptr) return REPLAY_REAL(timerfd_create)(clock, flags);
  return ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
}

int timerfd_settime(int fd, int flags, const itimerspec* next, itimerspec* before) noexcept {
  Scheduler* const scheduler = Scheduler::here();
  if (scheduler == nullptr) return REPLAY_REAL(timerfd_settime)(fd, flags, next, before);
  const Replay::Time wait = timeOf(next->it_value);
  scheduler->point("timer", static_cast<std::uint64_t>(wait));
  const auto ring = [fd] {
    const std::uint64_t one = 1;
    static_cast<void>(!REPLAY_REAL(write)(fd, &one, sizeof one));
  };
  scheduler->setAlarm(fd, wait == 0 ? Replay::kNever : scheduler->now() + wait, ring);
  return 0;
}

ssize_t getrandom(void* to, std::size_t size, unsigned flags) {
  Scheduler* const scheduler = Scheduler::here();
  if (scheduler == nullptr) return REPLAY_REAL(getrandom)(to, size, flags);
  auto* const bytes = static_cast<unsigned char*>(to);
  for (std::size_t i = 0; i < size; ++i)
    bytes[i] = static_cast<unsigned char>(scheduler->chance(256));
  return static_cast<ssize_t>(size);
}

}  // extern "C"
