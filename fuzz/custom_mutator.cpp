// What a fuzzer calls to change an input and to join two, in programs that say what theirs are
// (inputShape). APPCONFIG_FUZZ_PLAIN in the environment leaves it to the fuzzer alone, to find out what
// the shape is worth.
#include <algorithm>
#include <cstdlib>

#include "fuzz/mutators.h"

// The names are the fuzzer's.
extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t most, unsigned seed);
extern "C" std::size_t LLVMFuzzerCustomCrossOver(const std::uint8_t* first, std::size_t firstBytes,
                                                 const std::uint8_t* second,
                                                 std::size_t secondBytes, std::uint8_t* out,
                                                 std::size_t most, unsigned seed);

namespace {

bool isPlain() {
  static const bool plain = std::getenv("APPCONFIG_FUZZ_PLAIN") != nullptr;
  return plain;
}

std::string_view textOf(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

std::size_t put(const std::string& bytes, std::uint8_t* out, std::size_t most) {
  const std::size_t size = std::min(bytes.size(), most);
  std::copy_n(bytes.begin(), size, out);
  return size;
}

}  // namespace

// Half of them are left to the fuzzer, which knows what was compared with what.
extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t most, unsigned seed) {
  Fuzz::Chance chance(seed);
  const std::string_view input = textOf(data, size);
  return put(isPlain() || chance.oneIn(2)
                 ? Fuzz::mutateBytes(input, most, chance)
                 : Fuzz::mutateInput(Fuzz::inputShape(), input, most, chance),
             data, most);
}

// Nothing at all tells the fuzzer to choose something else.
extern "C" std::size_t LLVMFuzzerCustomCrossOver(const std::uint8_t* first, std::size_t firstBytes,
                                                 const std::uint8_t* second,
                                                 std::size_t secondBytes, std::uint8_t* out,
                                                 std::size_t most, unsigned seed) {
  if (isPlain()) return 0;
  Fuzz::Chance chance(seed);
  return put(Fuzz::crossInputs(Fuzz::inputShape(), textOf(first, firstBytes),
                               textOf(second, secondBytes), most, chance),
             out, most);
}
