// Lines are collected in one string, which flush() writes. What goes to standard error is written at
// once, as lines for people or, with --json, as one record.
#include "tools/appcfg/output.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>

#include "tools/appcfg/text.h"

namespace AppCfgTool {
namespace {

// A descriptor that another program made non-blocking is waited for like any other.
bool waitUntilWritable(int fd) {
  pollfd wait{fd, POLLOUT, 0};
  return ::poll(&wait, 1, -1) >= 0 || errno == EINTR;
}

WriteState writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EPIPE) {
      return WriteState::ReaderGone;
    } else if (errno != EINTR && !(errno == EAGAIN && waitUntilWritable(fd))) {
      return WriteState::Failed;
    }
  }
  return WriteState::Written;
}

Record recordOf(const Outcome& outcome) {
  Record record;
  record.text("error", exitCodeName(outcome.code)).number("exit_code", outcome.code);
  if (outcome.subject.empty()) {
    record.none("key");
  } else {
    record.text("key", outcome.subject);
  }
  record.text("message", outcome.text).list("reasons", outcome.reasons);
  return record.text("advice", outcome.advice);
}

}  // namespace

Output::Output(bool json, int outFd, int errFd)
    : json_(json),
      outFd_(outFd),
      errFd_(errFd),
      toTerminal_(::isatty(outFd) == 1),
      errToTerminal_(::isatty(errFd) == 1) {}

std::size_t Output::columns() const {
  winsize size{};
  return toTerminal_ && ::ioctl(outFd_, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

void Output::line(std::string_view text) {
  waiting_ += text;
  waiting_ += '\n';
}

void Output::record(const Record& record) { line(toJson(record)); }

WriteState Output::flush() {
  const std::string now = std::move(waiting_);
  waiting_.clear();
  return writeAll(outFd_, now);
}

// When standard error cannot be written there is nobody left to tell; the exit code still does.
void Output::say(std::string_view text) { static_cast<void>(writeAll(errFd_, text)); }

void Output::note(std::string_view text) { say("appcfg: " + escapeLine(text) + '\n'); }

void Output::failure(const Outcome& outcome) {
  if (json_) return say(toJson(recordOf(outcome)) + '\n');
  if (!outcome.text.empty()) note(outcome.text);
  for (const std::string& reason : outcome.reasons) note(reason);
  if (!outcome.advice.empty()) note(outcome.advice);
}

}  // namespace AppCfgTool
