#include "tools/appcfg/monitor_queue.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <string_view>
#include <utility>

#include "platform/schema/message_bounds.h"

namespace AppCfgTool {

MonitorQueue::MonitorQueue() : wakeFd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

// An event that cannot be read counts as one that was lost.
void MonitorQueue::receive(void* self, const MSG_Message* message) {
  auto* queue = static_cast<MonitorQueue*>(self);
  ConfigIF::MonitorNtfy event;
  const std::string_view bytes(static_cast<const char*>(MSG_GetPayload(message)),
                               static_cast<std::size_t>(MSG_GetPayloadBytes(message)));
  if (!PlatformSchema::readMessage(MSG_GetMessageId(message), bytes, event).ok()) {
    const Base::MutexLock guard(queue->mutex_);
    ++queue->taken_.dropped;
    return;
  }
  queue->add(std::move(event));
}

void MonitorQueue::add(ConfigIF::MonitorNtfy event) {
  {
    const Base::MutexLock guard(mutex_);
    if (taken_.events.size() < kMaxWaiting) {
      taken_.events.push_back(std::move(event));
    } else {
      ++taken_.dropped;
    }
  }
  const std::uint64_t one = 1;
  // It fails only when the counter is full, and then the reader wakes anyway.
  static_cast<void>(!::write(wakeFd_.get(), &one, sizeof one));
}

MonitorQueue::Taken MonitorQueue::take() {
  std::uint64_t wakeUps = 0;
  // Emptied before the queue is, so that an event that comes in between wakes again.
  static_cast<void>(!::read(wakeFd_.get(), &wakeUps, sizeof wakeUps));
  const Base::MutexLock guard(mutex_);
  return std::exchange(taken_, {});
}

}  // namespace AppCfgTool
