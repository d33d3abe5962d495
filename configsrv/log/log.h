// Log: the service's lines for whoever looks after the device.
//
// Shape:    one line each. Bytes that would break a line or a terminal (anything but printable
//           ASCII and bytes above 127) are written \xNN, for peers choose parts of the text.
// Levels:   error: something is broken and stays so; warning: a fault that was dealt with, a peer
//           that was refused; info: what starts and stops; debug: each step of each change.
// Threads:  any.
//
//   Log log(LogLevel::Info, Log::toStandardError());
//   log.warning("connection refused: ...");
//   log.repeatable(LogLevel::Warning, "refused", "connection refused: ...");  // peers cause it
//   if (log.isOn(LogLevel::Debug)) log.debug(textThatCostsSomething());
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace ConfigSrv {

enum class LogLevel { Error, Warning, Info, Debug };

// "error", "warning", "info", "debug".
std::string_view levelName(LogLevel level);
std::optional<LogLevel> parseLevel(std::string_view name);

class Log {
 public:
  using Sink = std::function<void(LogLevel level, const std::string& line)>;

  Log(LogLevel mostDetailed, Sink sink);

  // Writes lines to standard error, each in one piece. When standard error leads to the system's
  // journal, each begins with the journal's mark of its level.
  static Sink toStandardError();

  bool isOn(LogLevel level) const { return level <= mostDetailed_; }
  void write(LogLevel level, std::string_view line) const;

  // For lines that peers can cause as often as they like: of many of one kind in a short time, the
  // first are written and the rest is summed up in one line (flood_guard.h).
  void repeatable(LogLevel level, std::string_view kind, std::string_view line) const;
  // Writes the sums of what was held back long enough ago; with `all`, of everything. Whoever
  // registered by whenHeldBack() calls it from time to time, and before the program ends.
  void sumUp(bool all = false) const;
  // Sets a function that is called, on the thread that logs, once there is something to sum up.
  void whenHeldBack(std::function<void()> tell) const;
  // Whether there is something to sum up.
  bool holdsBack() const;

  void error(std::string_view line) const { write(LogLevel::Error, line); }
  void warning(std::string_view line) const { write(LogLevel::Warning, line); }
  void info(std::string_view line) const { write(LogLevel::Info, line); }
  void debug(std::string_view line) const { write(LogLevel::Debug, line); }

 private:
  struct Repeats;

  LogLevel mostDetailed_;
  Sink sink_;
  std::shared_ptr<Repeats> repeats_;
};

}  // namespace ConfigSrv
