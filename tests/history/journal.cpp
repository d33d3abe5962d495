#include "tests/history/journal.h"

#include <fcntl.h>
#include <sys/types.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <initializer_list>
#include <string_view>

namespace History {
namespace {

constexpr const char* nameOf(Outcome outcome) {
  if (outcome == Outcome::Ok) return "ok";
  return outcome == Outcome::Refused ? "refused" : "unknown";
}

std::string joined(std::initializer_list<std::string_view> words) {
  std::string line;
  for (const std::string_view word : words) {
    if (!line.empty()) line += ' ';
    line += word.empty() ? std::string_view("-") : word;
  }
  return line + '\n';
}

std::string text(std::uint64_t number) { return std::to_string(number); }
std::string text(std::int64_t number) { return std::to_string(number); }
std::string text(unsigned number) { return std::to_string(number); }
const char* flag(bool is) { return is ? "1" : "0"; }

}  // namespace

std::int64_t now() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return std::int64_t{time.tv_sec} * 1000000000 + time.tv_nsec;
}

Journal::Journal(const std::string& file, const std::string& process)
    : file_(::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600)) {
  write(joined({"process", process}));
}

void Journal::write(std::string line) {
  if (::write(file_.get(), line.data(), line.size()) == static_cast<ssize_t>(line.size())) return;
  std::perror("history_worker: the record cannot be written");
  std::_Exit(1);
}

std::uint64_t Journal::begin(unsigned thread, bool isReset, const std::string& variable,
                             const std::string& value) {
  const std::uint64_t id = next_++;
  write(joined({"b", text(id), text(thread), text(now()), isReset ? "z" : "w", variable, value}));
  return id;
}

void Journal::end(std::uint64_t id, Outcome outcome, const Stamped& stamped) {
  write(joined(
      {"e", text(id), text(now()), nameOf(outcome), text(stamped.epoch), text(stamped.revision)}));
}

void Journal::fresh(What what, unsigned thread, std::int64_t began, const std::string& variable,
                    const Stamped& stamped, const std::string& value) {
  write(joined({what == What::Truth ? "t" : "f", text(thread), text(began), text(now()), variable,
                text(stamped.epoch), text(stamped.revision), flag(stamped.isDefault), value}));
}

void Journal::cached(What what, unsigned thread, std::int64_t began, const std::string& variable,
                     const std::string& value) {
  write(joined(
      {what == What::Look ? "l" : "c", text(thread), text(began), text(now()), variable, value}));
}

void Journal::told(std::uint64_t sender, const Stamped& stamped, const std::string& variable,
                   const std::string& value) {
  write(joined({"h", text(now()), text(sender), text(stamped.epoch), text(stamped.revision),
                flag(stamped.isDefault), variable, value}));
}

void Journal::asked(What what, std::uint64_t sender, bool accepted, const std::string& variable,
                    const std::string& value) {
  write(joined({what == What::Changed ? "q" : "v", text(now()), text(sender),
                accepted ? "ok" : "refused", variable, value}));
}

void Journal::registered(std::int64_t began, const std::string& name) {
  write(joined({"r", text(began), text(now()), name}));
}

void Journal::delivered() { write(joined({"s", text(now())})); }

}  // namespace History
