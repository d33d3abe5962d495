// Timers: tasks to be run at a time, for one thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <unordered_map>
#include <utility>

namespace PbUtility {

class Timers {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr Clock::time_point kNever = Clock::time_point::max();

  std::uint64_t add(Clock::time_point when, std::function<void()> task) {
    const std::uint64_t number = ++last_;
    byNumber_.emplace(number, tasks_.emplace(when, Task{number, std::move(task)}));
    return number;
  }

  void cancel(std::uint64_t number) {
    const auto found = byNumber_.find(number);
    if (found == byNumber_.end()) return;
    tasks_.erase(found->second);
    byNumber_.erase(found);
  }

  // When the next task is due; never when there is none.
  Clock::time_point next() const { return tasks_.empty() ? kNever : tasks_.begin()->first; }

  // Runs what is due, at most so many; the rest stays due. A task may add and cancel timers.
  void runDue(std::size_t atMost) {
    const Clock::time_point now = Clock::now();
    for (; atMost > 0 && !tasks_.empty() && tasks_.begin()->first <= now; --atMost) {
      const Task task = std::move(tasks_.begin()->second);
      byNumber_.erase(task.number);
      tasks_.erase(tasks_.begin());
      task.run();
    }
  }

 private:
  struct Task {
    std::uint64_t number;
    std::function<void()> run;
  };
  std::uint64_t last_ = 0;
  std::multimap<Clock::time_point, Task> tasks_;
  std::unordered_map<std::uint64_t, std::multimap<Clock::time_point, Task>::iterator> byNumber_;
};

}  // namespace PbUtility
