// Message shapes: which fields of which message hold strings or other messages.
//
// That is all of the schema that decides how much a payload unfolds to. Tests hold it against
// config_if.proto, so that a new field cannot be forgotten.
#pragma once

#include <cstddef>
#include <cstdint>

namespace PlatformSchema {

// What a repeated field counts against.
enum class Counted : std::uint8_t { Nothing, Nodes, Entries, Elements, Options, Messages };
constexpr std::size_t kCountedKinds = 6;

struct Shape;

// A field that holds a string, or a message of a shape.
struct Part {
  std::uint32_t number;
  // Null: a string.
  const Shape* message;
  bool repeated;
  Counted counted;
};

struct Shape {
  // As in the schema. Of messages that are alike, and travel under ids of their own, any one. Not a
  // pointer, which each process that loads the library would have to relocate.
  char name[32];
  // Memory of one such message: the object, and the first arrays of its repeated fields.
  std::size_t bytes;
  const Part* parts;
  std::size_t partCount;
  // Bit n: field n is a plain number, kept inside of the object. Left out where it does not matter:
  // what is not known here is reckoned dearer.
  std::uint32_t plainNumbers;
};

// Null for an id that is no message's.
const Shape* shapeOf(std::uint32_t messageId);

// Whether it is an answer that holds records of many variables or clients.
bool holdsRecords(const Shape& shape);

}  // namespace PlatformSchema
