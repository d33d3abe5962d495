// This program's own operator new: the library that parses messages has everything from it. Arrays are
// left to the C++ library, for no message has any.
#include "fuzz/counted_heap.h"

#include <malloc.h>

#include <cstdlib>
#include <new>

namespace {

// What the C library keeps beside each block.
constexpr std::size_t kBlockHeader = sizeof(std::size_t);

std::size_t live = 0;
std::size_t peak = 0;

}  // namespace

namespace Fuzz {

std::size_t HeapPeak::start() {
  peak = live;
  return live;
}

std::size_t HeapPeak::bytes() const { return peak - before_; }

}  // namespace Fuzz

void* operator new(std::size_t bytes) {
  void* block = std::malloc(bytes);
  if (block == nullptr) std::abort();
  live += malloc_usable_size(block) + kBlockHeader;
  if (live > peak) peak = live;
  return block;
}

void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept {
  return operator new(bytes);
}

void operator delete(void* block) noexcept {
  if (block == nullptr) return;
  live -= malloc_usable_size(block) + kBlockHeader;
  std::free(block);
}

void operator delete(void* block, std::size_t) noexcept { operator delete(block); }
