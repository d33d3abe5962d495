// Client: an application, as far as the library is concerned.
#pragma once

#include <string>

#include "appconfig/manager/app_cfg_manager.h"
#include "bench/processes/message_floor.h"
#include "platform/messaging/endpoint.h"

namespace Bench {

// A request and its response, whole frames.
struct Exchange {
  std::string request;
  std::string response;
};

MessageBytes sizesOf(const Exchange& exchange);

// The frame that registers for changes of a variable.
std::string registrationFrame(const ConfigVar& var);

class Client {
 public:
  // At most one in a process, made after all children.
  explicit Client(const std::string& runtimeDir, unsigned maxConnections = 8);

  AppConfig::AppCfgManager& config() { return config_; }
  bool waitUntilConnected();

  // Asks the service as an uncached read does; the cache is neither read nor changed.
  std::string readAtService(const ConfigVar& var);
  // Writes a number and waits for the verdict.
  bool write(const ConfigVar& var, int number);

  // Bytes on the socket, frame headers included, of these requests and their responses.
  MessageBytes readBytes() { return sizesOf(readExchange()); }
  MessageBytes validateBytes() { return sizesOf(validateExchange()); }
  MessageBytes writeBytes() { return sizesOf(writeExchange()); }

  // These requests, and what the service answered: empty when it did not.
  Exchange readExchange();
  Exchange validateExchange();
  Exchange writeExchange();
  Exchange registerExchange();

 private:
  PbUtility::Endpoint endpoint_;
  AppConfig::AppCfgManager& config_;
};

// Of the notice about a written variable.
std::size_t noticeBytes();

}  // namespace Bench
