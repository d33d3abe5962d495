// Frames: how messages stand on a socket. Pure encoding and decoding, no input or output.
//
// A frame is a header of 24 bytes, little-endian, and a payload:
//
//   offset  size  field
//        0     1  version        1
//        1     1  kind           FrameKind
//        2     2  flags          kFlag bits; unknown bits are refused
//        4     4  message id     of the payload (platform/schema/message_ids.h); 0 for none
//        8     4  sequence       chosen by whoever asks, repeated by whoever answers
//       12     4  payload length in bytes, at most kMaxPayloadBytes
//       16     8  revision       see FrameHeader::revision
//
// Errors:   decoding never reads past what it is given and never throws; a header that is not of
//           this form is refused with a text that says which field and which value.
// Threads:  plain values and pure functions.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/status.h"

namespace PbUtility {

constexpr std::uint8_t kFrameVersion = 1;
constexpr std::size_t kFrameHeaderBytes = 24;
// The longest payload: 16 MiB. Longer messages are refused by the sender and end the connection
// when a peer claims one.
constexpr std::size_t kMaxPayloadBytes = std::size_t{16} * 1024 * 1024;
// The longest endpoint name, in bytes.
constexpr std::size_t kMaxEndpointNameBytes = 127;

enum class FrameKind : std::uint8_t {
  // First frame of a client on each connection, payload Hello; answered by Welcome or Refusal.
  Hello = 1,
  Welcome = 2,
  // Client to service: answered by Response or Refusal with the same sequence.
  Request = 3,
  Response = 4,
  // Client to service: nobody answers.
  OneWay = 5,
  // Service to client, on the delivery connection: nobody answers.
  Notice = 6,
  // Service to client, on the delivery connection: any number of Answers, then one Done.
  Question = 7,
  Answer = 8,
  // All receivers of a Question have returned; an answer that did not come by now never comes.
  Done = 9,
  // The request of this sequence could not be taken: payload is Refusal.
  Refusal = 10,
};

// Flag of a request that comes from inside a receiver: its process cannot be asked a question until it
// is answered.
constexpr std::uint16_t kFlagInsideReceiver = 1;

struct FrameHeader {
  FrameKind kind = FrameKind::Request;
  std::uint16_t flags = 0;
  std::uint32_t messageId = 0;
  std::uint32_t sequence = 0;
  std::uint32_t payloadBytes = 0;
  // Service to client: the service's revision that everything said so far on this connection adds
  // up to. Client to service, in a callback registration: what the client knows already; changes
  // after it are told at once. kRevisionNow: only changes from now on. kRevisionNone: the client
  // knows nothing.
  std::uint64_t revision = 0;
};

constexpr std::uint64_t kRevisionNow = ~std::uint64_t{0};
// Not 0, which is the revision of a store that nothing was committed to yet.
constexpr std::uint64_t kRevisionNone = kRevisionNow - 1;

using FrameHeaderBytes = std::array<unsigned char, kFrameHeaderBytes>;

// Writes the header's 24 bytes to `out`.
void encodeHeader(const FrameHeader& header, unsigned char* out);

// Reads a header from at least kFrameHeaderBytes bytes.
Base::Status<> decodeHeader(const unsigned char* bytes, FrameHeader& header);

// What a connection is for.
enum class ConnectionUse : std::uint8_t { Requests = 1, Delivery = 2 };

// 16 random bytes that stand for one endpoint object of one process: they tie its connections
// together, and its connections to what it registered.
using EndpointToken = std::array<unsigned char, 16>;

// Payload of a Hello: use (1 byte), token (16), name length (2, little-endian), name.
struct Hello {
  ConnectionUse use = ConnectionUse::Requests;
  EndpointToken token{};
  std::string name;
};

// Payload of a Welcome: epoch (8 bytes, little-endian). Revisions of one epoch compare; a service
// whose store or definitions are not the ones of before has a later epoch, which is a greater number.
struct Welcome {
  std::uint64_t epoch = 0;
};

// Errors of refusals, as CommonIF has them: ERROR_DENIED, and ERROR_LIMIT.
constexpr std::uint32_t kRefusedByRight = 3;
constexpr std::uint32_t kRefusedByLimit = 11;

// Payload of a Refusal: error code (4 bytes, little-endian, CommonIF::eErrorType), then the text.
struct Refusal {
  std::uint32_t error = 0;
  std::string text;
};

std::string encode(const Hello& hello);
std::string encode(const Welcome& welcome);
std::string encode(const Refusal& refusal);
// Of one that fails, the output is unspecified.
Base::Status<> decode(std::string_view payload, Hello& hello);
Base::Status<> decode(std::string_view payload, Welcome& welcome);
Base::Status<> decode(std::string_view payload, Refusal& refusal);

}  // namespace PbUtility
