// ServiceProcess: the real configsrvd in a temporary directory of its own.
//
//   ServiceProcess service("[network.mtu]\ntype = \"int\"\ndefault = 1500\n");
//   service.start();
//   ... service.kill(); service.start(); ...
//
// The process is killed, and the directory removed, with the object; the process also dies with
// the test. Faults of the fixture itself fail the test.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/eventually.h"
#include "tests/support/temp_dir.h"

namespace TestSupport {

void writeFile(const std::string& path, const std::string& text);
std::string readFile(const std::string& path);

class ServiceProcess {
 public:
  // The definitions are the text of a TOML file; arguments come behind the fixture's own.
  explicit ServiceProcess(const std::string& definitions, std::vector<std::string> arguments = {});
  ~ServiceProcess();
  ServiceProcess(const ServiceProcess&) = delete;
  ServiceProcess& operator=(const ServiceProcess&) = delete;

  // Waits until clients can connect.
  void start();
  // Starts it and waits for its end: for a start that has to fail.
  int startAndWait();
  // Starts it and kills it as soon as the condition holds, wherever it is then.
  void startAndKillWhen(const std::function<bool()>& condition);
  // SIGKILL, and waits for the end.
  void kill();
  // SIGTERM, and waits for the end: the exit code, or minus the signal that killed it.
  int terminate();

  // For a change between two starts.
  void redefine(const std::string& definitions);
  void useStore(const std::string& file) { storeFile_ = file; }
  // Hands over a listening socket as a service manager does. The socket stays the caller's.
  void handOver(int listeningSocket) { listeningSocket_ = listeningSocket; }

  pid_t pid() const { return pid_; }
  // Serves beside another service: in its runtime directory, under an endpoint prefix.
  void serveBeside(const ServiceProcess& other, const std::string& prefix);

  std::string runtimeDir() const { return runtimeDir_; }
  std::string socket() const { return runtimeDir() + "/ConfigSrvc"; }
  const std::string& storeFile() const { return storeFile_; }
  const TempDir& directory() const { return directory_; }

  // Standard error of all starts so far.
  std::string log() const { return readFile(directory_.file("log")); }
  // How often a text stands in it.
  int linesWith(const std::string& text) const;
  // Waits until it does, at most kPatience.
  bool waitForLog(const std::string& text) const;

 private:
  std::vector<std::string> commandLine() const;
  void spawn();
  bool waitForReadyLine() const;
  int waitForEnd();

  TempDir directory_;
  std::string runtimeDir_ = directory_.file("run");
  std::string storeFile_ = directory_.file("store.db");
  std::vector<std::string> arguments_;
  int listeningSocket_ = -1;
  pid_t pid_ = -1;
  int output_ = -1;
};

}  // namespace TestSupport
