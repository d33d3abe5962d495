// Service: the configuration service as an object. configsrvd is this and a command line.
//
//   Log log(LogLevel::Info, Log::toStandardError());
//   StartedService started = Service::start({{"/etc/appconfig/definitions.d"}, "store.db"}, log);
//   if (started.status != StartStatus::Ok) { for (auto& line : started.lines) show(line); ... }
//   Service::End end = started.service->run();  // until stop()
//
// Errors:   everything that can keep the service from running is found by start(), which then leaves
//           nothing behind. Once it runs, a fault concerns one request or one peer.
// Threads:  run() serves on the thread that calls it; one more makes changes durable. stop() may be
//           called from any thread, but not from a signal handler.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "configsrv/log/log.h"

namespace ConfigSrv {

struct ServiceOptions {
  // Where the definitions are. A file of a later directory replaces one of its name in an earlier one.
  std::vector<std::string> definitionsDirs;
  std::string storeFile;
  // Where the socket stands. Empty: the default of platform/messaging/wire/runtime_dir.h.
  std::string runtimeDir;
  // The endpoint is <prefix>/ConfigSrvc, or ConfigSrvc without a prefix.
  std::string endpointPrefix;
  // Which user may claim which role; empty: the rules without a file.
  std::string rolesFile;
  // A listening socket that somebody else made, which is the service's from start() on; -1: make one.
  int listenFd = -1;
  // How long a provider may take to answer one question.
  std::chrono::milliseconds providerDeadline{3000};
  // How long after the start changes wait for providers that were there when the service ended.
  std::chrono::milliseconds providerGrace{2000};
  // What one ordinary user may have made durable in an hour; 0: without limit.
  std::uint64_t commitsPerHour = 0;
  std::uint64_t bytesPerHour = 0;
  // Where every change is recorded; empty: nowhere.
  std::string auditFile;
};

enum class StartStatus {
  Ok,
  // Definitions or the table of roles: correct the files.
  BadDefinitions,
  BadStore,
  // The socket's name, directory, or another service that has it.
  BadSocket,
};

class Service;

struct StartedService {
  StartStatus status = StartStatus::Ok;
  // Null unless status is Ok.
  std::unique_ptr<Service> service;
  // What is wrong, all of it, one line each; "file:line: text" for mistakes in files.
  std::vector<std::string> lines;
};

class Service {
 public:
  // The log has to outlive the service.
  [[nodiscard]] static StartedService start(const ServiceOptions& options, const Log& log);
  ~Service();
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  // How a run ends.
  enum class End {
    Stopped,
    // A copy is to take the store's place: destroy this object and start another with the same
    // options. Clients find their way back by themselves.
    Restart,
  };

  // Serves until stop(), then keeps a snapshot of the store; or until somebody who may do so has put
  // a copy of a store beside it and asks for it.
  [[nodiscard]] End run();
  // Ends run() soon: changes that wait or ask fail, changes that are being committed are committed
  // and answered.
  void stop();

  // "318 variables at /run/appconfig/ConfigSrvc".
  std::string describe() const;

 private:
  class Impl;
  explicit Service(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

// Files to look through where a device's image is made, or before a service is to read them.
struct FilesToCheck {
  std::vector<std::string> definitionsDirs;
  // Empty: no table of roles.
  std::string rolesFile;
  // The image's root directory, whose users and groups the table may name; empty: this system's.
  std::string sysroot;
};

// All mistakes in the files, one line each; none when a service would run by them as they are.
// Stricter than a start of the service: a table of roles that is not there, that names somebody whom
// nobody knows, or that others may write is a mistake as well. Sets the number of variables.
std::vector<std::string> checkFiles(const FilesToCheck& files, std::size_t& variables);

}  // namespace ConfigSrv
