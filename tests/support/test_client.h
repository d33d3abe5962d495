// TestClient: one client of the service, over a real endpoint: requests in a line each, what it was
// told, and a provider whose answers a test gives.
//
//   TestClient reader("reader", service.runtimeDir());
//   reader.registerFor(ConfigIF::CALLBACK_VALUE_CHANGED, "net.mtu");
//   writer.write("net.mtu", "1400");
//   EXPECT_TRUE(reader.waitForNotice("value net.mtu = 1400"));
//
// Threads:  a test's threads may use it at once; the provider runs on the delivery thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "platform/messaging/endpoint.h"
#include "platform/messaging/msg.h"
#include "platform/schema/config_if.pb.h"

namespace TestSupport {

// How a request ended, in numbers that a test compares.
struct Outcome {
  PbUtility::CallStatus call = PbUtility::kCallOk;
  CommonIF::eErrorType error = CommonIF::ERROR_NONE;
  bool flag = false;
  std::string text;
  std::vector<std::string> values;
  bool isDefault = false;

  bool ok() const { return call == PbUtility::kCallOk && error == CommonIF::ERROR_NONE; }
};

// What a provider is asked, and what it answers.
struct ProviderQuestion {
  bool onChange = false;
  std::string key;
  std::vector<std::string> values;
  std::string clientName;
  CommonIF::eSecurityRole role = CommonIF::SECURITY_ROLE_PUBLIC;
};
using Provider = std::function<ConfigIF::ReturnMessage(const ProviderQuestion&)>;

class TestClient {
 public:
  TestClient(const std::string& name, const std::string& runtimeDir,
             std::chrono::milliseconds deadline = std::chrono::seconds(20));
  ~TestClient();
  TestClient(const TestClient&) = delete;
  TestClient& operator=(const TestClient&) = delete;

  // The role of all later requests; user at first.
  void actAs(CommonIF::eSecurityRole role) { role_ = role; }

  Outcome read(const std::string& key);
  Outcome write(const std::string& key, const std::string& value);
  Outcome write(const std::string& key, const std::vector<std::string>& values);
  int writeOneWay(const std::string& key, const std::string& value);
  Outcome validate(const std::string& key, const std::string& value);
  Outcome reset(const std::string& key);

  // Any request; its role and client name are filled in where it has them.
  template <typename Response, typename Request>
  Outcome request(Request request, Response* response) {
    request.set_client_name(name_);
    request.set_role(role_);
    return call(request, response);
  }
  template <typename Response, typename Request>
  Outcome call(const Request& request, Response* response) {
    Outcome outcome;
    outcome.call =
        static_cast<PbUtility::CallStatus>(endpoint_.sendWaitResponse(request, response, kService));
    if (outcome.call == PbUtility::kCallOk)
      take(response->result(), outcome);
    else
      outcome.text = endpoint_.lastRefusal();
    return outcome;
  }

  // Registers and waits until the delivery connection stands.
  Outcome registerFor(ConfigIF::CallbackType type, const std::string& name);
  // Registers for both of a provider's questions. The provider runs until the client is gone.
  void provide(const std::string& name, Provider provider);

  // Everything told so far: "value net.mtu = 1400", "options net.mode = a b", "access net.mtu",
  // "submit net.mtu".
  std::vector<std::string> notices() const;
  bool waitForNotice(const std::string& notice);
  void forgetNotices();

  PbUtility::Endpoint& endpoint() { return endpoint_; }
  const std::string& name() const { return name_; }
  static const char* const kService;

 private:
  static void onMessage(void* self, const MSG_Message* message);
  void takeMessage(const MSG_Message* message);
  void note(const std::string& notice);
  template <typename Request, typename Response>
  void answer(const MSG_Message* message, bool onChange);
  static void take(const ConfigIF::ReturnMessage& result, Outcome& outcome);

  const std::string name_;
  CommonIF::eSecurityRole role_ = CommonIF::SECURITY_ROLE_USER;
  // Guards notices_ and provider_.
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> notices_;
  Provider provider_;
  // Last: its thread ends before what it uses.
  PbUtility::Endpoint endpoint_;
};

// A success, or a refusal with a text: what a provider answers.
ConfigIF::ReturnMessage consent();
ConfigIF::ReturnMessage veto(const std::string& reason);

}  // namespace TestSupport
