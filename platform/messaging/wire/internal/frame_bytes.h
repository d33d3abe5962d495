// Whole frames as bytes: header and payload behind each other.
#pragma once

#include <string>
#include <string_view>

#include "platform/messaging/wire/frame.h"

namespace google {
namespace protobuf {
class MessageLite;
}
}  // namespace google

namespace PbUtility {

// Replaces `out` with a frame of the message; the header's payload length and, when it is 0, its
// message id are filled in. False, and `out` untouched, when the payload is longer than `most`.
bool encodeFrame(FrameHeader header, const google::protobuf::MessageLite& message, std::string& out,
                 std::size_t most = kMaxPayloadBytes);

// Appends a frame with these bytes; the header's payload length is filled in.
void appendFrame(FrameHeader header, std::string_view payload, std::string& out);

}  // namespace PbUtility
