// AnswerSize: keeps an answer about many variables within what a frame can carry.
//
// A request may name a variable a million times; without a limit its answer would name the value as
// often.
#pragma once

#include <cstddef>
#include <string>

namespace ConfigSrv {

class AnswerSize {
 public:
  // Well below the longest payload, for the records' own fields and tags come on top.
  static constexpr std::size_t kMaxBytes = std::size_t{12} * 1024 * 1024;
  static constexpr std::size_t kBytesPerString = 8;
  static constexpr std::size_t kBytesPerRecord = 64;

  // Counts a record before it is built: its strings are those given.
  template <typename... Strings>
  void add(const Strings&... strings) {
    bytes_ += kBytesPerRecord;
    (addAll(strings), ...);
  }
  bool isTooLarge() const { return bytes_ > kMaxBytes; }

 private:
  template <typename Strings>
  void addAll(const Strings& strings) {
    for (const std::string& string : strings) bytes_ += string.size() + kBytesPerString;
  }

  std::size_t bytes_ = 0;
};

}  // namespace ConfigSrv
