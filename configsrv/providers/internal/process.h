// Process: whether a process that was seen before is still there.
//
// A process number is used again when its process has ended, so that its start counts as well. It
// cannot be read of every process (hidepid of /proc); the number alone has to do then.
//
// Threads:  plain functions.
#pragma once

#include <sys/types.h>

#include <cstdint>

namespace ConfigSrv {

// In clock ticks since the system's start; 0: unknown.
std::uint64_t startOfProcess(pid_t pid);

// True when it is certain: there is no such process, it has ended and was not collected yet, or
// another has taken its number.
bool isProcessGone(pid_t pid, std::uint64_t startedAt);

}  // namespace ConfigSrv
