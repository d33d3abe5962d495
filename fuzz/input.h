// Input: the bytes of one run, taken from the front; and how a run says that something is wrong.
//
// Whatever the bytes are, taking never fails: what is not there any more reads as zeros and as short
// pieces. So every input is a valid script, and a fuzzer's small change to it is a small change of
// what is done.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// What each file of this folder defines; called with one input after another, in one process.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace Fuzz {

class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size)
      : bytes_(reinterpret_cast<const char*>(data), data == nullptr ? 0 : size) {}

  bool isOver() const { return bytes_.empty(); }

  std::uint8_t byte() {
    if (bytes_.empty()) return 0;
    const auto first = static_cast<std::uint8_t>(bytes_.front());
    bytes_.remove_prefix(1);
    return first;
  }

  // Little-endian.
  std::uint16_t number() {
    const unsigned low = byte();
    return static_cast<std::uint16_t>(low | static_cast<unsigned>(byte()) << 8);
  }

  // A length (16 bits) and as many bytes, or as many as are left.
  std::string_view piece() {
    const std::string_view taken = bytes_.substr(0, number());
    bytes_.remove_prefix(taken.size());
    return taken;
  }

  std::string_view rest() {
    const std::string_view all = bytes_;
    bytes_ = {};
    return all;
  }

 private:
  std::string_view bytes_;
};

// What an input made its target say. Whoever replays compares it: an input has to be answered alike
// whatever was run before it.
void observe(std::string_view said);
// Of all that was observed since the last call.
std::uint64_t takeObserved();

// A target whose inputs are scripts counts their steps: what an input costs grows with them. A fuzzer
// says in the end how many there were ("fuzz: 123 steps").
void countStep();

// Ends the process with a line that says which promise was broken, as a sanitizer would.
void require(bool holds, const char* promise);
void require(bool holds, const char* promise, std::string_view details);

}  // namespace Fuzz
