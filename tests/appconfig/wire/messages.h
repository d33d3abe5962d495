// What the tests of the wire share: messages written out by hand, and comparing whole messages.
#pragma once

#include <google/protobuf/message_lite.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <initializer_list>
#include <string>
#include <utility>

#include "platform/schema/config_if.pb.h"

namespace AppConfig {

using Path = std::initializer_list<std::pair<std::string, int>>;

inline void setPath(ConfigIF::Inst* inst, Path path) {
  inst->clear_path();
  for (const auto& [name, instance] : path) {
    ConfigIF::Node* node = inst->add_path();
    node->set_name(name);
    node->set_instance(instance);
  }
}

inline ConfigIF::Inst instOf(Path path) {
  ConfigIF::Inst inst;
  setPath(&inst, path);
  return inst;
}

inline std::string hexOf(const std::string& bytes) {
  std::string hex;
  for (const char c : bytes) {
    char digits[4];
    std::snprintf(digits, sizeof digits, "%02x ",
                  static_cast<unsigned>(static_cast<unsigned char>(c)));
    hex += digits;
  }
  return hex;
}

// Whole messages: every value, their order and which fields are present. A field set to its default
// differs from an absent one.
inline void expectSame(const google::protobuf::MessageLite& actual,
                       const google::protobuf::MessageLite& expected) {
  EXPECT_EQ(actual.GetTypeName(), expected.GetTypeName());
  EXPECT_EQ(hexOf(actual.SerializeAsString()), hexOf(expected.SerializeAsString()))
      << actual.GetTypeName();
}

}  // namespace AppConfig
