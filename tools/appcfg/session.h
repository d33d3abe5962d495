// Session: the verbs' way to the service: requests that keep the reason of their failure.
//
// Most verbs ask here rather than through the library's facade, because the facade answers a
// caller that needs a value whatever happens, while a command line owes its user the reason.
//
//   ConfigIF::ReadRsp response;
//   const Outcome asked = session.ask({"read", "net.mtu"}, request, response);
//   if (!asked.ok()) return asked;  // "cannot read net.mtu: there is no such variable"
//
// Failures: every Outcome that is not ok says what could not be done, to which variable, and what
//           to do about it.
// Where:    the service that it finds first (places.h). With the first answer that is settled;
//           until then lookAgain takes the one that has come meanwhile.
// Threads:  as PbUtility::Endpoint.
// Owns:     its endpoint, which watch and wait share with the facade once there was an answer.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "appconfig/core/config_var.h"
#include "platform/messaging/endpoint.h"
#include "platform/schema/config_if.pb.h"
#include "tools/appcfg/outcome.h"
#include "tools/appcfg/verb.h"

namespace AppCfgTool {

// What a request is for, in the words of a message: "cannot set net.mtu".
struct Purpose {
  std::string action;
  // Key or name; may be empty.
  std::string subject;
};

class Session {
 public:
  explicit Session(const Settings& settings);

  // Sends and waits, at most as long as the settings say. Not ok when there was no answer, and
  // when the answer is a refusal.
  template <class Request, class Response>
  Outcome ask(const Purpose& purpose, const Request& request, Response& response) {
    const Outcome sent = exchange(purpose, request, response);
    return sent.ok() ? verdict(purpose, response.result()) : sent;
  }

  // The first half of ask: an answer that refuses counts as an answer.
  Outcome exchange(const Purpose& purpose, const google::protobuf::MessageLite& request,
                   google::protobuf::MessageLite& response);
  // The second half.
  Outcome verdict(const Purpose& purpose, const ConfigIF::ReturnMessage& result) const;

  // Whether the service's name and directory can be used at all; exchange checks it as well.
  Outcome checkName(const Purpose& purpose) const;

  // For who waits for a service: looks at all places anew, and goes to where it is now. Does nothing
  // once there was an answer.
  void lookAgain();

  // What every request starts with.
  const std::string& client() const { return client_; }
  CommonIF::eSecurityRole role() const { return role_; }

  // Name of the service's endpoint: "/engine/ConfigSrvc".
  const std::string& serviceName() const { return serviceName_; }
  // Another one after lookAgain, until there was an answer.
  PbUtility::Endpoint& endpoint() { return *endpoint_; }

 private:
  Outcome callFailure(const Purpose& purpose, PbUtility::CallStatus status) const;
  std::string reasonOf(PbUtility::CallStatus status) const;
  std::string whereElse() const;
  std::string adviceFor(PbUtility::CallStatus status) const;
  std::string pathIn(const std::string& place) const;
  void openEndpoint();

  const Settings settings_;
  const std::string serviceName_;
  const std::vector<std::string> places_;
  std::string runtimeDir_;
  bool answered_ = false;
  const std::string client_ = "appcfg";
  const std::string roleName_;
  const CommonIF::eSecurityRole role_;
  std::unique_ptr<PbUtility::Endpoint> endpoint_;
};

// Reads the key of an argument; the settings' namespace is that of a key that names none.
Outcome readKey(const Settings& settings, const std::string& text, ConfigVar& var);

// The key that a path of an answer names; an unreadable path gives the empty key.
ConfigVar keyOf(const ConfigIF::Inst& inst);

// Strings of an answer.
std::vector<std::string> stringsOf(const google::protobuf::RepeatedPtrField<std::string>& strings);

}  // namespace AppCfgTool
