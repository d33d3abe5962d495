// Starts the configsrvd that is measured, on a socket and a store of its own. The time of a start
// ends with the first line that it prints, which says that it serves.
#include "bench/processes/running_service.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <vector>

#include "bench/processes/definitions.h"
#include "bench/processes/machine.h"

namespace Bench {
namespace {

constexpr int kPatienceMilliseconds = 30'000;

int execute(const std::vector<std::string>& words, int output) {
  ::dup2(output, STDOUT_FILENO);
  std::vector<char*> arguments;
  for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  ::execv(arguments[0], arguments.data());
  return 127;
}

// Whether the program said anything before it ended: its first line says that it serves.
bool awaitFirstLine(int output) {
  pollfd entry{output, POLLIN, 0};
  char byte = 0;
  return ::poll(&entry, 1, kPatienceMilliseconds) == 1 && ::read(output, &byte, 1) == 1;
}

}  // namespace

RunningService::RunningService(const Settings& settings, int others, StoreOn storeOn)
    : settings_(settings),
      // Not beside the store: a socket's path has to be short.
      socketDir_("/tmp"),
      storeDir_(storeOn == StoreOn::Disk ? settings.diskDir : settings.memoryDir) {
  if (writeDefinitions(socketDir_.file("definitions.d"), others))
    start();
  else
    failure_ = "cannot write the definitions";
}

RunningService::~RunningService() {
  if (process_) end();
}

void RunningService::start() {
  int output[2];
  if (::pipe2(output, O_CLOEXEC) != 0) {
    failure_ = "no pipe";
    return;
  }
  const double begin = nowMicroseconds();
  process_.emplace([&] {
    return execute(
        {settings_.configsrvd, "--definitions", socketDir_.file("definitions.d"), "--store",
         storeDir_.file("store.db"), "--runtime-dir", runtimeDir(), "--log-level", "warning"},
        output[1]);
  });
  ::close(output[1]);
  if (!awaitFirstLine(output[0])) failure_ = settings_.configsrvd + " did not start";
  startMicroseconds_ = nowMicroseconds() - begin;
  ::close(output[0]);
}

void RunningService::restart() {
  end();
  start();
}

void RunningService::end() {
  ::kill(process_->pid(), SIGTERM);
  process_->join();
  process_.reset();
}

}  // namespace Bench
