#include "fuzz/steps.h"

#include <sys/epoll.h>

namespace {

// Makes the next step; null while no server is run by steps.
const std::function<void()>* nextStep = nullptr;
int roundsSinceStep = 0;

}  // namespace

// The names are the linker's, for what --wrap replaces.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" int __real_epoll_wait(int epoll, epoll_event* events, int most, int timeout);

extern "C" int __wrap_epoll_wait(int epoll, epoll_event* events, int most, int timeout);
extern "C" int __wrap_epoll_wait(int epoll, epoll_event* events, int most, int timeout) {
  // One round takes a connection in, the next reads it, and another may find that it has more.
  constexpr int kRoundsPerStep = 3;
  if (nextStep == nullptr) return __real_epoll_wait(epoll, events, most, timeout);
  const int ready = __real_epoll_wait(epoll, events, most, 0);
  // No time to wait: the server has something left to do.
  const bool isIdle = ready == 0 && timeout != 0;
  if (!isIdle && ++roundsSinceStep < kRoundsPerStep) return ready;
  roundsSinceStep = 0;
  (*nextStep)();
  return ready != 0 ? ready : __real_epoll_wait(epoll, events, most, 0);
}
// NOLINTEND(bugprone-reserved-identifier)

namespace Fuzz {

void runSteps(PbUtility::Server& server, const std::function<bool()>& step) {
  const std::function<void()> next = [&] {
    server.post([&] {
      if (!step()) server.stop();
    });
  };
  nextStep = &next;
  server.run();
  nextStep = nullptr;
}

}  // namespace Fuzz
