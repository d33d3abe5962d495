// The shapes are held against the schema's own file: what stands there and not here would be parsed
// unbounded.
#include "platform/schema/internal/message_shapes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <string>

#include "platform/schema/message_ids.h"

namespace PlatformSchema {
namespace {

using testing::AnyOf;
using testing::ContainerEq;

struct ProtoField {
  bool repeated;
  std::string type;
};
// Fields of each message of config_if.proto, by their numbers.
using Schema = std::map<std::string, std::map<std::uint32_t, ProtoField>>;

Schema readSchema() {
  const std::regex opening("^message (\\w+) \\{$");
  const std::regex field("^  (optional|repeated) ([\\w.]+) \\w+ = (\\d+)\\b.*");
  std::ifstream file(APPCONFIG_CONFIG_IF_PROTO);
  Schema schema;
  std::string message;
  std::smatch match;
  for (std::string line; std::getline(file, line);) {
    if (std::regex_match(line, match, opening)) {
      message = match[1];
      schema[message];
    } else if (std::regex_match(line, match, field)) {
      const auto number = static_cast<std::uint32_t>(std::stoul(match[3]));
      schema[message][number] = {match[1] == "repeated", match[2]};
    }
  }
  return schema;
}

const Schema& schema() {
  static const Schema read = readSchema();
  return read;
}

bool isMessage(const std::string& type) { return schema().count(type) != 0; }

std::string line(std::uint32_t number, bool repeated, const std::string& type) {
  return (repeated ? "repeated " : "optional ") + type + " = " + std::to_string(number);
}

// The strings and messages of a message, as the schema has them.
std::set<std::string> partsInSchema(const std::string& message) {
  std::set<std::string> parts;
  for (const auto& [number, field] : schema().at(message)) {
    if (field.type == "string" || isMessage(field.type))
      parts.insert(line(number, field.repeated, field.type));
  }
  return parts;
}

std::set<std::string> partsIn(const Shape& shape) {
  std::set<std::string> parts;
  for (std::size_t i = 0; i < shape.partCount; ++i) {
    const Part& part = shape.parts[i];
    parts.insert(line(part.number, part.repeated, part.message ? part.message->name : "string"));
  }
  return parts;
}

// Every message that can stand inside of another, by its name.
std::map<std::string, const Shape*> innerShapes() {
  std::map<std::string, const Shape*> found;
  const auto visit = [&found](const auto& self, const Shape& shape) -> void {
    for (std::size_t i = 0; i < shape.partCount; ++i) {
      const Shape* inner = shape.parts[i].message;
      if (inner == nullptr) continue;
      found[inner->name] = inner;
      self(self, *inner);
    }
  };
  for (const std::uint32_t id : messageIds()) {
    if (const Shape* shape = shapeOf(id)) visit(visit, *shape);
  }
  return found;
}

TEST(MessageShapesTest, EveryMessageOfTheProtocolHasTheStringsAndMessagesOfTheSchema) {
  ASSERT_GT(schema().size(), 60U) << "too little was read from " APPCONFIG_CONFIG_IF_PROTO;
  for (const std::uint32_t id : messageIds()) {
    const Shape* shape = shapeOf(id);
    ASSERT_NE(shape, nullptr) << messageName(id);
    EXPECT_THAT(partsIn(*shape), ContainerEq(partsInSchema(messageName(id)))) << messageName(id);
  }
}

TEST(MessageShapesTest, SoHasEveryMessageInsideOfAnother) {
  const auto inner = innerShapes();
  ASSERT_EQ(inner.size(), 10U);
  for (const auto& [name, shape] : inner)
    EXPECT_THAT(partsIn(*shape), ContainerEq(partsInSchema(name))) << name;
}

// An array of numbers would unfold, too, and nothing here would count it.
TEST(MessageShapesTest, NothingButStringsAndMessagesIsRepeated) {
  for (const auto& [message, fields] : schema()) {
    for (const auto& [number, field] : fields) {
      EXPECT_TRUE(!field.repeated || field.type == "string" || isMessage(field.type))
          << message << ' ' << number;
    }
  }
}

// An enumeration is none: a value that is not known is kept beside the object.
TEST(MessageShapesTest, WhatIsTakenForAPlainNumberIsOne) {
  for (const auto& [name, shape] : innerShapes()) {
    for (std::uint32_t number = 0; number < 32; ++number) {
      if ((shape->plainNumbers >> number & 1) == 0) continue;
      ASSERT_EQ(schema().at(name).count(number), 1U) << name << ' ' << number;
      EXPECT_THAT(schema().at(name).at(number).type,
                  AnyOf("bool", "int32", "int64", "uint32", "uint64"))
          << name << ' ' << number;
    }
  }
}

TEST(MessageShapesTest, WhateverIsRepeatedAndHoldsNoRecordsHasALimit) {
  const auto expectLimits = [](const std::string& name, const Shape& shape) {
    for (std::size_t i = 0; i < shape.partCount; ++i) {
      const Part& part = shape.parts[i];
      const bool isRecord = part.message != nullptr &&
                            std::string(part.message->name).find("Record") != std::string::npos;
      // What a client provides is as much as it has registered for.
      const bool isProvided = name == "ClientRecord" && part.number == 7;
      if (!part.repeated) continue;
      EXPECT_EQ(part.counted == Counted::Nothing, isRecord || isProvided) << name;
    }
  };
  for (const std::uint32_t id : messageIds()) {
    ASSERT_NE(shapeOf(id), nullptr) << messageName(id);
    expectLimits(messageName(id), *shapeOf(id));
  }
  for (const auto& [name, shape] : innerShapes()) expectLimits(name, *shape);
}

TEST(MessageShapesTest, AnIdThatIsNoMessagesHasNone) {
  EXPECT_EQ(shapeOf(0), nullptr);
  EXPECT_EQ(shapeOf(0x1A0102), nullptr);
  EXPECT_EQ(shapeOf(0x1A0434), nullptr);
}

}  // namespace
}  // namespace PlatformSchema
