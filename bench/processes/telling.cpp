#include "bench/processes/telling.h"

#include "bench/processes/machine.h"

namespace Bench {

void Meeting::expect(int number, int receivers) {
  round->expected = number;
  round->missing = receivers;
}

void Meeting::told() {
  const double now = nowMicroseconds();
  if (--round->missing != 0) return;
  round->lastAt = now;
  allTold.raise();
}

void Telling::configChanged(const std::string&, int, const std::string&, int,
                            const std::list<std::string>& value, const std::string&) {
  if (!value.empty() && value.front() == std::to_string(meeting_.round->expected)) meeting_.told();
}

}  // namespace Bench
