// Questions to providers as messages, and what their answers say.
//
// Threads:  plain functions.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "appconfig/core/state_stamp.h"
#include "configsrv/changes/change.h"

namespace google {
namespace protobuf {
class MessageLite;
}
}  // namespace google

namespace ConfigSrv {

enum class Phase { Validate, OnChange };

struct Question {
  Phase phase;
  // Short and unique; comes back with the answer.
  std::string serverContext;
  const ConfigVar& key;
  const std::list<std::string>& value;
  const Requester& by;
  // Of the value that holds while this is asked.
  AppConfig::StateStamp held{};
};

std::unique_ptr<google::protobuf::MessageLite> messageOf(const Question& question);

struct Answer {
  // Nothing that could be understood as an answer to this question.
  bool broken = false;
  // The provider's verdict: it refuses.
  bool refused = false;
  std::vector<std::string> messages;
};

Answer readAnswer(Phase phase, std::uint32_t messageId, std::string_view payload);

}  // namespace ConfigSrv
