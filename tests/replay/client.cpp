// One client of the simulated device, as an application would be: the library's facade, handlers,
// two threads. It is built as a module, of which each client is a copy (story.h).
//
// All memory of what it has met is in this object, and not behind a mutex: of the threads of the
// simulation one runs at a time. It ends by being killed.
#include <algorithm>
#include <chrono>
#include <list>
#include <string>
#include <thread>

#include "appconfig/manager/app_cfg_manager.h"
#include "appconfig/manager/fresh_read.h"
#include "appconfig/registry/consumer_config_handler.h"
#include "appconfig/registry/provider_config_handler.h"
#include "appconfig/registry/registration.h"
#include "platform/messaging/endpoint.h"
#include "tests/replay/story.h"

namespace Replay {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

// Within this time every request that was ever sent is done, or never will be.
constexpr seconds kSettle(150);
// In calm times.
constexpr seconds kAnswerWithin(10);
constexpr int kNotTold = -1;

ConfigVar keyOf(int variable) { return {"v", 0, "n" + std::to_string(variable), 0}; }

int variableNamed(const std::string& name) { return std::stoi(name.substr(1)); }

std::int64_t numberIn(const std::list<std::string>& value) {
  return value.empty() ? 0 : std::stoll(value.front());
}

class Client final : public ConsumerConfigHandler, public ProviderConfigHandler {
 public:
  Client(Story& story, int number, const char* runtimeDir)
      : story_(story),
        number_(number),
        endpoint_("client" + std::to_string(number), optionsFor(runtimeDir)),
        config_(AppConfig::AppCfgManager::getInstance()) {
    std::fill(std::begin(told_), std::end(told_), kNotTold);
  }

  void run() {
    config_->setPbInterface(&endpoint_);
    if (number_ == 0) return provide();
    registerHandler("v", static_cast<ConsumerConfigHandler*>(this), config_);
    for (int variable = 0; variable < kVariables; ++variable)
      first_[variable] = readSurely(variable);
    story_.ready(number_);
    std::thread([this] {
      for (;;) readOnce();
    }).detach();
    for (;;) story_.isBusy() ? writeOnce() : comeToRest();
  }

 private:
  static PbUtility::EndpointOptions optionsFor(const char* runtimeDir) {
    PbUtility::EndpointOptions options;
    options.runtimeDir = runtimeDir;
    return options;
  }

  // One of `count` variables from `first` on.
  int choose(int first, int count) {
    const int favourite = story_.favourite();
    const bool isThere = first <= favourite && favourite < first + count;
    if (isThere && story_.chance(2) == 0) return favourite;
    return first + static_cast<int>(story_.chance(static_cast<std::uint64_t>(count)));
  }

  void provide() {
    for (int variable = 0; variable < kVariables; ++variable)
      if (isProvided(variable))
        registerHandler("v", keyOf(variable).name(), static_cast<ProviderConfigHandler*>(this),
                        config_);
    while (!endpoint_.waitUntilConnected("ConfigSrvc", seconds(60))) {
    }
    story_.ready(number_);
    for (;;) {
      std::this_thread::sleep_for(seconds(60));
      if (!story_.isBusy()) story_.settled(number_);
    }
  }

  // --- Asking ---

  struct Request {
    std::uint64_t calm;
    Clock::time_point began;
  };

  void judge(const Request& request, int variable, bool isAnswered) {
    if (request.calm == 0 || story_.calm() != request.calm) return;
    const auto took = std::chrono::duration_cast<seconds>(Clock::now() - request.began);
    if (!isAnswered || took > kAnswerWithin)
      story_.fail("answered after seconds", number_, variable, took.count(), kAnswerWithin.count());
  }

  // --- Reading ---

  bool readFresh(int variable, std::int64_t& number) {
    const std::int64_t least = std::max(story_.floorOf(variable), newest_[variable]);
    const Request request{story_.calm(), Clock::now()};
    std::list<std::string> value;
    const bool isAnswered = AppConfig::readFresh(keyOf(variable), value, config_);
    judge(request, variable, isAnswered);
    if (!isAnswered) return false;
    number = numberIn(value);
    meet("fresh read", variable, number, least);
    return true;
  }

  std::int64_t readSurely(int variable) {
    std::int64_t number = 0;
    while (!readFresh(variable, number)) std::this_thread::sleep_for(milliseconds(100));
    return number;
  }

  // An empty value is no answer of the service.
  bool readCached(int variable, std::int64_t& number) {
    const std::int64_t least = std::max(story_.toldOf(variable), newest_[variable]);
    const std::string value = config_->getConfigVar(keyOf(variable));
    if (value.empty()) return false;
    number = std::stoll(value);
    meet("cached read", variable, number, least);
    return true;
  }

