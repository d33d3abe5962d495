#include "configsrv/service/internal/change_batch.h"

#include <algorithm>
#include <utility>

namespace ConfigSrv {

void ChangeBatch::run(Changes& changes, const Requester& by, std::vector<StoreChange> wanted,
                      Done done) {
  const std::shared_ptr<ChangeBatch> batch(
      new ChangeBatch(changes, by, std::move(wanted), std::move(done)));
  batch->submitMore();
}

ChangeBatch::ChangeBatch(Changes& changes, Requester by, std::vector<StoreChange> wanted, Done done)
    : changes_(changes), by_(std::move(by)), wanted_(std::move(wanted)), done_(std::move(done)) {
  result_.errors.resize(wanted_.size(), eErrNone);
}

// A change may end before submit() returns; then the loop goes on, and nothing nests.
void ChangeBatch::submitMore() {
  if (std::exchange(submitting_, true)) return;
  while (next_ < wanted_.size() && underWay_ < kAtOnce) {
    const std::size_t index = next_++;
    ++underWay_;
    changes_.submit({by_, std::move(wanted_[index])},
                    [self = shared_from_this(), index](const ChangeOutcome& outcome) {
                      self->onDone(index, outcome);
                    });
  }
  submitting_ = false;
  if (next_ == wanted_.size() && underWay_ == 0) done_(result_);
}

void ChangeBatch::onDone(std::size_t index, const ChangeOutcome& outcome) {
  --underWay_;
  result_.errors[index] = outcome.error;
  result_.revision = std::max(result_.revision, outcome.revision);
  if (outcome.error == eErrNone) {
    if (!outcome.unchanged) ++result_.changed;
  } else {
    if (result_.error == eErrNone) result_.error = outcome.error;
    for (const std::string& message : outcome.messages) {
      if (result_.messages.size() < kMaxMessages) result_.messages.push_back(message);
    }
  }
  submitMore();
}

}  // namespace ConfigSrv
