// Events: what a verb that stays waits for: changes, the end, a reader that went away.
//
// A pipe whose reader is gone is noticed at once, not at the next change: `appcfg watch | head -1`
// ends with head.
//
// Threads: one.
#pragma once

#include <chrono>
#include <optional>

#include "base/unique_fd.h"
#include "tools/appcfg/change_queue.h"

namespace AppCfgTool {

enum class Event { Changes, Stop, ReaderGone, Deadline };

using Deadline = std::optional<std::chrono::steady_clock::time_point>;

// While it lives, SIGINT and SIGTERM do not end this thread's process but are events.
class StopSignals {
 public:
  StopSignals();
  ~StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;
  // Readable once one has come; -1 when the system has no descriptor to spare.
  int fd() const { return fd_.get(); }

 private:
  Base::UniqueFd fd_;
};

// -1 for a descriptor stands for nothing to wait for. Without a deadline it waits for ever.
struct Waited {
  int stopFd = -1;
  int changesFd = -1;
  int outFd = -1;
  Deadline deadline;
};

// Of several events at once the first of this order: Stop, ReaderGone, Changes. A deadline that has
// passed is one only when nothing else is there.
Event waitForEvent(const Waited& waited);

}  // namespace AppCfgTool
