// Most events leave one connection to flush: it is handed out as it is. Several are sorted and become
// a batch, which is handed out one by one, while new ones gather for the next. The crowd knows
// connections by their keys, because some may be gone by their turn.
#include "platform/messaging/serving/internal/flush_queue.h"

#include "platform/messaging/serving/internal/peer_table.h"

namespace PbUtility {
namespace {

constexpr int kToldBeforeAnswers = 8;

}  // namespace

Connection* FlushQueue::nextOfMany() {
  if (isBatchDone()) makeBatch();
  return isBatchDone() ? nullptr : batch_[next_++];
}

void FlushQueue::makeBatch() {
  sort();
  batch_.swap(due_);
  due_.clear();
  next_ = 0;
  if (batch_.size() <= kAtOnce) return;
  const auto rest = batch_.begin() + static_cast<std::ptrdiff_t>(kAtOnce);
  std::for_each(rest, batch_.end(), [this](const Connection* one) { crowd_.push_back(one->key); });
  batch_.erase(rest, batch_.end());
}

// The first few who are told of a change hear of it before its writer does, whose answer would only
// hold up their messages; but a writer does not wait for a crowd, nor for what it is told itself.
void FlushQueue::sort() {
  for (Connection* one : due_) one->peer->isAnswered |= one->use == ConnectionUse::Requests;
  int told = 0;
  const auto comesFirst = [&told](const Connection* one) {
    return !one->peer->isAnswered && ++told <= kToldBeforeAnswers;
  };
  const auto isAnswer = [](const Connection* one) { return one->use == ConnectionUse::Requests; };
  const auto others = std::stable_partition(due_.begin(), due_.end(), comesFirst);
  std::stable_partition(others, due_.end(), isAnswer);
  for (Connection* one : due_) one->peer->isAnswered = false;
}

// From the crowd nothing has to be removed: see above.
void FlushQueue::remove(const Connection& connection) {
  due_.erase(std::remove(due_.begin(), due_.end(), &connection), due_.end());
}

std::uint64_t FlushQueue::nextOfCrowd() {
  const std::uint64_t key = crowd_.front();
  crowd_.pop_front();
  return key;
}

}  // namespace PbUtility
