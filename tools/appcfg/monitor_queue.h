// MonitorQueue: what the service tells a monitor, for the verb's own thread to take.
//
// As with ChangeQueue nothing is printed on the delivery thread. Every event counts here, so none
// takes the place of another: past kMaxWaiting, when the reader of the output stands still, the
// newest are dropped and counted.
//
// Threads: receive on the delivery thread, the others on any one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>

#include "base/mutex.h"
#include "base/unique_fd.h"
#include "platform/messaging/msg.h"
#include "platform/schema/config_if.pb.h"

namespace AppCfgTool {

class MonitorQueue {
 public:
  static constexpr std::size_t kMaxWaiting = 65536;

  MonitorQueue();
  MonitorQueue(const MonitorQueue&) = delete;
  MonitorQueue& operator=(const MonitorQueue&) = delete;

  // For the endpoint's table of receivers; self is the queue.
  static void receive(void* self, const MSG_Message* message);
  void add(ConfigIF::MonitorNtfy event);

  // Readable while events wait.
  int wakeFd() const { return wakeFd_.get(); }

  struct Taken {
    std::deque<ConfigIF::MonitorNtfy> events;
    // Dropped behind the last of these.
    std::uint64_t dropped = 0;
  };
  // All that wait, in the order in which they happened.
  Taken take();

 private:
  const Base::UniqueFd wakeFd_;
  // Nothing is called while it is held.
  Base::Mutex mutex_;
  Taken taken_ APPCONFIG_GUARDED_BY(mutex_);
};

}  // namespace AppCfgTool
