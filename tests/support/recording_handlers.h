// Handlers that keep what they were told, as lines of text.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "appconfig/registry/consumer_config_handler.h"
#include "appconfig/registry/provider_config_handler.h"

namespace TestSupport {

// "net[0].mtu[1]"
inline std::string varText(const std::string& group, int groupInstance, const std::string& name,
                           int nameInstance) {
  return group + "[" + std::to_string(groupInstance) + "]." + name + "[" +
         std::to_string(nameInstance) + "]";
}

// "{a,b}"
inline std::string listText(const std::list<std::string>& list) {
  std::string text;
  for (const std::string& element : list) text += (text.empty() ? "" : ",") + element;
  return "{" + text + "}";
}

class Lines {
 public:
  void add(const std::string& line) {
    const std::lock_guard<std::mutex> guard(mutex_);
    lines_.push_back(line);
  }
  std::vector<std::string> take() {
    const std::lock_guard<std::mutex> guard(mutex_);
    return std::exchange(lines_, {});
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

class RecordingConsumer : public ConsumerConfigHandler {
 public:
  void configChanged(const std::string& group, int groupInstance, const std::string& name,
                     int nameInstance, const std::list<std::string>& value,
                     const std::string& identity) override {
    lines.add("changed " + varText(group, groupInstance, name, nameInstance) + " " +
              listText(value) + " " + identity);
    if (onConfigChanged) onConfigChanged();
  }
  void submit(const std::string& group, int groupInstance, const std::string& name,
              int nameInstance, int kind, const std::string& identity) override {
    lines.add("submit " + varText(group, groupInstance, name, nameInstance) + " " +
              std::to_string(kind) + " " + identity);
  }
  void attributeChanged(const std::string&, int, const std::string&, int) override {
    lines.add("attribute");
  }
  void optionsChanged(const std::string& group, int groupInstance, const std::string& name,
                      int nameInstance, const std::list<std::string>& options,
                      std::string identity) override {
    lines.add("options " + varText(group, groupInstance, name, nameInstance) + " " +
              listText(options) + " " + identity);
  }
  void accessLevelsChanged(const std::string& group, int groupInstance, const std::string& name,
                           int nameInstance, AppConfig::SecurityRole readRole,
                           AppConfig::SecurityRole writeRole, std::string identity) override {
    lines.add("access " + varText(group, groupInstance, name, nameInstance) + " " +
              std::to_string(readRole) + " " + std::to_string(writeRole) + " " + identity);
  }

  Lines lines;
  std::function<void()> onConfigChanged;
};

class RecordingProvider : public ProviderConfigHandler {
 public:
  bool dynamicValidate(const std::string& group, int groupInstance, const std::string& name,
                       int nameInstance, const std::list<std::string>& value,
                       AppConfig::SecurityRole role, ConfigResult* result) override {
    lines.add("validate " + varText(group, groupInstance, name, nameInstance) + " " +
              listText(value) + " " + std::to_string(role));
    return verdict(result);
  }
  bool onChange(const std::string& group, int groupInstance, const std::string& name,
                int nameInstance, const std::list<std::string>& value, AppConfig::SecurityRole role,
                ConfigResult* result) override {
    lines.add("change " + varText(group, groupInstance, name, nameInstance) + " " +
              listText(value) + " " + std::to_string(role));
    return verdict(result);
  }

  Lines lines;
  // What both questions are answered with.
  std::function<bool(ConfigResult*)> verdict = [](ConfigResult*) { return true; };
};

}  // namespace TestSupport
