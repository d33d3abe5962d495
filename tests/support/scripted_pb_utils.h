// ScriptedPbUtils: a messaging endpoint whose far end is the test.
//
// It keeps every request, answers each from the script (a request type without one gets an empty
// response, which means success), fails when told to, and delivers messages to the receivers that
// were installed on it. A script runs on the thread that asks, with no lock held, so it may deliver
// a notice or start another request in the middle of one. Any thread.
//
//   ScriptedPbUtils pb;
//   pb.answer<ConfigIF::ReadReq, ConfigIF::ReadRsp>([](const auto&, auto& response) {
//     response.add_values("1500");
//   });
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/messaging/pb_utils.h"
#include "tests/support/scripted_msg.h"

namespace TestSupport {

struct SentRequest {
  std::string type;
  std::string bytes;
  std::string endpoint;
  bool isOneWay;

  template <typename Request>
  Request as() const {
    Request request;
    request.ParseFromString(bytes);
    return request;
  }
};

class ScriptedPbUtils : public PbUtility::PbUtils {
 public:
  explicit ScriptedPbUtils(std::string localName = "thermostat-ui");

  // What a call that fails returns.
  static constexpr int kFailed = -1;

  // --- The script ---

  // How round trips of this type are answered from now on: script(request, response).
  template <typename Request, typename Response, typename Script>
  void answer(Script script) {
    setScript(Request().GetTypeName(), [script](const std::string& bytes) {
      Request request;
      Response response;
      request.ParseFromString(bytes);
      script(request, response);
      return response.SerializeAsString();
    });
  }

  // Requests of this type, or all, are recorded and fail from now on.
  template <typename Request>
  void fail() {
    failType(Request().GetTypeName());
  }
  void failAll(int status = kFailed);
  void succeed();

  // --- What was asked of it ---

  std::vector<SentRequest> sent() const;
  std::vector<SentRequest> takeSent();
  // Those of one type, oldest first.
  template <typename Request>
  std::vector<Request> sentOf() const {
    std::vector<Request> requests;
    for (const SentRequest& request : sent()) {
      if (request.type == Request().GetTypeName()) requests.push_back(request.as<Request>());
    }
    return requests;
  }

  struct RemoteEndpoint {
    std::string name;
    int instance;
  };
  std::vector<RemoteEndpoint> remoteEndpoints() const;
  // One for each addHandlers, without the record of zeros that ended it.
  std::vector<std::vector<MSG_Callback>> tables() const;

  // --- Incoming messages ---

  // Calls each receiver of this id, on this thread; how many there were.
  int deliver(std::uint32_t id, const google::protobuf::MessageLite& message);
  int deliver(const MSG_Message& message);

  // --- PbUtils ---

  void addRemoteEndpoint(const std::string& endpointName, int instance) override;
  void addHandlers(const MSG_Callback* table) override;
  std::string localEndpoint() const override;
  int send(const google::protobuf::MessageLite& request, const std::string& endpointName,
           unsigned int* sequence) override;
  int sendWaitResponse(const google::protobuf::MessageLite& request,
                       google::protobuf::MessageLite* response,
                       const std::string& endpointName) override;

 private:
  using Script = std::function<std::string(const std::string&)>;

  void setScript(const std::string& type, Script script);
  void failType(const std::string& type);
  // Keeps the request and tells how it ends: 0 unless it is to fail.
  int record(const google::protobuf::MessageLite& request, const std::string& endpointName,
             bool isOneWay);
  Script scriptFor(const std::string& type) const;

  const std::string localName_;
  mutable std::mutex mutex_;  // guards all below; not held while a script or a receiver runs
  std::map<std::string, Script> scripts_;
  std::map<std::string, bool> failing_;
  int allFailWith_ = 0;
  std::vector<SentRequest> sent_;
  std::vector<RemoteEndpoint> remoteEndpoints_;
  std::vector<std::vector<MSG_Callback>> tables_;
};

}  // namespace TestSupport
