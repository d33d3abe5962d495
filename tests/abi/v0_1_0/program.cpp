// A program of release 0.1.0: its calls, its handlers, and what it takes the library's types to look
// like. It is compiled with the headers of that release; do not make it use anything newer.
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>

#include "appconfig/manager/app_cfg_manager.h"
#include "appconfig/registry/consumer_config_handler.h"
#include "appconfig/registry/provider_config_handler.h"
#include "appconfig/registry/registration.h"
#include "platform/messaging/endpoint.h"

namespace {

using AppConfig::AppCfgManager;
using Values = std::list<std::string>;

int failures = 0;

void expect(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", what);
  ++failures;
}

// Every operation is one that this release's library calls by its place in the table.
class Consumer : public ConsumerConfigHandler {
 public:
  void configChanged(const std::string& group, int groupInstance, const std::string& name,
                     int nameInstance, const Values& value, const std::string& identity) override {
    told("changed " + group + std::to_string(groupInstance) + name + std::to_string(nameInstance) +
         value.front() + (identity.rfind("PlatCfgSvc0-", 0) == 0 ? "" : "?"));
  }
  void submit(const std::string& group, int, const std::string& name, int, int kind,
              const std::string&) override {
    told("submit " + group + name + std::to_string(kind));
  }
  void attributeChanged(const std::string&, int, const std::string&, int) override {
    told("attribute");
  }
  void optionsChanged(const std::string& group, int, const std::string& name, int,
                      const Values& options, std::string) override {
    told("options " + group + name + std::to_string(options.size()));
  }
  void accessLevelsChanged(const std::string& group, int, const std::string& name, int,
                           AppConfig::SecurityRole readRole, AppConfig::SecurityRole writeRole,
                           std::string) override {
    told("access " + group + name + std::to_string(readRole) + std::to_string(writeRole));
  }

  bool waitFor(const std::string& line) {
    std::unique_lock<std::mutex> guard(mutex_);
    return changed_.wait_for(guard, std::chrono::seconds(20), [&] { return lines_.count(line); });
  }

 private:
  void told(const std::string& line) {
    const std::lock_guard<std::mutex> guard(mutex_);
    ++lines_[line];
    changed_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::map<std::string, int> lines_;
};

class Provider : public ProviderConfigHandler {
 public:
  bool dynamicValidate(const std::string&, int, const std::string& name, int, const Values& value,
                       AppConfig::SecurityRole, ConfigResult* result) override {
    calls += " asked " + value.front();
    if (name != "mtu" || value.front() != "9000") return true;
    result->addResultMessage("no jumbo frames");
    return result->fillConfigResult(false, eErrVetoed, true);
  }
  bool onChange(const std::string&, int, const std::string&, int, const Values& value,
                AppConfig::SecurityRole, ConfigResult*) override {
    calls += " told " + value.front();
    return true;
  }
  std::string calls;
};

void readAndWrite(AppCfgManager* config, Provider& provider, Consumer& consumer) {
  expect(config->getConfigVarInt("Net", 0, "MTU", 0) == 1500, "a number is read");
  ConfigResult result;
  expect(config->setConfigVar("net", 0, "mtu", 0, 1400, &result), "a write is accepted");
  expect(result.error() == eErrNone, "its result says so");
  expect(provider.calls == " asked 1400 told 1400", "the provider is asked, then told");
  expect(consumer.waitFor("changed net0mtu01400"), "the consumer is told");

  ConfigResult veto;
  expect(!config->setConfigVar("net", 0, "mtu", 0, 9000, &veto), "a veto ends a write");
  expect(veto.error() == eErrVetoed, "its code is the provider's");
  expect(provider.calls == " asked 1400 told 1400 asked 9000", "and the provider is told nothing");
  const auto reasons = veto.resultMessages();
  expect(!reasons.empty() && reasons.front() == "no jumbo frames", "and its reason");
}

void optionsAndRoles(AppCfgManager* config, Consumer& consumer) {
  expect(config->setConfigOptions("net", 0, "mode", 0, {"auto", "manual", "off"}, 1),
         "options are set");
  expect(consumer.waitFor("options netmode3"), "and told");
  const AppConfig::SecurityRole user = AppConfig::eRoleUser;
  expect(config->getConfigVar("net", 0, "mode", 0) == "auto", "a default option changes no value");
  eErrorT error = eErrVetoed;
  expect(config->setAccessLevels("net", 0, "mode", 0, nullptr, &user, error), "a role is set");
  expect(error == eErrNone, "without an error");
  expect(consumer.waitFor("access netmode01"), "and told");
  AppConfig::ConfigValue record = config->getConfigValue("net", 0, "mode", 0);
  expect(record.getSinglestringValue() == "auto", "a record has its value");
  expect(record.getOptions().size() == 3 && record.defaultIndex() == 1, "its options");
  expect(record.hasAccessLevels() && record.writeRole() == user, "and its roles");
}

}  // namespace

// The argument is a command that has the service tell of a submit of net.mtu.
int main(int argc, char** argv) {
  // Options by value: their size and places are part of what the program was compiled with.
  PbUtility::EndpointOptions options;
  options.deadline = std::chrono::seconds(20);
  options.maxConnections = 2;
  static PbUtility::Endpoint endpoint("released-program", options);
  AppCfgManager* const config = AppCfgManager::getInstance();
  config->setPbInterface(&endpoint);
  config->setSecurityRole(AppConfig::eRoleInstaller);
  static Consumer consumer;
  static Provider provider;
  registerHandler("net", "", &consumer, nullptr);
  registerHandler("net", "mtu", &provider, nullptr);
  expect(endpoint.waitUntilConnected("ConfigSrvc", std::chrono::seconds(20)), "it connects");
  readAndWrite(config, provider, consumer);
  optionsAndRoles(config, consumer);
  expect(argc == 2 && std::system(argv[1]) == 0, "a submit is asked for");
  expect(consumer.waitFor("submit netmtu0"), "and told");
  unregisterHandler("net", "", &consumer, nullptr);
  unregisterHandler("net", "mtu", &provider, nullptr);
  return failures == 0 ? 0 : 1;
}
