// StampedEndpoint: an Endpoint that remembers what the facade does not tell: epoch and revision of the
// answer that a thread got last, and of the message that is being delivered.
//
// The library under test works through it as through any message layer, and sees no difference.
//
// Threads:  any, as Endpoint. What is remembered belongs to the thread that asks.
#pragma once

#include <deque>
#include <functional>
#include <string>

#include "platform/messaging/endpoint.h"
#include "platform/messaging/msg.h"
#include "tests/history/journal.h"

namespace History {

// How the last request of this thread that reads or changes something ended.
struct Answer {
  bool came = false;
  bool refused = false;
  Stamped stamped;
};

// What this thread, the delivery thread, is being told.
struct Incoming {
  MSG_Sender sender = 0;
  Stamped stamped;
};

class StampedEndpoint : public PbUtility::PbUtils {
 public:
  // onRegistered hears of each registration that was sent: when it began, and for what.
  StampedEndpoint(const std::string& name, const PbUtility::EndpointOptions& options,
                  std::function<void(std::int64_t, const std::string&)> onRegistered);

  static void forgetAnswer();
  static const Answer& lastAnswer();
  static const Incoming& incoming();

  bool waitUntilConnected(std::chrono::milliseconds atMost);

  void addRemoteEndpoint(const std::string& endpointName, int instance) override;
  void addHandlers(const MSG_Callback* table) override;
  std::string localEndpoint() const override;
  int send(const google::protobuf::MessageLite& request, const std::string& endpointName,
           unsigned int* sequence) override;
  int sendWaitResponse(const google::protobuf::MessageLite& request,
                       google::protobuf::MessageLite* response,
                       const std::string& endpointName) override;

 private:
  static void receive(void* userData, const MSG_Message* message);

  const std::function<void(std::int64_t, const std::string&)> onRegistered_;
  std::deque<MSG_Callback> wrapped_;  // stay where they are
  PbUtility::Endpoint endpoint_;      // last: its thread reads wrapped_
};

}  // namespace History
