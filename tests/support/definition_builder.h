// DefinitionBuilder: definitions made in a test instead of read from files.
//
//   Definitions definitions({defined("net.mtu").ofType(ValueType::Int).withDefault({"1500"})});
#pragma once

#include <gtest/gtest.h>

#include <list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "appconfig/core/key_notation.h"
#include "configsrv/definitions/definitions.h"

namespace TestSupport {

inline ConfigVar keyOf(const std::string& text) {
  ConfigVar key("", 0, "", 0);
  EXPECT_TRUE(AppConfig::parseKey(text, key).ok()) << text;
  return key;
}

class DefinitionBuilder {
 public:
  // A string with the default "".
  explicit DefinitionBuilder(const std::string& key) : key_(keyOf(key)) {
    shape_.defaultValue = {""};
  }

  DefinitionBuilder& ofType(ConfigSrv::ValueType type) {
    shape_.type = type;
    return *this;
  }
  DefinitionBuilder& withDefault(std::list<std::string> value) {
    shape_.defaultValue = std::move(value);
    return *this;
  }
  DefinitionBuilder& withOptions(std::vector<std::string> options, std::uint32_t index = 0) {
    shape_.options = std::move(options);
    shape_.defaultIndex = index;
    return *this;
  }
  DefinitionBuilder& between(std::int64_t min, std::int64_t max) {
    shape_.min = min;
    shape_.max = max;
    return *this;
  }
  DefinitionBuilder& readBy(AppConfig::SecurityRole role) {
    shape_.readRole = role;
    return *this;
  }
  DefinitionBuilder& writtenBy(AppConfig::SecurityRole role) {
    shape_.writeRole = role;
    return *this;
  }
  DefinitionBuilder& readOnly() {
    shape_.readOnly = true;
    return *this;
  }
  DefinitionBuilder& secret() {
    shape_.secret = true;
    return *this;
  }

  operator ConfigSrv::VariableDefinition() const {
    return {key_, std::make_shared<ConfigSrv::VariableShape>(shape_)};
  }

 private:
  ConfigVar key_;
  ConfigSrv::VariableShape shape_;
};

inline DefinitionBuilder defined(const std::string& key) { return DefinitionBuilder(key); }

}  // namespace TestSupport
