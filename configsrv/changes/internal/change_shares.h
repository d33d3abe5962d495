// ChangeShares: how many changes, and how much memory for them, each user and process may have under
// way.
//
// Without this, a user whose provider never answers could have all changes that there may be, and
// those of everybody else would be refused.
//
// Errors:   a failure names the limit and whose it is.
// Threads:  one.
#pragma once

#include <cstddef>
#include <string>

#include "base/status.h"
#include "configsrv/changes/change.h"
#include "platform/messaging/serving/shares.h"

namespace ConfigSrv {

struct ChangesOptions;

class ChangeShares {
 public:
  // What a change takes, beside the bytes of what it carries: about its own memory, and a list node
  // or its like for each of its strings.
  static constexpr std::size_t kChangeBytes = 1024;
  static constexpr std::size_t kStringBytes = 64;

  explicit ChangeShares(const ChangesOptions& options);

  // What the change counts as in memory.
  static std::size_t bytesOf(const ChangeRequest& request);

  // For one more of the owner's.
  Base::Status<> room(PbUtility::Owner owner, std::size_t bytes) const;
  void add(PbUtility::Owner owner, std::size_t bytes);
  void remove(PbUtility::Owner owner, std::size_t bytes);

  // Bytes alone, for what belongs to several changes.
  Base::Status<> reserve(PbUtility::Owner owner, std::size_t bytes);
  void release(PbUtility::Owner owner, std::size_t bytes) { bytes_.remove(owner, bytes); }

 private:
  PbUtility::Shares count_;
  PbUtility::Shares bytes_;
};

}  // namespace ConfigSrv
