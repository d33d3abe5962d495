#include "tests/soak/history.h"

#include <cstdlib>

namespace Soak {
namespace {

constexpr std::size_t kEventsKept = 24;

// Ends the name of a writer whose values have no order.
constexpr char kUnorderedMark = 'o';

struct Written {
  std::string writer;  // empty: a default
  std::uint64_t number = 0;
};

Written parse(const std::string& value) {
  const std::size_t dash = value.find('-');
  if (dash == std::string::npos || dash == 0 || value.compare(0, dash, "default") == 0) return {};
  if (value[dash - 1] == kUnorderedMark) return {};
  return {value.substr(0, dash), std::strtoull(value.c_str() + dash + 1, nullptr, 10)};
}

}  // namespace

void History::note(const std::string& what) {
  events_.push_back({Clock::now(), what});
  if (events_.size() > kEventsKept) events_.pop_front();
}

void History::noteEvent(const std::string& what) {
  const std::lock_guard<std::mutex> guard(mutex_);
  note(what);
}

void History::noteCached() {
  const std::lock_guard<std::mutex> guard(mutex_);
  cached_ = true;
}

bool History::mayBeCached() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return cached_;
}

std::string History::nextValue(const std::string& writer) {
  const std::lock_guard<std::mutex> guard(mutex_);
  return writer + "-" + std::to_string(++last_);
}

void History::noteWritten(const std::string& value, bool acknowledged, const std::string& how) {
  const std::lock_guard<std::mutex> guard(mutex_);
  if (acknowledged) acknowledged_ = parse(value).number;
  note("wrote " + value + ": " + how);
}

bool History::noteTold(const std::string& value) {
  const std::lock_guard<std::mutex> guard(mutex_);
  const Written written = parse(value);
  bool inOrder = true;
  if (!written.writer.empty()) {
    std::uint64_t& newest = newestOf_[written.writer];
    const bool again = written.number == newest && told_ && *told_ != value;
    inOrder = written.number >= newest && !again;
    if (written.number > newest) newest = written.number;
  }
  note((inOrder ? "told " : "OUT OF ORDER told ") + value);
  told_ = value;
  return inOrder;
}

void History::noteHandler() {
  const std::lock_guard<std::mutex> guard(mutex_);
  handled_ = true;
  note("handler registered");
}

std::string History::lostWrite(const std::string& writer, const Truth& truth,
                               bool onlyWriter) const {
  const std::lock_guard<std::mutex> guard(mutex_);
  if (acknowledged_ == 0) return {};
  const Written written = parse(truth.value);
  const std::string wrong = "the service holds " + truth.value + ", but " + writer + "-" +
                            std::to_string(acknowledged_) + " was acknowledged";
  if (written.writer == writer) return written.number < acknowledged_ ? wrong : std::string();
  return onlyWriter ? wrong : std::string();
}

void History::look() {
  const std::lock_guard<std::mutex> guard(mutex_);
  known_ = told_;
}

std::string History::neverTold(const Truth& truth) {
  const std::lock_guard<std::mutex> guard(mutex_);
  if (!handled_) return {};
  if (!known_ && !before_) before_ = truth.value;
  const std::string& newest = known_ ? *known_ : *before_;
  if (newest == truth.value) return {};
  return "the service holds " + truth.value + ", but the handler knows " + newest;
}

std::string History::lastEvents() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  std::string text;
  const Clock::time_point now = Clock::now();
  for (const Event& event : events_) {
    const auto age = std::chrono::duration_cast<std::chrono::microseconds>(now - event.when);
    text += "      " + std::to_string(age.count()) + " us ago: " + event.what + "\n";
  }
  return text;
}

}  // namespace Soak
