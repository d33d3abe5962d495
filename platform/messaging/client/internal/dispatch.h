// Dispatch: an incoming message on its way through the receivers of an endpoint.
//
// While receivers run on a thread, that thread's dispatch collects the replies that they send, so
// that all answers to a question and its end leave with one write.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/messaging/msg.h"
#include "platform/messaging/wire/frame.h"

namespace PbUtility {

struct IncomingMessage {
  FrameHeader header;
  std::string_view payload;
  const std::string* ownerName;
  MSG_Sender sender;
};

// Calls every receiver that takes the message's id, in order. Returns the frames to send back: for
// a question all answers and then Done, for a notice nothing.
std::string dispatch(const IncomingMessage& message, const std::vector<MSG_Callback>& receivers);

// Whether this thread is inside a receiver.
bool isInsideReceiver();

// In a child after fork: the message that this thread was about is the parent's to answer, and the
// receivers it is in are no part of a dispatch any more.
void forgetDispatch();

}  // namespace PbUtility
