// Which memory all programs of the simulation share: the variables of the libraries and of this
// program, which are there once. Of the copies of a client's module each belongs to one client.
#pragma once

namespace Replay {

// From here on isShared() knows the libraries that are loaded now.
void noteSharedMemory();
bool isShared(const void* address);

}  // namespace Replay
