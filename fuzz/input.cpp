#include "fuzz/input.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace Fuzz {

void require(bool holds, const char* promise) { require(holds, promise, {}); }

void require(bool holds, const char* promise, std::string_view details) {
  if (holds) return;
  std::fprintf(stderr, "BROKEN PROMISE: %s: %s\n", promise, std::string(details).c_str());
  std::abort();
}

}  // namespace Fuzz
