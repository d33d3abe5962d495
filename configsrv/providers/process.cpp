#include "configsrv/providers/internal/process.h"

#include <signal.h>

#include <cerrno>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>

namespace ConfigSrv {
namespace {

struct ProcessState {
  char state = '?';
  std::uint64_t startedAt = 0;
};

// Fields of /proc/PID/stat behind the state, which is the third, up to the start, the 22nd: proc(5).
constexpr int kFieldsBetween = 18;

// The program's name may hold anything, so the fields are counted from the last parenthesis on.
std::optional<ProcessState> readState(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::ostringstream text;
  text << file.rdbuf();
  const std::string line = text.str();
  const std::size_t name = line.rfind(')');
  if (name == std::string::npos) return std::nullopt;
  std::istringstream fields(line.substr(name + 1));
  ProcessState process;
  std::string skipped;
  fields >> process.state;
  for (int i = 0; i < kFieldsBetween; ++i) fields >> skipped;
  if (!(fields >> process.startedAt)) return std::nullopt;
  return process;
}

}  // namespace

std::uint64_t startOfProcess(pid_t pid) {
  const std::optional<ProcessState> process = readState(pid);
  return process ? process->startedAt : 0;
}

bool isProcessGone(pid_t pid, std::uint64_t startedAt) {
  // A process of another namespace, which has no number here.
  if (pid <= 0) return false;
  if (::kill(pid, 0) != 0 && errno == ESRCH) return true;
  const std::optional<ProcessState> process = readState(pid);
  if (!process) return false;
  if (process->state == 'Z' || process->state == 'X') return true;
  return startedAt != 0 && process->startedAt != startedAt;
}

}  // namespace ConfigSrv
