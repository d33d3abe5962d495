// RunningService: the real configsrvd, started for one run, with an empty store.
#pragma once

#include <optional>
#include <string>

#include "bench/processes/processes.h"
#include "bench/processes/settings.h"

namespace Bench {

class RunningService {
 public:
  enum class StoreOn { Disk, Memory };

  // Starts it with so many variables beside those that are measured, and waits for it to serve.
  explicit RunningService(const Settings& settings, int others = 1000,
                          StoreOn storeOn = StoreOn::Disk);
  // Ends it as a device does: what counts its instructions writes them down when it has ended.
  ~RunningService();
  RunningService(const RunningService&) = delete;
  RunningService& operator=(const RunningService&) = delete;

  // Empty, or why it does not serve.
  const std::string& failure() const { return failure_; }
  pid_t pid() const { return process_->pid(); }
  std::string runtimeDir() const { return socketDir_.file("run"); }
  // From starting the program to its saying that clients can connect.
  double startMicroseconds() const { return startMicroseconds_; }

  // Starts it once more, on the same files; for measuring starts.
  void restart();

 private:
  void start();
  void end();

  const Settings& settings_;
  TempDir socketDir_;
  TempDir storeDir_;
  std::string failure_;
  double startMicroseconds_ = 0;
  std::optional<Child> process_;
};

}  // namespace Bench
