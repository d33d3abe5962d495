// StateStamp: how new a state of a variable is, as the service tells it beside a value, options or
// roles: the epoch, and the revision at which this part of the variable last changed.
//
// Shape:   an epoch of 0 says nothing: the service, or the message layer, does not tell how new the
//          state is. Revisions begin at 0: never changed.
// Order:   a later epoch is newer, whatever the revisions: its service does not continue what was
//          before. Within an epoch the greater revision is newer, and of equal ones both tell of
//          the same state. A stamp that says nothing is neither older nor newer.
// Threads: a plain value.
#pragma once

#include <cstdint>

namespace AppConfig {

struct StateStamp {
  std::uint64_t epoch = 0;
  std::uint64_t changedAt = 0;

  bool isKnown() const { return epoch != 0; }
};

// The stamp in a message that has the fields `epoch` and `changed_at`.
template <typename Message>
StateStamp stampIn(const Message& message) {
  return {message.epoch(), message.changed_at()};
}

}  // namespace AppConfig
