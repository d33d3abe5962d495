// ChangeBatch: several changes that one request asks for, each on its own: some may fail while
// others succeed.
//
// Only a few are under way at once, so that a reset of everything neither reaches the limits of
// changes under way nor keeps others from writing; and only so many are begun before the others have
// their turn. A change is made when its turn comes, so those that wait take no memory.
//
// Threads:  one. Keeps itself alive until the last change has ended.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/status.h"
#include "configsrv/changes/changes.h"
#include "configsrv/service/internal/slices.h"

namespace ConfigSrv {

class ChangeBatch : public std::enable_shared_from_this<ChangeBatch> {
 public:
  static constexpr std::size_t kAtOnce = 64;
  // Changes that are begun in one turn; most of them end at once where nothing was ever changed.
  static constexpr std::size_t kBegunInOneTurn = 256;
  // Messages of failed changes that are kept; a reset of everything may fail a thousand times.
  static constexpr std::size_t kMaxMessages = 20;

  struct Wanted {
    std::size_t count = 0;
    // The nth change; nothing when there is none to make.
    std::function<std::optional<StoreChange>(std::size_t n)> nth;
    // Bytes that have to be kept until the end; they count as the requester's share of what is under way.
    std::size_t bytes = 0;
    // Whether the result tells of each change.
    bool tellsOfEach = false;
  };

  // How the first one ended that failed, or success.
  struct Result : Base::Status<eErrorT> {
    // One for each change, in their order, where that was wanted.
    std::vector<eErrorT> errors{};
    // What else was told of it, and of later ones that failed.
    std::vector<std::string> reasons{};
    std::uint32_t changed = 0;
    // The newest of the commits; 0: none.
    std::uint64_t revision = 0;
  };
  using Done = std::function<void(const Result& result)>;

  // Calls done once, perhaps before it returns. If the requester's share of what is under way is used
  // up, nothing is begun and the code is eErrLimit.
  static void run(Changes& changes, Slices& slices, const Requester& by, Wanted wanted, Done done);

  ~ChangeBatch();
  ChangeBatch(const ChangeBatch&) = delete;
  ChangeBatch& operator=(const ChangeBatch&) = delete;

 private:
  ChangeBatch(Changes& changes, Slices& slices, Requester by, Wanted wanted, Done done);

  bool take();
  void submitMore();
  void submit(std::size_t index, StoreChange change);
  void onDone(std::size_t index, const ChangeOutcome& outcome);
  void addFailure(const ChangeOutcome& outcome);

  Changes& changes_;
  Slices& slices_;
  const Requester by_;
  const Wanted wanted_;
  Done done_;
  std::size_t taken_ = 0;
  std::size_t next_ = 0;
  std::size_t underWay_ = 0;
  bool submitting_ = false;
  // A later turn goes on with it.
  bool isQueued_ = false;
  Result result_;
};

}  // namespace ConfigSrv
