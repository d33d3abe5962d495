// Message bounds: how much a payload from outside may unfold to, checked before it is parsed.
//
// A field of two bytes can become an object of a hundred, so the length of a payload says little about
// the memory that its message takes. What a peer sent is therefore looked through first: without
// allocating, in time that grows with its length alone. What passes takes at most
//
//   1 MiB and four times the payload               requests, answers to questions, notices
//   17 MiB and seventeen times the payload         answers that hold records of many variables:
//                                                  older services send whole listings in one
//
// while it is parsed and afterwards, everything included. Beyond memory there are limits that a person
// can count: nodes of a path, entries of a batch, and so on. A field that is sent again and again counts
// each time, as do fields that this version does not know.
//
// Errors:   a text names the message, the limit, and what to do instead.
// Threads:  pure functions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/status.h"

namespace google {
namespace protobuf {
class MessageLite;
}
}  // namespace google

namespace PlatformSchema {

struct MessageLimits {
  // Nodes of one path: a group of the longest length has no more parts.
  static constexpr std::size_t kNodes = 256;
  // Variables that one request is about.
  static constexpr std::size_t kEntries = 1024;
  // Elements of one value; a value that a service keeps has no more.
  static constexpr std::size_t kElements = 4096;
  static constexpr std::size_t kOptions = 1024;
  // Messages of one result: a reason for each element of a value.
  static constexpr std::size_t kMessages = 4096;
  // Memory, in bytes, that the parts of a message may take, and how much more for each byte of its
  // payload.
  static constexpr std::size_t kMemory = std::size_t{768} * 1024;
  static constexpr std::size_t kMemoryPerByte = 3;
  // The same for answers that hold records.
  static constexpr std::size_t kRecordsMemory = std::size_t{16} * 1024 * 1024;
  static constexpr std::size_t kRecordsMemoryPerByte = 16;
  // Payload, in bytes, of a request that carries a value or options: twice the longest value, so that
  // one that is too long by less is refused with what is wrong with it.
  static constexpr std::size_t kValuePayload = std::size_t{2} * 1024 * 1024 + 64 * 1024;
  // Of a request about several variables, and of a provider's answer.
  static constexpr std::size_t kBatchPayload = std::size_t{1024} * 1024;
  // Of everything else that a client sends.
  static constexpr std::size_t kOtherPayload = std::size_t{64} * 1024;
};

// The longest payload, in bytes, with which a client may send this message. An id that is no message's
// has the shortest limit.
std::size_t maxPayloadBytes(std::uint32_t messageId);

// Whether a payload is no longer than that; a failure is for whoever sent it.
Base::Status<> checkPayloadBytes(std::uint32_t messageId, std::size_t payloadBytes);

enum class Reading {
  Done,
  // The payload is no such message.
  NoMessage,
  // It passes a limit, and was not parsed.
  TooMuch,
};

// Parses a payload that somebody else sent, if it is within its bounds. The message has to be of the
// type that travels under the id.
Base::Status<Reading> readMessage(std::uint32_t messageId, std::string_view payload,
                                  google::protobuf::MessageLite& message);

}  // namespace PlatformSchema
