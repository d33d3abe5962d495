// HeapPeak: the most memory that operator new gave out at one time, since the object was made.
//
// Threads:  one; the program has no other. One object at a time.
#pragma once

#include <cstddef>

namespace Fuzz {

class HeapPeak {
 public:
  HeapPeak() : before_(start()) {}
  // Memory that was given back in between does not count; what the heap keeps beside each block
  // does.
  std::size_t bytes() const;

 private:
  static std::size_t start();
  const std::size_t before_;
};

}  // namespace Fuzz
