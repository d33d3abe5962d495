// Unfolding: what a payload would become if it were parsed, found out without parsing it.
#pragma once

#include <cstddef>
#include <string_view>

#include "platform/schema/internal/message_shapes.h"

namespace PlatformSchema {

struct Unfolding {
  enum class Result {
    // Within all bounds.
    Bounded,
    // Not even the lengths of its parts fit together. Such a payload is not for the parser, which
    // would read a part that is too long as if its message went on.
    Broken,
    TooMuch,
  };
  Result result = Result::Bounded;
  // For TooMuch: which limit; Nothing: the memory's.
  Counted past = Counted::Nothing;
  // An upper bound of the memory that the message takes, in bytes, as far as it was looked at.
  std::size_t memory = 0;
  // Fields that were looked at, those inside of others included: never more than the payload has
  // bytes.
  std::size_t steps = 0;
};

// Looks through a payload until its end, or until it is past a limit of MessageLimits or past so
// much memory.
Unfolding unfolding(const Shape& shape, std::string_view payload, std::size_t mostMemory);

// The memory that a message of the shape may take for so long a payload.
std::size_t mostMemory(const Shape& shape, std::size_t payloadBytes);

// Payloads shorter than this are parsed without a look: a part has two bytes at least, so that they
// hold fewer parts than any limit allows.
constexpr std::size_t kNotLookedAt = 512;

}  // namespace PlatformSchema
