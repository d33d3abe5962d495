#include "platform/messaging/internal/kept_registrations.h"

namespace PbUtility {

void KeptRegistrations::keep(const std::string& key, std::uint32_t messageId, std::string payload,
                             std::uint64_t epoch, std::uint64_t revision) {
  const std::lock_guard<std::mutex> guard(mutex_);
  // Another epoch's revision means nothing here: the service is asked for everything.
  if (epoch_ != 0 && epoch != epoch_ && revision != kRevisionNow) revision = kRevisionNone;
  const auto [position, isNew] = registrations_.try_emplace(key);
  position->second.messageId = messageId;
  position->second.payload = std::move(payload);
  // What an earlier one is still owed must not be forgotten when it is made again.
  if (isNew) position->second.since = revision;
}

void KeptRegistrations::acknowledge(const std::string& key, std::uint64_t epoch,
                                    std::uint64_t revision) {
  const std::lock_guard<std::mutex> guard(mutex_);
  const auto found = registrations_.find(key);
  if (found == registrations_.end() || (epoch_ != 0 && epoch != epoch_)) return;
  Registration& registration = found->second;
  if (registration.acknowledged) registration.since = knownBy(registration);
  registration.acknowledged = true;
  registration.acknowledgedAt = revision;
  if (registration.since == kRevisionNow) registration.since = revision;
}

void KeptRegistrations::withdraw(const std::string& key) {
  const std::lock_guard<std::mutex> guard(mutex_);
  registrations_.erase(key);
}

void KeptRegistrations::withdrawAll(const std::string& keyPrefix) {
  const std::lock_guard<std::mutex> guard(mutex_);
  auto position = registrations_.lower_bound(keyPrefix);
  while (position != registrations_.end() &&
         position->first.compare(0, keyPrefix.size(), keyPrefix) == 0) {
    position = registrations_.erase(position);
  }
}

void KeptRegistrations::delivered(std::uint64_t revision) {
  const std::lock_guard<std::mutex> guard(mutex_);
  anyDelivered_ = true;
  if (revision > delivered_) delivered_ = revision;
}

std::uint64_t KeptRegistrations::knownBy(const Registration& registration) const {
  if (!anyDelivered_) return registration.since;
  // Equal is not enough: of two notices of one revision the second may have been lost.
  if (registration.acknowledged && delivered_ > registration.acknowledgedAt) return delivered_;
  return registration.since == kRevisionNow ? delivered_ : registration.since;
}

std::vector<KeptRegistrations::Repeat> KeptRegistrations::beginConnection(std::uint64_t epoch) {
  const std::lock_guard<std::mutex> guard(mutex_);
  const bool sameEpoch = epoch_ == 0 || epoch == epoch_;
  std::vector<Repeat> repeats;
  repeats.reserve(registrations_.size());
  for (auto& [key, registration] : registrations_) {
    registration.since = sameEpoch ? knownBy(registration) : kRevisionNone;
    registration.acknowledged = false;
    repeats.push_back({key, registration.messageId, registration.payload, registration.since});
  }
  if (!sameEpoch) {
    anyDelivered_ = false;
    delivered_ = 0;
  }
  epoch_ = epoch;
  return repeats;
}

std::size_t KeptRegistrations::size() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return registrations_.size();
}

void KeptRegistrations::copyTo(KeptRegistrations& other) const {
  const std::lock_guard<std::mutex> guard(mutex_);
  for (const auto& [key, registration] : registrations_) {
    other.registrations_[key] = {registration.messageId, registration.payload,
                                 knownBy(registration), 0, false};
  }
  other.epoch_ = epoch_;
}

}  // namespace PbUtility
