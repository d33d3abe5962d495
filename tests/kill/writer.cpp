#include "tests/kill/writer.h"

#include <algorithm>
#include <cstdio>
#include <vector>

namespace TestSupport {
namespace {

constexpr std::size_t kLargeElements = 400;

}  // namespace

Writer::Writer(int instance, const std::string& runtimeDir)
    : counters_{{"load.small[" + std::to_string(instance) + "]", 1},
                {"load.large[" + std::to_string(instance) + "]", kLargeElements}},
      client_("writer-" + std::to_string(instance), runtimeDir) {}

std::string Writer::definitions(int writers) {
  const std::string instances =
      "instances = { from = 0, to = " + std::to_string(writers - 1) + " }\n";
  return "[variable.\"load.small\"]\ntype = \"list\"\ndefault = [\"0\"]\n" + instances +
         "[variable.\"load.large\"]\ntype = \"list\"\ndefault = [\"0\"]\n" + instances;
}

void Writer::writeUntilFailure() {
  while (write(counters_[0]) && write(counters_[1])) {
  }
}

bool Writer::write(Counter& counter) {
  const std::string number = std::to_string(++counter.written);
  const std::vector<std::string> value(counter.elements, number);
  if (!client_.write(counter.key, value).ok()) return false;
  counter.acknowledged = counter.written;
  ++acknowledged_;
  return true;
}

void Writer::verify(long* lost, long* mixed) {
  for (Counter& counter : counters_) verify(counter, lost, mixed);
}

void Writer::verify(Counter& counter, long* lost, long* mixed) {
  const Outcome outcome = client_.read(counter.key);
  const std::vector<std::string>& values = outcome.values;
  const bool isWhole =
      outcome.ok() && !values.empty() &&
      (values.size() == counter.elements || values == std::vector<std::string>{"0"}) &&
      std::all_of(values.begin(), values.end(),
                  [&](const std::string& v) { return v == values[0]; });
  if (!isWhole) {
    std::printf("MIXED %s: %zu elements %s\n", counter.key.c_str(), values.size(),
                outcome.text.c_str());
    ++*mixed;
    return;
  }
  const long found = std::stol(values[0]);
  // The write whose answer never came is there whole, or not at all.
  if (found != counter.acknowledged && found != counter.written) {
    std::printf("LOST %s: acknowledged %ld, found %ld\n", counter.key.c_str(), counter.acknowledged,
                found);
    ++*lost;
  }
  counter.acknowledged = found;
}

}  // namespace TestSupport
