// Field by field, so that neither the machine's byte order nor a struct's padding matters. Whatever
// stands in a fixed place is checked before anything relies on it; the lengths come first.
#include "platform/messaging/wire/frame.h"

#include <algorithm>

#include "platform/messaging/wire/internal/little_endian.h"

namespace PbUtility {
namespace {

constexpr std::uint16_t kKnownFlags = kFlagInsideReceiver;
constexpr std::size_t kHelloFixedBytes = 1 + sizeof(EndpointToken) + 2;

const unsigned char* bytesOf(std::string_view text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

bool isFrameKind(std::uint8_t kind) {
  return kind >= static_cast<std::uint8_t>(FrameKind::Hello) &&
         kind <= static_cast<std::uint8_t>(FrameKind::Refusal);
}

}  // namespace

void encodeHeader(const FrameHeader& header, unsigned char* out) {
  out[0] = kFrameVersion;
  out[1] = static_cast<unsigned char>(header.kind);
  putLittleEndian(header.flags, out + 2);
  putLittleEndian(header.messageId, out + 4);
  putLittleEndian(header.sequence, out + 8);
  putLittleEndian(header.payloadBytes, out + 12);
  putLittleEndian(header.revision, out + 16);
}

Base::Status<> decodeHeader(const unsigned char* bytes, FrameHeader& header) {
  if (bytes[0] != kFrameVersion) {
    return Base::failed("frame version " + std::to_string(bytes[0]) + ", this side speaks " +
                        std::to_string(kFrameVersion));
  }
  if (!isFrameKind(bytes[1])) return Base::failed("unknown frame kind " + std::to_string(bytes[1]));
  header.kind = static_cast<FrameKind>(bytes[1]);
  header.flags = getLittleEndian<std::uint16_t>(bytes + 2);
  if ((header.flags & ~kKnownFlags) != 0) {
    return Base::failed("unknown frame flags " + std::to_string(header.flags));
  }
  header.messageId = getLittleEndian<std::uint32_t>(bytes + 4);
  header.sequence = getLittleEndian<std::uint32_t>(bytes + 8);
  header.payloadBytes = getLittleEndian<std::uint32_t>(bytes + 12);
  if (header.payloadBytes > kMaxPayloadBytes) {
    return Base::failed("frame claims a payload of " + std::to_string(header.payloadBytes) +
                        " bytes, at most " + std::to_string(kMaxPayloadBytes) + " are allowed");
  }
  header.revision = getLittleEndian<std::uint64_t>(bytes + 16);
  return {};
}

std::string encode(const Hello& hello) {
  std::string payload;
  payload.reserve(kHelloFixedBytes + hello.name.size());
  payload.push_back(static_cast<char>(hello.use));
  payload.append(reinterpret_cast<const char*>(hello.token.data()), hello.token.size());
  appendLittleEndian(static_cast<std::uint16_t>(hello.name.size()), payload);
  payload += hello.name;
  return payload;
}

std::string encode(const Welcome& welcome) {
  std::string payload;
  appendLittleEndian(welcome.epoch, payload);
  return payload;
}

std::string encode(const Refusal& refusal) {
  std::string payload;
  appendLittleEndian(refusal.error, payload);
  payload += refusal.text;
  return payload;
}

Base::Status<> decode(std::string_view payload, Hello& hello) {
  if (payload.size() < kHelloFixedBytes) return Base::failed("hello is too short");
  const unsigned char* bytes = bytesOf(payload);
  if (bytes[0] != static_cast<unsigned char>(ConnectionUse::Requests) &&
      bytes[0] != static_cast<unsigned char>(ConnectionUse::Delivery)) {
    return Base::failed("unknown connection use " + std::to_string(bytes[0]));
  }
  hello.use = static_cast<ConnectionUse>(bytes[0]);
  std::copy_n(bytes + 1, hello.token.size(), hello.token.begin());
  const std::size_t nameBytes = getLittleEndian<std::uint16_t>(bytes + 1 + hello.token.size());
  if (nameBytes != payload.size() - kHelloFixedBytes)
    return Base::failed("hello's name has another length");
  if (nameBytes == 0) return Base::failed("hello names no endpoint");
  if (nameBytes > kMaxEndpointNameBytes) return Base::failed("hello's name is too long");
  hello.name = payload.substr(kHelloFixedBytes);
  const auto isControl = [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; };
  // The name ends up in log lines, where a line break would forge another line.
  if (std::any_of(hello.name.begin(), hello.name.end(), isControl)) {
    return Base::failed("hello's name holds control characters");
  }
  return {};
}

Base::Status<> decode(std::string_view payload, Welcome& welcome) {
  if (payload.size() != sizeof welcome.epoch) return Base::failed("welcome has the wrong length");
  welcome.epoch = getLittleEndian<std::uint64_t>(bytesOf(payload));
  return {};
}

Base::Status<> decode(std::string_view payload, Refusal& refusal) {
  if (payload.size() < sizeof refusal.error) return Base::failed("refusal is too short");
  refusal.error = getLittleEndian<std::uint32_t>(bytesOf(payload));
  refusal.text = payload.substr(sizeof refusal.error);
  return {};
}

}  // namespace PbUtility
