// eventually: waits for a condition with a deadline. Never for an amount of time.
#pragma once

#include <chrono>
#include <thread>

namespace TestSupport {

// Generous: it bounds failures alone, on a loaded machine and under a sanitizer.
constexpr std::chrono::seconds kPatience(20);

template <typename Condition>
bool eventually(Condition condition, std::chrono::milliseconds atMost = kPatience) {
  const auto deadline = std::chrono::steady_clock::now() + atMost;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace TestSupport
