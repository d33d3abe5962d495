// ChangeBatch: several changes that one request asks for, each on its own: some may fail while
// others succeed.
//
// Only a few are under way at once, so that a reset of everything neither reaches the limits of
// changes under way nor keeps others from writing.
//
// Threads  one. Keeps itself alive until the last change has ended.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "configsrv/changes/changes.h"

namespace ConfigSrv {

class ChangeBatch : public std::enable_shared_from_this<ChangeBatch> {
 public:
  static constexpr std::size_t kAtOnce = 64;
  // Messages of failed changes that are kept; a reset of everything may fail a thousand times.
  static constexpr std::size_t kMaxMessages = 20;

  struct Result {
    // One for each change, in their order.
    std::vector<eErrorT> errors;
    // The first failure, or success.
    eErrorT error = eErrNone;
    std::vector<std::string> messages;
    std::uint32_t changed = 0;
    // The newest of the commits; 0: none.
    std::uint64_t revision = 0;
  };
  using Done = std::function<void(const Result& result)>;

  // Calls done once, perhaps before it returns.
  static void run(Changes& changes, const Requester& by, std::vector<StoreChange> wanted,
                  Done done);

 private:
  ChangeBatch(Changes& changes, Requester by, std::vector<StoreChange> wanted, Done done);

  void submitMore();
  void onDone(std::size_t index, const ChangeOutcome& outcome);

  Changes& changes_;
  const Requester by_;
  std::vector<StoreChange> wanted_;
  Done done_;
  std::size_t next_ = 0;
  std::size_t underWay_ = 0;
  bool submitting_ = false;
  Result result_;
};

}  // namespace ConfigSrv
