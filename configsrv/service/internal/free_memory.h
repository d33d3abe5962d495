// FreeMemory: gives memory that many requests took, and that is free again, back to the system.
//
// The allocator keeps free memory that lies between blocks in use. After a crowd of clients has gone,
// that may be most of what the service ever had, and the device has better use for it.
//
// Threads:  any.
#pragma once

#include <chrono>
#include <cstddef>

namespace ConfigSrv {

// How long after a client has gone free memory is looked for; more clients may go meanwhile.
constexpr std::chrono::milliseconds kFreeMemoryCheck{500};
// Free memory that is kept for the next requests.
constexpr std::size_t kKeptFreeBytes = std::size_t{2} << 20;

// Does nothing as long as no more than that is free, nor with an allocator that has no such call.
void giveBackFreeMemory();

}  // namespace ConfigSrv
