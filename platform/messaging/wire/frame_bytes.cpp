#include "platform/messaging/wire/internal/frame_bytes.h"

#include <google/protobuf/message_lite.h>

#include "platform/schema/message_ids.h"

namespace PbUtility {

bool encodeFrame(FrameHeader header, const google::protobuf::MessageLite& message, std::string& out,
                 std::size_t most) {
  const std::size_t payloadBytes = message.ByteSizeLong();
  if (payloadBytes > most) return false;
  if (header.messageId == 0) header.messageId = PlatformSchema::messageIdOf(message);
  header.payloadBytes = static_cast<std::uint32_t>(payloadBytes);
  out.resize(kFrameHeaderBytes + payloadBytes);
  auto* bytes = reinterpret_cast<unsigned char*>(out.data());
  encodeHeader(header, bytes);
  message.SerializeWithCachedSizesToArray(bytes + kFrameHeaderBytes);
  return true;
}

void appendFrame(FrameHeader header, std::string_view payload, std::string& out) {
  header.payloadBytes = static_cast<std::uint32_t>(payload.size());
  const std::size_t start = out.size();
  out.resize(start + kFrameHeaderBytes);
  encodeHeader(header, reinterpret_cast<unsigned char*>(out.data() + start));
  out.append(payload);
}

}  // namespace PbUtility
