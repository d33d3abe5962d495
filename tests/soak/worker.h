// Worker: an application under load. Readers and writers work the plan's variables through the
// library until told to pause; then everything that is cached and everything that handlers were told
// is held against what the service says.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "appconfig/manager/app_cfg_manager.h"
#include "appconfig/registry/consumer_config_handler.h"
#include "appconfig/registry/provider_config_handler.h"
#include "platform/messaging/endpoint.h"
#include "tests/soak/history.h"
#include "tests/soak/plan.h"
#include "tests/support/gate.h"

namespace Soak {

struct WorkerOptions {
  std::string runtimeDir;
  int number = 0;
  // Tells a process from those that had its number before, whose values it must not repeat.
  int life = 0;
  int workers = 1;
  int variables = 0;
  unsigned seed = 0;
  int readers = 2;
  int writers = 2;
  // Answers the questions about the provided groups.
  bool provides = false;
};

struct Counts {
  std::atomic<std::uint64_t> reads{0};
  std::atomic<std::uint64_t> changes{0};  // acknowledged
  std::atomic<std::uint64_t> refused{0};
  std::atomic<std::uint64_t> unanswered{0};
  std::atomic<std::uint64_t> told{0};
  std::atomic<std::uint64_t> asked{0};
  std::atomic<std::uint64_t> outOfOrder{0};
  std::atomic<std::uint64_t> backwards{0};
};

struct Findings {
  std::size_t stale = 0;
  std::size_t lost = 0;
  std::string text;
};

class Worker : private ConsumerConfigHandler, private ProviderConfigHandler {
 public:
  explicit Worker(WorkerOptions options);
  ~Worker() override;

  void work() { gate_.open(); }
  // Returns when no reader and no writer is at work.
  void pause() { gate_.closeAndWait(); }
  // Cuts connections to the service as a fault would: one of them, or all.
  int cut(bool all);
  // Whether the delivery connection stands and every registration is answered.
  bool connect() { return endpoint_.waitUntilConnected("ConfigSrvc", kPatience); }
  // Writes each provided variable what every provider refuses, so that all changes of it which were
  // under way have ended. False when one of these writes was not refused.
  bool flush();
  // Writes the marker until that is acknowledged; the value.
  std::string mark();
  // Whether a handler was told this mark, and with it everything that came before.
  bool awaitMark(const std::string& value);
  // Takes down what is cached and what handlers know now, to be compared later.
  void look();
  Findings compare(const std::vector<Truth>& truths);
  const Counts& counts() const { return counts_; }

 private:
  using Random = std::mt19937;
  static constexpr std::chrono::seconds kPatience{100};

  void start();
  void registerFirstHandlers();
  void registerOneMore();
  void registerGroup(const std::string& group);
  void startThread(void (Worker::*step)(Random&), unsigned number);

  // One piece of work each.
  void readSome(Random& random);
  void writeSome(Random& random);
  void read(std::size_t index, Random& random);
  // Whether what a thread reads of the variable has an order that readers know.
  bool hasKnownOrder(std::size_t index) const;
  void noteRead(std::size_t index, std::uint64_t newestBefore, const std::string& value);
  void noteNewest(std::size_t index, const std::string& value);
  void write(std::size_t index, Random& random);
  void writeAndWait(std::size_t index);
  void awaitService(std::size_t index);
  std::size_t pick(Random& random) const;
  bool isOnlyWriterOf(std::size_t index) const;

  void interrupt();
  void noteMark(const std::string& value);

  void compareOne(std::size_t index, const Truth& truth, Findings& findings);
  void report(std::size_t index, const char* what, const std::string& wrong, Findings& findings);

  // ConsumerConfigHandler
  void configChanged(const std::string& group, int, const std::string& name, int nameInstance,
                     const std::list<std::string>& value, const std::string&) override;
  void submit(const std::string&, int, const std::string&, int, int, const std::string&) override {}
  void attributeChanged(const std::string&, int, const std::string&, int) override {}
  void optionsChanged(const std::string&, int, const std::string&, int,
                      const std::list<std::string>&, std::string) override {}
  void accessLevelsChanged(const std::string&, int, const std::string&, int,
                           AppConfig::SecurityRole, AppConfig::SecurityRole, std::string) override {
  }

  // ProviderConfigHandler
  bool dynamicValidate(const std::string& group, int, const std::string& name, int nameInstance,
                       const std::list<std::string>& value, AppConfig::SecurityRole,
                       ConfigResult* result) override;
  bool onChange(const std::string& group, int, const std::string& name, int nameInstance,
                const std::list<std::string>& value, AppConfig::SecurityRole,
                ConfigResult* result) override;

  const WorkerOptions options_;
  const Plan plan_;
  const std::string writer_;
  std::vector<History> histories_;
  std::vector<std::optional<Truth>> seen_;
  // Of each variable the newest value that any thread has read or written, as its place in the order.
  std::vector<std::atomic<std::uint64_t>> newest_;
  Counts counts_;
  std::atomic<unsigned> handlersOfGroup_{0};
  std::mutex markMutex_;  // guards mark_; nothing is taken while it is held
  std::condition_variable marked_;
  std::string mark_;
  Random atQuestions_;  // the delivery thread's own
  TestSupport::Gate gate_;
  AppConfig::AppCfgManager* const config_;
  PbUtility::Endpoint endpoint_;
  std::vector<std::thread> threads_;
};

}  // namespace Soak
