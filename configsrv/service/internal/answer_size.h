// AnswerSize: keeps an answer about many variables within what its reader takes.
//
// A request may name a variable a thousand times; without a limit its answer would name the value as
// often. The reader looks at two things: how long the answer is, and what memory its records and strings
// take (platform/schema/message_bounds.h). Both are kept well below what it allows.
#pragma once

#include <cstddef>
#include <string>

#include "platform/schema/message_bounds.h"

namespace ConfigSrv {

class AnswerSize {
 public:
  static constexpr std::size_t kMaxBytes = std::size_t{4} * 1024 * 1024;
  static constexpr std::size_t kBytesPerString = 8;
  static constexpr std::size_t kBytesPerRecord = 64;
  // Memory of the records and strings in the answer, their bytes aside. Paths of a request come back in
  // its answer, and are bounded by it.
  static constexpr std::size_t kMaxMemory = std::size_t{15} * 1024 * 1024;
  static constexpr std::size_t kMemoryPerString = 96;
  static constexpr std::size_t kMemoryPerRecord = 1024;

  // Counts a record before it is built: its strings are those given.
  template <typename... Strings>
  void add(const Strings&... strings) {
    bytes_ += kBytesPerRecord;
    memory_ += kMemoryPerRecord;
    (addAll(strings), ...);
  }
  bool isTooLarge() const { return bytes_ > kMaxBytes || memory_ > kMaxMemory; }

 private:
  template <typename Strings>
  void addAll(const Strings& strings) {
    for (const std::string& string : strings) {
      bytes_ += string.size() + kBytesPerString;
      memory_ += kMemoryPerString;
    }
  }

  std::size_t bytes_ = 0;
  std::size_t memory_ = 0;
};

static_assert(AnswerSize::kMaxMemory + PlatformSchema::MessageLimits::kMemory <=
              PlatformSchema::MessageLimits::kRecordsMemory);

}  // namespace ConfigSrv
