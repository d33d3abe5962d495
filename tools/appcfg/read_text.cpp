#include "tools/appcfg/read_text.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "base/unique_fd.h"
#include "tools/appcfg/new_file.h"

namespace AppCfgTool {
namespace {

constexpr std::size_t kMaxBytes = std::size_t{64} << 20;

// Of standard input a copy, because what UniqueFd owns is closed.
int openToRead(const std::string& name) {
  if (name == "-") return ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0);
  return ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
}

}  // namespace

std::string shownName(const std::string& name) { return name == "-" ? "standard input" : name; }

Outcome readText(const std::string& name, std::string& text) {
  const Base::UniqueFd file(openToRead(name));
  if (!file) return fileFailure("read", shownName(name), errno);
  std::string buffer(std::size_t{64} << 10, '\0');
  for (;;) {
    const ssize_t got = ::read(file.get(), buffer.data(), buffer.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return fileFailure("read", shownName(name), errno);
    if (got == 0) return {};
    text.append(buffer, 0, static_cast<std::size_t>(got));
    if (text.size() > kMaxBytes)
      return failure(kExitFailed, shownName(name) + " is larger than 64 MiB");
  }
}

}  // namespace AppCfgTool
