// Scripts, requests and receivers are kept under one mutex, which is never held while a script or
// a receiver runs: both may come back with another request.
#include "tests/support/scripted_pb_utils.h"

#include <google/protobuf/message_lite.h>

namespace TestSupport {

namespace {

using Guard = std::lock_guard<std::mutex>;

}  // namespace

ScriptedPbUtils::ScriptedPbUtils(std::string localName) : localName_(std::move(localName)) {}

void ScriptedPbUtils::failAll(int status) {
  const Guard guard(mutex_);
  allFailWith_ = status;
}

void ScriptedPbUtils::succeed() {
  const Guard guard(mutex_);
  allFailWith_ = 0;
  failing_.clear();
}

void ScriptedPbUtils::setScript(const std::string& type, Script script) {
  const Guard guard(mutex_);
  scripts_[type] = std::move(script);
}

void ScriptedPbUtils::failType(const std::string& type) {
  const Guard guard(mutex_);
  failing_[type] = true;
}

ScriptedPbUtils::Script ScriptedPbUtils::scriptFor(const std::string& type) const {
  const Guard guard(mutex_);
  const auto found = scripts_.find(type);
  return found == scripts_.end() ? Script() : found->second;
}

std::vector<SentRequest> ScriptedPbUtils::sent() const {
  const Guard guard(mutex_);
  return sent_;
}

std::vector<SentRequest> ScriptedPbUtils::takeSent() {
  const Guard guard(mutex_);
  return std::exchange(sent_, {});
}

std::vector<ScriptedPbUtils::RemoteEndpoint> ScriptedPbUtils::remoteEndpoints() const {
  const Guard guard(mutex_);
  return remoteEndpoints_;
}

std::vector<std::vector<MSG_Callback>> ScriptedPbUtils::tables() const {
  const Guard guard(mutex_);
  return tables_;
}

int ScriptedPbUtils::deliver(std::uint32_t id, const google::protobuf::MessageLite& message) {
  MSG_Message incoming;
  incoming.id = id;
  incoming.payload = message.SerializeAsString();
  return deliver(incoming);
}

int ScriptedPbUtils::deliver(const MSG_Message& message) {
  int receivers = 0;
  for (const std::vector<MSG_Callback>& table : tables()) {
    for (const MSG_Callback& record : table) {
      if (message.id < record.firstId || message.id > record.lastId) continue;
      record.receiver(record.userData, &message);
      ++receivers;
    }
  }
  return receivers;
}

void ScriptedPbUtils::addRemoteEndpoint(const std::string& endpointName, int instance) {
  const Guard guard(mutex_);
  remoteEndpoints_.push_back({endpointName, instance});
}

void ScriptedPbUtils::addHandlers(const MSG_Callback* table) {
  std::vector<MSG_Callback> records;
  for (; table->receiver; ++table) records.push_back(*table);
  const Guard guard(mutex_);
  tables_.push_back(std::move(records));
}

std::string ScriptedPbUtils::localEndpoint() const { return localName_; }

int ScriptedPbUtils::record(const google::protobuf::MessageLite& request,
                            const std::string& endpointName, bool isOneWay) {
  const std::string type = request.GetTypeName();
  const Guard guard(mutex_);
  sent_.push_back({type, request.SerializeAsString(), endpointName, isOneWay});
  return failing_.count(type) != 0 ? kFailed : allFailWith_;
}

int ScriptedPbUtils::send(const google::protobuf::MessageLite& request,
                          const std::string& endpointName, unsigned int* /*sequence*/) {
  return record(request, endpointName, true);
}

int ScriptedPbUtils::sendWaitResponse(const google::protobuf::MessageLite& request,
                                      google::protobuf::MessageLite* response,
                                      const std::string& endpointName) {
  const int status = record(request, endpointName, false);
  if (status != 0) return status;
  const Script script = scriptFor(request.GetTypeName());
  const std::string bytes = script ? script(request.SerializeAsString()) : "";
  return response->ParseFromString(bytes) ? 0 : kFailed;
}

}  // namespace TestSupport
