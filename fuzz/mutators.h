// Mutators: changes of an input that know what it is made of.
//
// A byte that a fuzzer inserts into a message shifts all that is behind it, and the length in front of
// it is wrong from then on: nearly all of what it makes is refused by the first check. So what is frames
// is changed frame by frame here, what is a message field by field, and a script of steps step by step,
// with the lengths kept right; what is wrong is wrong in one place, and on purpose.
//
// Well-formed: mutateMessage and crossMessages make a message of what is one; mutateSteps and
//              crossSteps keep every piece as long as its length says. mutateFrames may change one
//              length alone, and breakMessage breaks: nothing else does.
// Chance:      the same seed makes the same change, as long as the fuzzer's own mutation does.
// Sizes:       none makes more than `most` bytes, out of what is no more than that.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <string_view>

namespace Fuzz {

class Chance {
 public:
  explicit Chance(unsigned seed) : next_(seed) { next_.discard(2); }

  // Any number that is less; 0 where there is none.
  std::size_t below(std::size_t bound) { return bound == 0 ? 0 : next_() / 16 % bound; }
  bool oneIn(std::size_t times) { return below(times) == 0; }
  unsigned seed() { return static_cast<unsigned>(next_()); }

 private:
  std::minstd_rand next_;
};

// Bytes of which nothing is known: the fuzzer's own mutation, or where there is no fuzzer a changed byte.
std::string mutateBytes(std::string_view bytes, std::size_t most, Chance& chance);

// A payload. One that is no message is changed as bytes.
std::string mutateMessage(std::string_view message, std::size_t most, Chance& chance);
// Makes one that ends too early, has a length that is not true, or a number that is written too long.
std::string breakMessage(std::string_view message, std::size_t most, Chance& chance);
std::string crossMessages(std::string_view a, std::string_view b, std::size_t most, Chance& chance);

// Frames one after another; what follows the last whole one stays behind it.
std::string mutateFrames(std::string_view frames, std::size_t most, Chance& chance);

// What a step's piece is (Input::piece): a length of 16 bits and so many bytes.
enum class Piece : std::uint8_t { None, Bytes, Message, Frames };

// A step of a script: so many bytes, and up to two pieces.
struct StepForm {
  std::size_t headBytes = 1;
  Piece first = Piece::None;
  Piece second = Piece::None;
};

// The form of the step that begins the bytes, of which there is at least one.
using FormOf = StepForm (*)(std::string_view bytes);

std::string mutateSteps(std::string_view steps, FormOf formOf, std::size_t most, Chance& chance);
std::string crossSteps(std::string_view a, std::string_view b, FormOf formOf, std::size_t most,
                       Chance& chance);

// What the inputs of a target are.
struct InputShape {
  enum class Rest : std::uint8_t {
    Message,
    // Either: the target reads it as both.
    FramesOrMessage,
    Steps,
    // Frames in pieces: a byte that is less than 253 and so many bytes, or a greater one, a failure.
    CutFrames,
  };

  // Bytes in front, such as a message's number.
  std::size_t headBytes = 0;
  Rest rest = Rest::Message;
  FormOf formOf = nullptr;
};

std::string mutateInput(const InputShape& shape, std::string_view input, std::size_t most,
                        Chance& chance);
std::string crossInputs(const InputShape& shape, std::string_view a, std::string_view b,
                        std::size_t most, Chance& chance);

// Defined by each target that is linked with fuzz_mutating.
InputShape inputShape();

}  // namespace Fuzz
