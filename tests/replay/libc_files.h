// The processes of the simulation, as programs see them.
#pragma once

#include <sys/types.h>

#include <string>

namespace Replay {

// Where the states of processes stand that /proc would show.
void keepProcessesIn(const std::string& directory);
// A program is a new process from here on; its number.
pid_t beginProcess(int program);
void endProcess(int program);
// The connections of this program are never cut.
void spare(int program);

}  // namespace Replay
