// Operation: one thing that one process did or was told, with its times, as the record of a run has it.
//
// Shape:   times are nanoseconds of CLOCK_MONOTONIC, the same for all processes of a run. What nobody
//          saw the end of has the end kNever. Names are numbers that a Record turns back into texts.
//          Epoch and revision are what the service said; an epoch of 0: it said nothing.
// Threads: a plain value.
#pragma once

#include <cstdint>
#include <limits>

namespace History {

constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();

enum class What : std::uint8_t {
  Write,
  Reset,
  Fresh,      // a read that asked the service
  Truth,      // the same, while nothing was under way
  Cached,     // a read of the cache, perhaps
  Look,       // the same, after everything was delivered
  Told,       // a handler was told
  Validated,  // a provider was asked whether a value may be set
  Changed,    // a provider was asked on change
  Registered,
  Delivered,  // a process had handled all that was told before
};

enum class Outcome : std::uint8_t { Ok, Refused, Unknown };

struct Operation {
  What what = What::Fresh;
  Outcome outcome = Outcome::Ok;
  bool isDefault = false;
  std::uint32_t process = 0;
  std::uint32_t thread = 0;
  std::uint32_t variable = 0;
  // Of a registration, its name.
  std::uint32_t value = 0;
  std::int64_t begin = 0;
  std::int64_t end = 0;
  std::uint64_t epoch = 0;
  std::uint64_t revision = 0;
  // The connection that a notice or a question came over.
  std::uint64_t sender = 0;
};

}  // namespace History
