// submitMore() begins changes until as many are under way as may be; each one that ends calls it again.
// After a number of changes that end at once it stops and goes on in a later turn. The last change to
// end, when no more are to be begun, calls `done`.
#include "configsrv/service/internal/change_batch.h"

#include <algorithm>
#include <utility>

namespace ConfigSrv {

void ChangeBatch::run(Changes& changes, Slices& slices, const Requester& by, Wanted wanted,
                      Done done) {
  const std::shared_ptr<ChangeBatch> batch(
      new ChangeBatch(changes, slices, by, std::move(wanted), std::move(done)));
  if (batch->take()) return batch->submitMore();
  batch->done_(batch->result_);
}

ChangeBatch::ChangeBatch(Changes& changes, Slices& slices, Requester by, Wanted wanted, Done done)
    : changes_(changes),
      slices_(slices),
      by_(std::move(by)),
      wanted_(std::move(wanted)),
      done_(std::move(done)) {}

ChangeBatch::~ChangeBatch() { changes_.release(by_.owner, taken_); }

bool ChangeBatch::take() {
  const std::size_t bytes = sizeof(ChangeBatch) + wanted_.bytes;
  const Base::Status<> room = changes_.reserve(by_.owner, bytes);
  if (room.ok()) taken_ = bytes;
  if (!room.ok()) result_.code = eErrLimit;
  result_.text = room.text;
  if (wanted_.tellsOfEach) result_.errors.resize(wanted_.count, result_.code);
  return room.ok();
}

// A change may end before submit() returns; then the loop goes on, and nothing nests.
void ChangeBatch::submitMore() {
  if (isQueued_ || std::exchange(submitting_, true)) return;
  for (std::size_t begun = 0; next_ < wanted_.count && underWay_ < kAtOnce; ++begun) {
    if (begun == kBegunInOneTurn) {
      isQueued_ = true;
      break;
    }
    const std::size_t index = next_++;
    std::optional<StoreChange> change = wanted_.nth(index);
    if (change) submit(index, std::move(*change));
  }
  submitting_ = false;
  if (isQueued_) {
    slices_.add(by_.owner.uid, [self = shared_from_this()] {
      self->isQueued_ = false;
      self->submitMore();
      return false;
    });
  } else if (next_ == wanted_.count && underWay_ == 0) {
    done_(result_);
  }
}

void ChangeBatch::submit(std::size_t index, StoreChange change) {
  ++underWay_;
  changes_.submit({by_, std::move(change)},
                  [self = shared_from_this(), index](const ChangeOutcome& outcome) {
                    self->onDone(index, outcome);
                  });
}

void ChangeBatch::onDone(std::size_t index, const ChangeOutcome& outcome) {
  --underWay_;
  if (wanted_.tellsOfEach) result_.errors[index] = outcome.code;
  result_.revision = std::max(result_.revision, outcome.revision);
  if (outcome.ok()) {
    if (!outcome.unchanged) ++result_.changed;
  } else {
    addFailure(outcome);
  }
  submitMore();
}

void ChangeBatch::addFailure(const ChangeOutcome& outcome) {
  const auto add = [this](const std::string& reason) {
    if (result_.reasons.size() + 1 < kMaxMessages) result_.reasons.push_back(reason);
  };
  if (result_.ok())
    static_cast<Base::Status<eErrorT>&>(result_) = outcome;
  else
    add(outcome.text);
  for (const std::string& reason : outcome.reasons) add(reason);
}

}  // namespace ConfigSrv
