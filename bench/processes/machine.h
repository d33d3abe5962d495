// machine: what the kernel tells of time, placing and processes.
#pragma once

#include <sys/types.h>

#include <vector>

namespace Bench {

// Microseconds of a clock that all processes share.
double nowMicroseconds();

// This process, and what it starts from now on, may run on one CPU alone.
void pinToOneCpu();

// Voluntary and forced, of all threads that these processes have now.
double contextSwitches(const std::vector<pid_t>& processes);

double residentBytes(pid_t process);

}  // namespace Bench
