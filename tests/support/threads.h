// Threads: a test's threads, joined at the latest when the object goes.
#pragma once

#include <thread>
#include <vector>

namespace TestSupport {

class Threads {
 public:
  ~Threads() { join(); }
  template <typename Work>
  void run(Work work) {
    threads_.emplace_back(work);
  }
  void join() {
    for (std::thread& thread : threads_) {
      if (thread.joinable()) thread.join();
    }
  }

 private:
  std::vector<std::thread> threads_;
};

}  // namespace TestSupport
