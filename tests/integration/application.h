// Application: what an application makes of the library: an endpoint, and handlers that note what
// they are told and asked.
#pragma once

#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <vector>

#include "appconfig/manager/app_cfg_manager.h"
#include "appconfig/registry/consumer_config_handler.h"
#include "appconfig/registry/provider_config_handler.h"
#include "appconfig/registry/registration.h"
#include "platform/messaging/endpoint.h"
#include "tests/support/eventually.h"

namespace TestSupport {

inline std::string joined(const std::list<std::string>& value) {
  std::string text;
  for (const std::string& element : value) text += (text.empty() ? "" : ",") + element;
  return text;
}

inline PbUtility::EndpointOptions inDirectory(const std::string& runtimeDir) {
  PbUtility::EndpointOptions options;
  options.runtimeDir = runtimeDir;
  return options;
}

// Notes each call in a line: "value net.mtu = 1400".
class NotingConsumer final : public ConsumerConfigHandler {
 public:
  void configChanged(const std::string& group, int, const std::string& name, int,
                     const std::list<std::string>& value, const std::string&) override {
    note("value " + group + "." + name + " = " + joined(value));
  }
  void submit(const std::string& group, int, const std::string& name, int, int kind,
              const std::string&) override {
    note("submit " + group + "." + name + " " + std::to_string(kind));
  }
  void attributeChanged(const std::string&, int, const std::string&, int) override {
    note("attribute");
  }
  void optionsChanged(const std::string& group, int, const std::string& name, int,
                      const std::list<std::string>& options, std::string) override {
    note("options " + group + "." + name + " = " + joined(options));
  }
  void accessLevelsChanged(const std::string& group, int, const std::string& name, int,
                           AppConfig::SecurityRole readRole, AppConfig::SecurityRole writeRole,
                           std::string) override {
    note("access " + group + "." + name + " = " + std::to_string(readRole) + "/" +
         std::to_string(writeRole));
  }

  std::vector<std::string> notes() const {
    const std::lock_guard<std::mutex> guard(mutex_);
    return notes_;
  }
  bool waitFor(const std::string& line) const {
    return eventually([&] {
      for (const std::string& known : notes()) {
        if (known == line) return true;
      }
      return false;
    });
  }

 private:
  void note(const std::string& line) {
    const std::lock_guard<std::mutex> guard(mutex_);
    notes_.push_back(line);
  }

  mutable std::mutex mutex_;
  std::vector<std::string> notes_;
};

// Vetoes one value, and notes what it is asked.
class NotingProvider final : public ProviderConfigHandler {
 public:
  explicit NotingProvider(std::string bad) : bad_(std::move(bad)) {}

  bool dynamicValidate(const std::string& group, int, const std::string& name, int,
                       const std::list<std::string>& value, AppConfig::SecurityRole,
                       ConfigResult* result) override {
    note("may " + group + "." + name + " = " + joined(value));
    if (joined(value) != bad_) return true;
    result->addResultMessage(bad_ + " is bad");
    return result->fillConfigResult(false, eErrVetoed, false);
  }
  bool onChange(const std::string& group, int, const std::string& name, int,
                const std::list<std::string>& value, AppConfig::SecurityRole,
                ConfigResult*) override {
    note("change " + group + "." + name + " = " + joined(value));
    return true;
  }

  std::vector<std::string> notes() const {
    const std::lock_guard<std::mutex> guard(mutex_);
    return notes_;
  }

 private:
  void note(const std::string& line) {
    const std::lock_guard<std::mutex> guard(mutex_);
    notes_.push_back(line);
  }

  const std::string bad_;
  mutable std::mutex mutex_;
  std::vector<std::string> notes_;
};

}  // namespace TestSupport
