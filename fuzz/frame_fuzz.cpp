// Frames and what stands in those that are not messages: greeting, welcome, refusal.
#include <algorithm>
#include <vector>

#include "fuzz/input.h"
#include "fuzz/mutators.h"
#include "platform/messaging/wire/frame.h"
#include "platform/schema/message_ids.h"
#include "platform/schema/registration_key.h"

namespace {

using Fuzz::require;
using PbUtility::FrameHeader;

constexpr std::uint32_t kRegister = 0x1A0210;
constexpr std::uint32_t kUnregister = 0x1A0220;
constexpr std::uint32_t kUnregisterAll = 0x1A0230;

bool isLogLine(const std::string& text) {
  return std::none_of(text.begin(), text.end(),
                      [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; });
}

void readHeader(std::string_view bytes) {
  if (bytes.size() < PbUtility::kFrameHeaderBytes) return;
  // A copy of the header alone, so that reading past it is found.
  const std::vector<unsigned char> exactly(bytes.begin(),
                                           bytes.begin() + PbUtility::kFrameHeaderBytes);
  FrameHeader header;
  const Base::Status<> decoded = decodeHeader(exactly.data(), header);
  if (!decoded.ok()) return require(isLogLine(decoded.text), "a problem is one line", decoded.text);
  require(header.payloadBytes <= PbUtility::kMaxPayloadBytes, "no payload is too long");
  PbUtility::FrameHeaderBytes again;
  encodeHeader(header, again.data());
  require(std::equal(again.begin(), again.end(), exactly.begin()),
          "a header that was read is written as it stood");
}

// For each payload: what was read is written as the bytes that it was read from.
template <typename Payload>
void readPayload(std::string_view bytes) {
  Payload payload;
  const Base::Status<> decoded = decode(bytes, payload);
  if (!decoded.ok()) return require(isLogLine(decoded.text), "a problem is one line", decoded.text);
  require(encode(payload) == bytes, "a payload that was read is written as it stood");
}

// An endpoint finds what it has to forget by these keys: the two requests have the same fields.
void readRegistration(std::string_view bytes) {
  const std::string payload(bytes);
  const std::string made = PlatformSchema::registrationKey(kRegister, payload);
  require(made == PlatformSchema::registrationKey(kUnregister, payload),
          "a registration is withdrawn by its own fields");
  const std::string all = PlatformSchema::registrationKey(kUnregisterAll, payload);
  if (made.empty() || all.empty()) return;
  require(made.compare(0, all.size(), all) == 0, "all of a client's registrations begin alike");
}

}  // namespace

Fuzz::InputShape Fuzz::inputShape() { return {2, InputShape::Rest::FramesOrMessage}; }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Fuzz::Input input(data, size);
  const std::uint32_t messageId = 0x1A0000U + input.number();
  const std::string_view bytes = input.rest();
  readHeader(bytes);
  readPayload<PbUtility::Hello>(bytes);
  readPayload<PbUtility::Welcome>(bytes);
  readPayload<PbUtility::Refusal>(bytes);
  require(isLogLine(PlatformSchema::messageName(messageId)), "an id has a name for the log");
  readRegistration(bytes);
  return 0;
}
