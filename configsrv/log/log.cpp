// A line is made of the text and given to the sink. Standard error gets it in one write; the
// journal also gets its mark for the level.
//
// Lines that may repeat themselves pass a FloodGuard, which is shared by the copies of a Log. It
// is asked under a mutex; what it answers is written when the mutex is released, because a sink
// may take long.
#include "configsrv/log/log.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "base/mutex.h"
#include "configsrv/log/flood_guard.h"

namespace ConfigSrv {
namespace {

struct LevelWords {
  LogLevel level;
  std::string_view name;
  // The journal's mark: sd-daemon(3).
  std::string_view mark;
};

constexpr std::array<LevelWords, 4> kLevels = {{
    {LogLevel::Error, "error", "<3>"},
    {LogLevel::Warning, "warning", "<4>"},
    {LogLevel::Info, "info", "<6>"},
    {LogLevel::Debug, "debug", "<7>"},
}};

const LevelWords& wordsOf(LogLevel level) { return kLevels[static_cast<std::size_t>(level)]; }

bool isPlain(unsigned char byte) { return byte >= 0x20 && byte != 0x7F; }

std::string escaped(unsigned char byte) {
  char text[8];
  std::snprintf(text, sizeof text, "\\x%02X", unsigned{byte});
  return text;
}

std::string inOneLine(std::string_view text) {
  std::string line;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    line += isPlain(byte) ? std::string(1, c) : escaped(byte);
  }
  return line;
}

// Whether standard error is the stream that $JOURNAL_STREAM names by device and inode.
bool leadsToJournal() {
  const char* stream = std::getenv("JOURNAL_STREAM");
  struct stat status {};
  if (stream == nullptr || fstat(STDERR_FILENO, &status) != 0) return false;
  return std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino) == stream;
}

// In one call, so that lines of several threads do not mix; a line that cannot be written is lost,
// for there is nowhere to say so.
void writeToStandardError(std::string_view text) {
  if (write(STDERR_FILENO, text.data(), text.size()) < 0) return;
}

}  // namespace

std::string_view levelName(LogLevel level) { return wordsOf(level).name; }

std::optional<LogLevel> parseLevel(std::string_view name) {
  for (const LevelWords& words : kLevels) {
    if (words.name == name) return words.level;
  }
  return std::nullopt;
}

Log::Sink Log::toStandardError() {
  const bool marked = leadsToJournal();
  return [marked](LogLevel level, const std::string& line) {
    const std::string begin =
        marked ? std::string(wordsOf(level).mark) : std::string(levelName(level)) + ": ";
    writeToStandardError(begin + line + "\n");
  };
}

struct Log::Repeats {
  // Neither a sink nor a function is called while it is held.
  Base::Mutex mutex;
  FloodGuard guard APPCONFIG_GUARDED_BY(mutex);
  std::function<void()> tell APPCONFIG_GUARDED_BY(mutex);
};

Log::Log(LogLevel mostDetailed, Sink sink)
    : mostDetailed_(mostDetailed), sink_(std::move(sink)), repeats_(std::make_shared<Repeats>()) {}

void Log::repeatable(LogLevel level, std::string_view kind, std::string_view line) const {
  if (!isOn(level)) return;
  sumUp();
  bool isWritten = false;
  std::function<void()> tell;
  {
    const Base::MutexLock guard(repeats_->mutex);
    const bool heldBackBefore = repeats_->guard.holdsBack();
    isWritten = repeats_->guard.admit(level, kind, line, FloodGuard::Clock::now());
    if (!isWritten && !heldBackBefore) tell = repeats_->tell;
  }
  if (isWritten) write(level, line);
  if (tell) tell();
}

void Log::sumUp(bool all) const {
  std::vector<FloodGuard::Summary> summaries;
  {
    const Base::MutexLock guard(repeats_->mutex);
    summaries = all ? repeats_->guard.all() : repeats_->guard.ended(FloodGuard::Clock::now());
  }
  for (const FloodGuard::Summary& summary : summaries) write(summary.level, summary.line);
}

void Log::whenHeldBack(std::function<void()> tell) const {
  const Base::MutexLock guard(repeats_->mutex);
  repeats_->tell = std::move(tell);
}

bool Log::holdsBack() const {
  const Base::MutexLock guard(repeats_->mutex);
  return repeats_->guard.holdsBack();
}

void Log::write(LogLevel level, std::string_view line) const {
  if (isOn(level)) sink_(level, inOneLine(line));
}

}  // namespace ConfigSrv
