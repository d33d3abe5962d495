// OpenMessages: the requests and questions that are to be answered, as far as monitors need to know
// them when the answer comes: whose they are and which variables they are about, not their values.
//
// How much is open, and for how long, is up to clients: so it is shared out. What goes past its
// owner's share is not remembered, and its answer is then not reported.
//
// Threads:  one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <tuple>

#include "configsrv/monitor/internal/facts.h"
#include "platform/messaging/serving/peer.h"
#include "platform/messaging/serving/shares.h"

namespace ConfigSrv {

struct OpenMessage {
  PbUtility::Peer peer;
  // Without values and texts.
  Facts facts;
  std::string message;
  bool answered = false;
};

class OpenMessages {
 public:
  enum class Kind { Request, Question };
  // A request's connection and sequence, or a question's peer and number.
  using Key = std::tuple<Kind, std::uint64_t, std::uint32_t>;

  // What one takes, beside its names.
  static constexpr std::size_t kOpenBytes = 512;
  static constexpr std::size_t kVariableBytes = 128;

  OpenMessages(PbUtility::ShareLimits limits, uid_t own);

  // One that stands there under the same key is forgotten.
  void remember(const Key& key, const PbUtility::Peer& peer, const Facts& facts,
                const std::string& message);
  // Null when it is not known.
  OpenMessage* find(const Key& key);
  std::optional<OpenMessage> take(const Key& key);
  void clear();

 private:
  PbUtility::Shares bytes_;
  std::map<Key, OpenMessage> open_;
};

}  // namespace ConfigSrv
