// A program of release 0.1.0 with a message layer of its own: one that notes what the library asks of
// it, and hands it on to the library's endpoint. Both ways an operation is called by its place in the
// table that this release's headers give it. It is compiled with those; do not make it use anything
// newer.
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "appconfig/manager/app_cfg_manager.h"
#include "platform/messaging/endpoint.h"
#include "platform/messaging/msg.h"
#include "platform/messaging/pb_utils.h"

namespace {

using AppConfig::AppCfgManager;
using google::protobuf::MessageLite;

int failures = 0;

void expect(bool holds, const std::string& what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", what.c_str());
  ++failures;
}

bool takes(const MSG_Callback* table, std::uintptr_t id) {
  for (; table->receiver != nullptr; ++table) {
    if (table->firstId <= id && id <= table->lastId) return true;
  }
  return false;
}

class Layer final : public PbUtility::PbUtils {
 public:
  explicit Layer(PbUtility::PbUtils* endpoint) : endpoint_(endpoint) {}

  void addRemoteEndpoint(const std::string& endpointName, int instance) override {
    note("addRemoteEndpoint " + endpointName + " " + std::to_string(instance));
    endpoint_->addRemoteEndpoint(endpointName, instance);
  }
  void addHandlers(const MSG_Callback* table) override {
    note(takes(table, 0x1A0143) ? "addHandlers" : "addHandlers without value notices");
    endpoint_->addHandlers(table);
  }
  std::string localEndpoint() const override {
    note("localEndpoint");
    return endpoint_->localEndpoint();
  }
  int send(const MessageLite& request, const std::string& endpointName,
           unsigned int* sequence) override {
    note("send " + endpointName);
    return endpoint_->send(request, endpointName, sequence);
  }
  int sendWaitResponse(const MessageLite& request, MessageLite* response,
                       const std::string& endpointName) override {
    note("sendWaitResponse " + endpointName);
    return endpoint_->sendWaitResponse(request, response, endpointName);
  }

  void expectOnly(const std::set<std::string>& expected) {
    const std::lock_guard<std::mutex> guard(mutex_);
    for (const std::string& call : expected) expect(calls_.count(call) == 1, call + " is called");
    for (const std::string& call : calls_) expect(expected.count(call) == 1, call + " is meant");
    calls_.clear();
  }

 private:
  void note(const std::string& call) const {
    const std::lock_guard<std::mutex> guard(mutex_);
    calls_.insert(call);
  }

  PbUtility::PbUtils* const endpoint_;
  mutable std::mutex mutex_;
  mutable std::set<std::string> calls_;
};

}  // namespace

int main() {
  PbUtility::EndpointOptions options;
  options.deadline = std::chrono::seconds(20);
  static PbUtility::Endpoint endpoint("released-layer", options);
  static Layer layer(&endpoint);
  AppCfgManager* const config = AppCfgManager::getInstance();
  config->setPbInterface(&layer);
  layer.expectOnly({"addRemoteEndpoint ConfigSrvc -1", "addHandlers"});
  expect(endpoint.waitUntilConnected("ConfigSrvc", std::chrono::seconds(20)), "it connects");

  expect(config->getConfigVarInt("net", 0, "mtu", 0) == 1500, "a number is read");
  layer.expectOnly({"localEndpoint", "sendWaitResponse ConfigSrvc"});
  expect(config->setConfigVar("net", 0, "mtu", 0, 1400), "a write is handed over");
  layer.expectOnly({"localEndpoint", "send ConfigSrvc"});

  // Through the interface to its very end.
  std::unique_ptr<PbUtility::PbUtils> other = std::make_unique<PbUtility::Endpoint>("other");
  expect(other->localEndpoint() == "other", "an endpoint has its name");
  other.reset();
  return failures == 0 ? 0 : 1;
}
