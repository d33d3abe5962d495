// Gate: threads that work, and one that makes them pause and waits until all of them do.
#pragma once

#include <condition_variable>
#include <mutex>

namespace TestSupport {

class Gate {
 public:
  // Each working thread calls it between two pieces of work. False: it is to end.
  bool pass() {
    std::unique_lock<std::mutex> lock(mutex_);
    if (open_ && !ending_) return true;
    --working_;
    changed_.notify_all();
    changed_.wait(lock, [this] { return open_ || ending_; });
    ++working_;
    return !ending_;
  }

  // Once for each thread, before it starts.
  void expect() {
    const std::lock_guard<std::mutex> guard(mutex_);
    ++working_;
  }
  void open() {
    const std::lock_guard<std::mutex> guard(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  void closeAndWait() {
    std::unique_lock<std::mutex> lock(mutex_);
    open_ = false;
    changed_.wait(lock, [this] { return working_ == 0; });
  }
  void end() {
    const std::lock_guard<std::mutex> guard(mutex_);
    ending_ = true;
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int working_ = 0;
  bool open_ = false;
  bool ending_ = false;
};

}  // namespace TestSupport
