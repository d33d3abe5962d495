// History: what one process read, wrote and was told of one variable, and what is wrong with it.
//
// A value is "<writer>-<number>", and a writer's numbers grow. As a value is written once, a value
// that comes again after another, or after a later one of its writer, came out of order. Values
// without a writer are defaults; they may come again. A writer whose name ends with an o waits for
// no answer, so that its values have no order.
//
// Threads:  any.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace Soak {

using Clock = std::chrono::steady_clock;

// What is true of a variable, as the service tells somebody who asks for the first time.
struct Truth {
  std::string value;
  bool isDefault = false;
};

class History {
 public:
  // A value that this process may have cached.
  void noteCached();
  bool mayBeCached() const;

  // Writing: the next value, and how the write went.
  std::string nextValue(const std::string& writer);
  void noteWritten(const std::string& value, bool acknowledged, const std::string& how);

  void noteEvent(const std::string& what);
  // A handler was told. False when the value came out of order.
  bool noteTold(const std::string& value);
  // From now on a handler has to hear of every change.
  void noteHandler();

  // What handlers know now is what neverTold is about.
  void look();
  // Empty when an acknowledged write is still there or was followed by another; else what is wrong.
  std::string lostWrite(const std::string& writer, const Truth& truth, bool onlyWriter) const;
  // Empty when the handlers had been told the last change when it was looked.
  std::string neverTold(const Truth& truth);

  // The last events, a line each, oldest first, with their ages.
  std::string lastEvents() const;

 private:
  struct Event {
    Clock::time_point when;
    std::string what;
  };
  // The mutex is held.
  void note(const std::string& what);

  mutable std::mutex mutex_;
  bool cached_ = false;
  std::uint64_t last_ = 0;
  std::uint64_t acknowledged_ = 0;
  bool handled_ = false;
  std::optional<std::string> told_;
  std::optional<std::string> known_;  // told_ when it was looked
  // The value at the first look after the handler came, when it had not been told of any.
  std::optional<std::string> before_;
  std::map<std::string, std::uint64_t> newestOf_;
  std::deque<Event> events_;
};

}  // namespace Soak