  void readOnce() {
    story_.pause();
    const int variable = choose(0, kVariables);
    std::int64_t number = 0;
    story_.chance(4) == 0 ? readFresh(variable, number) : readCached(variable, number);
  }

  void meet(const char* how, int variable, std::int64_t number, std::int64_t least) {
    story_.met(how, number_, variable, number, least);
    newest_[variable] = std::max(newest_[variable], number);
  }

  // --- Writing ---

  // What was asked of no service says nothing about one. What a service did not answer it may yet
  // do, so that the variable is left alone until it has.
  void writeOnce() {
    story_.pause();
    story_.awaitService();
    const int variable = choose((number_ - 1) * kVariablesOfEach, kVariablesOfEach);
    Clock::time_point& openUntil = openUntil_[variable];
    if (Clock::now() < openUntil) return;
    const std::int64_t number = story_.nextOf(variable);
    const Request request{story_.calm(), Clock::now()};
    ConfigResult result;
    const bool isAccepted =
        config_->setConfigVar(keyOf(variable), {std::to_string(number)}, &result);
    judge(request, variable, isAccepted || isVerdict(result));
    if (isAccepted) {
      story_.accepted(variable, number);
      newest_[variable] = std::max(newest_[variable], number);
    } else if (!isVerdict(result)) {
      openUntil = Clock::now() + kSettle;
    }
  }

  static bool isVerdict(const ConfigResult& result) { return result.error() == eErrVetoed; }

  // --- Being told ---

  void configChanged(const std::string&, int, const std::string& name, int,
                     const std::list<std::string>& value, const std::string&) override {
    const int variable = variableNamed(name);
    const std::int64_t number = numberIn(value);
    meet("notice", variable, number, told_[variable]);
    told_[variable] = number;
    std::int64_t cached = 0;
    newest_[variable] = std::max(newest_[variable], number);
    if (story_.chance(4) == 0) readCached(variable, cached);
  }
  void submit(const std::string&, int, const std::string&, int, int, const std::string&) override {}
  void optionsChanged(const std::string&, int, const std::string&, int,
                      const std::list<std::string>&, std::string) override {}
  void accessLevelsChanged(const std::string&, int, const std::string&, int,
                           AppConfig::SecurityRole, AppConfig::SecurityRole, std::string) override {
  }

  // --- Being asked ---

  bool dynamicValidate(const std::string&, int, const std::string& name, int,
                       const std::list<std::string>& value, AppConfig::SecurityRole,
                       ConfigResult* result) override {
    if (!isRefused(variableNamed(name), numberIn(value))) return true;
    result->addResultMessage("every seventh is refused");
    return result->fillConfigResult(false, eErrVetoed, false);
  }
  bool onChange(const std::string&, int, const std::string&, int, const std::list<std::string>&,
                AppConfig::SecurityRole, ConfigResult*) override {
    return true;
  }

  // --- Rest ---

  // All that is under way comes to its end, and then cache, notices and service agree.
  void comeToRest() {
    const std::uint64_t rest = story_.rests();
    const auto isOver = [&] { return story_.isBusy() || story_.rests() != rest; };
    std::this_thread::sleep_for(kSettle * 2);
    for (int variable = 0; variable < kVariables && !isOver(); ++variable) compare(variable);
    if (!isOver()) story_.settled(number_);
    while (!isOver()) std::this_thread::sleep_for(seconds(10));
  }

  void compare(int variable) {
    std::int64_t cached = 0;
    readCached(variable, cached);
    const std::int64_t fresh = readSurely(variable);
    const std::int64_t told = told_[variable] == kNotTold ? first_[variable] : told_[variable];
    if (cached != fresh)
      story_.fail("cache is not the service's", number_, variable, cached, fresh);
    if (told != fresh)
      story_.fail("told last is not the service's", number_, variable, told, fresh);
  }

  Story& story_;
  const int number_;
  PbUtility::Endpoint endpoint_;
  AppConfig::AppCfgManager* const config_;
  std::int64_t first_[kVariables] = {};
  std::int64_t told_[kVariables];
  // Until when a write of it may still be on its way.
  Clock::time_point openUntil_[kVariables] = {};
  // What any thread of this client has met.
  std::int64_t newest_[kVariables] = {};
};

}  // namespace
}  // namespace Replay

extern "C" __attribute__((visibility("default"))) void replayRunClient(Replay::Story& story,
                                                                       int client,
                                                                       const char* runtimeDir) {
  // Never destroyed: it ends with its process.
  (new Replay::Client(story, client, runtimeDir))->run();
}
