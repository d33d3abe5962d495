// Writer: a client that writes counters without pause and remembers which writes were acknowledged.
//
// It has two variables, written in turn: "load.small" and "load.large", which is a list of some
// hundred elements that are all the same number, so that a mixture of two writes shows.
//
// Threads:  one writes; verify() while it does not.
#pragma once

#include <atomic>
#include <string>

#include "tests/support/test_client.h"

namespace TestSupport {

class Writer {
 public:
  Writer(int instance, const std::string& runtimeDir);

  // Until a write fails, because the service is gone.
  void writeUntilFailure();
  // What the service has now, against what it acknowledged: adds to the two counts. From here on,
  // what was found is what has to be there.
  void verify(long* lost, long* mixed);

  long acknowledged() const { return acknowledged_; }

  static std::string definitions(int writers);

 private:
  struct Counter {
    std::string key;
    std::size_t elements;
    long written = 0;       // The last number that was sent.
    long acknowledged = 0;  // The last that the service said it has.
  };

  bool write(Counter& counter);
  void verify(Counter& counter, long* lost, long* mixed);

  Counter counters_[2];
  TestClient client_;
  std::atomic<long> acknowledged_{0};
};

}  // namespace TestSupport
