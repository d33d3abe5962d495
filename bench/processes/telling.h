// Meeting, Telling: a writer waits until all whom its write concerns have been told.
#pragma once

#include <atomic>
#include <list>
#include <string>

#include "appconfig/registry/consumer_config_handler.h"
#include "bench/processes/processes.h"

namespace Bench {

// What writer and receivers share.
struct Round {
  // The number that is written, and how many have not been told of it yet.
  std::atomic<int> expected{0};
  std::atomic<int> missing{0};
  std::atomic<double> lastAt{0};
};

// Only the last receiver wakes the writer, so that waking it delays no other receiver.
struct Meeting {
  Shared<Round> round;
  Signal ready;
  Signal allTold;

  void expect(int number, int receivers);
  void told();
};

// A receiver's handler.
class Telling final : public ConsumerConfigHandler {
 public:
  explicit Telling(Meeting& meeting) : meeting_(meeting) {}
  void configChanged(const std::string& group, int groupInstance, const std::string& name,
                     int nameInstance, const std::list<std::string>& value,
                     const std::string& client) override;
  void submit(const std::string&, int, const std::string&, int, int, const std::string&) override {}
  void optionsChanged(const std::string&, int, const std::string&, int,
                      const std::list<std::string>&, std::string) override {}
  void accessLevelsChanged(const std::string&, int, const std::string&, int,
                           AppConfig::SecurityRole, AppConfig::SecurityRole, std::string) override {
  }

 private:
  Meeting& meeting_;
};

}  // namespace Bench
