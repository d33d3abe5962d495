#include "fuzz/input.h"

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <utility>

namespace Fuzz {
namespace {

std::uint64_t observed = 0;

// Tells of itself when the process ends in good order.
struct Steps {
  ~Steps() {
    if (count != 0) std::fprintf(stderr, "fuzz: %llu steps\n", count);
  }
  unsigned long long count = 0;
};
Steps steps;

}  // namespace

void countStep() { ++steps.count; }

void observe(std::string_view said) {
  constexpr std::uint64_t kStep = 1099511628211U;
  observed = (observed ^ std::hash<std::string_view>()(said)) * kStep;
}

std::uint64_t takeObserved() { return std::exchange(observed, std::uint64_t{0}); }

void require(bool holds, const char* promise) { require(holds, promise, {}); }

void require(bool holds, const char* promise, std::string_view details) {
  if (holds) return;
  std::fprintf(stderr, "BROKEN PROMISE: %s: %s\n", promise, std::string(details).c_str());
  std::abort();
}

}  // namespace Fuzz
