// Worker: an application whose threads write, reset, read and are told, and which writes all of it down.
//
// Threads:  its own at work; the operations are for one other thread, the one that it is told by.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "appconfig/manager/app_cfg_manager.h"
#include "appconfig/registry/consumer_config_handler.h"
#include "appconfig/registry/provider_config_handler.h"
#include "tests/history/journal.h"
#include "tests/history/stamped_endpoint.h"
#include "tests/support/gate.h"

namespace History {

struct WorkerOptions {
  std::string runtimeDir;
  std::string journal;
  int number = 0;
  // Tells a process from those that had its number before, whose values it must not repeat.
  int life = 0;
  int variables = 0;
  unsigned seed = 0;
  int threads = 3;
  // Between two operations of a thread.
  std::chrono::microseconds rest{0};
  // Answers the questions about the provided variables.
  bool provides = false;
};

class Worker : private ConsumerConfigHandler, private ProviderConfigHandler {
 public:
  explicit Worker(const WorkerOptions& options);
  ~Worker() override;

  void work() { gate_.open(); }
  // Returns when no thread is at work.
  void pause() { gate_.closeAndWait(); }
  // Cuts connections to the service as a fault would: one of them, or all.
  static int cut(bool all);
  // Whether the delivery connection stands and every registration is answered.
  bool connect();
  // Writes each provided variable what a provider refuses: changes of one variable follow each other,
  // so those that were under way have ended with the answer. False when there was none.
  bool flush();
  // Writes the variable that no thread writes until that is acknowledged; what it became, and when.
  std::string mark(Stamped& stamped);
  // Whether a handler was told this mark, and with it everything that came before.
  bool awaitMark(const std::string& value);
  // Reads what is cached of all variables; what the service says. False when it does not answer.
  void look();
  bool readTruth();

  // TOML. Each generation has other defaults.
  static std::string definitions(int variables, int generation);
  static ConfigVar marker();

 private:
  using Random = std::mt19937;

  struct Variable {
    ConfigVar key;
    std::string name;  // in the record
    bool hasOptions = false;
  };

  static std::vector<Variable> makeVariables(int variables);
  void start();
  void startThread(unsigned number);
  void step(unsigned thread, Random& random);

  // One operation each.
  void readCached(What what, unsigned thread, const Variable& variable);
  bool readFresh(What what, unsigned thread, const Variable& variable);
  Outcome write(unsigned thread, const Variable& variable);
  void send(unsigned thread, const Variable& variable);
  void reset(unsigned thread, const Variable& variable);
  // What the facade says of the change that this thread made last.
  Outcome outcome(bool done) const;
  std::string nextValue(unsigned thread);

  // Options, without the cache where the service is to be asked.
  std::string cachedValue(const Variable& variable) const;
  bool freshOptions(const Variable& variable, std::string& value);
  bool resetOptions(const Variable& variable);

  // ConsumerConfigHandler
  void configChanged(const std::string& group, int, const std::string& name, int,
                     const std::list<std::string>& value, const std::string&) override;
  void optionsChanged(const std::string& group, int, const std::string& name, int,
                      const std::list<std::string>& options, std::string) override;
  void submit(const std::string&, int, const std::string&, int, int, const std::string&) override {}
  void accessLevelsChanged(const std::string&, int, const std::string&, int,
                           AppConfig::SecurityRole, AppConfig::SecurityRole, std::string) override {
  }

  // ProviderConfigHandler
  bool dynamicValidate(const std::string& group, int, const std::string& name, int,
                       const std::list<std::string>& value, AppConfig::SecurityRole,
                       ConfigResult* result) override;
  bool onChange(const std::string& group, int, const std::string& name, int,
                const std::list<std::string>& value, AppConfig::SecurityRole,
                ConfigResult* result) override;
  bool answer(What what, const std::string& group, const std::string& name,
              const std::list<std::string>& value, bool accepts, ConfigResult* result);

  const WorkerOptions options_;
  const std::string name_;
  const std::vector<Variable> variables_;
  Journal journal_;
  std::atomic<std::uint64_t> lastValue_{0};
  std::mutex markMutex_;  // guards mark_; nothing is taken while it is held
  std::condition_variable marked_;
  std::string mark_;
  TestSupport::Gate gate_;
  AppConfig::AppCfgManager* const config_;
  StampedEndpoint endpoint_;
  std::vector<std::thread> threads_;
};

}  // namespace History
