// Three things go on at once: a caller sends a registration and waits for its answer, the delivery
// thread repeats it on a new connection, and notices come that say how far the client has been told.
// They are told apart by the number of the delivery connection: an answer to what was sent before the
// present one began says nothing, because the service may have been restarted in between. On one
// connection, `unanswered` counts how often a registration is on its way, and only with the last
// answer it is known to be there.
#include "platform/messaging/client/internal/kept_registrations.h"

#include <algorithm>
#include <utility>

#include "platform/messaging/internal/layer_table.h"
#include "platform/schema/registration_key.h"

namespace PbUtility {
namespace {

bool isNumber(std::uint64_t revision) {
  return revision != kRevisionNow && revision != kRevisionNone;
}

// Who knows less has to be told more.
std::uint64_t lesser(std::uint64_t a, std::uint64_t b) {
  return a == kRevisionNone || b == kRevisionNone ? kRevisionNone : std::min(a, b);
}

// For a repeat on the connection that is there: since when it wants to be told.
std::uint64_t sinceOrAll(std::uint64_t since) {
  return since == kRevisionNow ? kRevisionNone : since;
}

}  // namespace

KeptRegistrations::KeptRegistrations(const PbUtils* layer, std::string remoteName)
    : layer_(layer), remoteName_(std::move(remoteName)) {}

KeptRegistrations::Connection KeptRegistrations::keep(const std::string& key,
                                                      std::uint32_t messageId, std::string payload,
                                                      std::uint64_t epoch, std::uint64_t revision) {
  const Base::MutexLock guard(mutex_);
  // Another epoch's revision means nothing here: the service is asked for everything.
  if (epoch_ != 0 && epoch != epoch_ && isNumber(revision)) revision = kRevisionNone;
  const auto [position, isNew] = registrations_.try_emplace(key);
  Registration& registration = position->second;
  registration.messageId = messageId;
  registration.toldOnChange = PlatformSchema::isToldOnChange(messageId, payload);
  registration.payload = std::move(payload);
  // What an earlier one is still owed must not be forgotten when it is made again, nor what the
  // caller of this one did not see.
  const std::uint64_t known = isNew ? kRevisionNow : knownBy(registration);
  const bool comparable = !isNumber(known) || !isNumber(revision) || registration.epoch == epoch;
  registration.since = comparable ? lesser(known, revision) : kRevisionNone;
  registration.epoch = isNumber(revision) ? epoch : registration.epoch;
  registration.acknowledged = false;
  ++registration.unanswered;
  return connection_;
}

// Null when it was sent before this connection began: it is repeated on this one, whose answer
// counts.
KeptRegistrations::Registration* KeptRegistrations::answeredOne(const std::string& key,
                                                                Connection connection) {
  const auto found = registrations_.find(key);
  if (found == registrations_.end() || connection != connection_) return nullptr;
  Registration& registration = found->second;
  if (registration.unanswered > 0) --registration.unanswered;
  return &registration;
}

void KeptRegistrations::acknowledge(const std::string& key, Connection connection,
                                    std::uint64_t epoch, std::uint64_t revision) {
  const Base::MutexLock guard(mutex_);
  Registration* const registration = answeredOne(key, connection);
  if (registration == nullptr || (epoch_ != 0 && epoch != epoch_)) return;
  registration->acknowledgedAt = std::max(registration->acknowledgedAt, revision);
  registration->acknowledged = registration->unanswered == 0;
  noteAccepted(key, *registration);
  if (registration->since != kRevisionNow) return;
  registration->since = revision;
  registration->epoch = epoch;
}

void KeptRegistrations::refuse(const std::string& key, Connection connection,
                               const std::string& reason) {
  const Base::MutexLock guard(mutex_);
  Registration* const registration = answeredOne(key, connection);
  if (registration == nullptr) return;
  registration->refused = true;
  if (layer_ != nullptr) LayerTable::noteRefused(layer_, remoteName_, key, reason);
  if (registration->place != 0) return;
  registration->place = ++lastPlace_;
  refused_.emplace(registration->place, key);
}

void KeptRegistrations::leaveQueue(Registration& registration) {
  refused_.erase(std::exchange(registration.place, 0));
}

void KeptRegistrations::noteAccepted(const std::string& key, Registration& registration) {
  leaveQueue(registration);
  if (!std::exchange(registration.refused, false) || layer_ == nullptr) return;
  LayerTable::noteAccepted(layer_, remoteName_, key);
}

KeptRegistrations::Registrations::iterator KeptRegistrations::erase(
    Registrations::iterator position) {
  noteAccepted(position->first, position->second);
  return registrations_.erase(position);
}

void KeptRegistrations::abandon(const std::string& key, Connection connection) {
  const Base::MutexLock guard(mutex_);
  answeredOne(key, connection);
}

void KeptRegistrations::withdraw(const std::string& key) {
  const Base::MutexLock guard(mutex_);
  const auto found = registrations_.find(key);
  if (found != registrations_.end()) erase(found);
}

void KeptRegistrations::withdrawAll(const std::string& keyPrefix) {
  const Base::MutexLock guard(mutex_);
  auto position = registrations_.lower_bound(keyPrefix);
  while (position != registrations_.end() &&
         position->first.compare(0, keyPrefix.size(), keyPrefix) == 0) {
    position = erase(position);
  }
}

void KeptRegistrations::delivered(std::uint64_t revision) {
  const Base::MutexLock guard(mutex_);
  anyDelivered_ = true;
  if (revision > delivered_) delivered_ = revision;
}

void KeptRegistrations::questioned() {
  const Base::MutexLock guard(mutex_);
  questioned_ = true;
}

void KeptRegistrations::answered(std::uint64_t epoch) {
  const Base::MutexLock guard(mutex_);
  if (epoch_ != 0 && epoch != epoch_) otherEpochAnswered_ = true;
}

std::uint64_t KeptRegistrations::knownBy(const Registration& registration) const {
  const bool proven =
      registration.acknowledged && anyDelivered_ && delivered_ > registration.acknowledgedAt;
  return proven ? delivered_ : registration.since;
}

// What is known when a connection of this epoch begins.
std::uint64_t KeptRegistrations::repeatedWith(const Registration& registration,
                                              std::uint64_t epoch) const {
  if (otherEpochAnswered_ || (epoch_ != 0 && epoch != epoch_)) return kRevisionNone;
  if (registration.toldOnChange && questioned_) return kRevisionNone;
  const std::uint64_t known = knownBy(registration);
  // Made before the first connection, it may know of a service that was there before this one.
  if (known == kRevisionNow || registration.epoch != epoch) return kRevisionNone;
  return known;
}

KeptRegistrations::Repeat KeptRegistrations::repeat(const std::string& key,
                                                    Registration& registration,
                                                    std::uint64_t revision, std::uint64_t epoch) {
  registration.since = revision;
  registration.epoch = epoch;
  registration.acknowledged = false;
  registration.acknowledgedAt = 0;
  registration.unanswered = 1;
  return {key, registration.messageId, registration.payload, revision};
}

std::vector<KeptRegistrations::Repeat> KeptRegistrations::beginConnection(std::uint64_t epoch) {
  const Base::MutexLock guard(mutex_);
  std::vector<Repeat> repeats;
  repeats.reserve(registrations_.size());
  for (auto& [key, registration] : registrations_) {
    leaveQueue(registration);
    repeats.push_back(repeat(key, registration, repeatedWith(registration, epoch), epoch));
  }
  if (epoch_ != epoch) {
    anyDelivered_ = false;
    delivered_ = 0;
  }
  ++connection_;
  epoch_ = epoch;
  otherEpochAnswered_ = false;
  questioned_ = false;
  return repeats;
}

std::vector<KeptRegistrations::Repeat> KeptRegistrations::takeAbandoned() {
  const Base::MutexLock guard(mutex_);
  std::vector<Repeat> repeats;
  for (auto& [key, registration] : registrations_) {
    if (registration.acknowledged || registration.unanswered > 0) continue;
    if (registration.place != 0) continue;
    repeats.push_back(repeat(key, registration, sinceOrAll(registration.since), epoch_));
  }
  return repeats;
}

std::vector<KeptRegistrations::Repeat> KeptRegistrations::takeRefused(std::size_t atMost) {
  const Base::MutexLock guard(mutex_);
  std::vector<Repeat> repeats;
  while (repeats.size() < atMost && !refused_.empty()) {
    const std::string key = refused_.begin()->second;
    Registration& registration = registrations_.at(key);
    leaveQueue(registration);
    // Its caller has just asked again, and the answer to that counts.
    if (registration.unanswered > 0) continue;
    repeats.push_back(repeat(key, registration, sinceOrAll(registration.since), epoch_));
  }
  return repeats;
}

bool KeptRegistrations::anyRefused() const {
  const Base::MutexLock guard(mutex_);
  return !refused_.empty();
}

KeptRegistrations::Connection KeptRegistrations::connection() const {
  const Base::MutexLock guard(mutex_);
  return connection_;
}

void KeptRegistrations::copyTo(KeptRegistrations& other) const {
  const Base::MutexLock guard(mutex_);
  const Base::MutexLock otherGuard(other.mutex_);
  for (const auto& [key, registration] : registrations_) {
    Registration& copy = other.registrations_[key];
    copy = registration;
    copy.since = knownBy(registration);
    copy.acknowledged = false;
    copy.unanswered = 0;
    copy.place = 0;
  }
  other.epoch_ = epoch_;
  other.otherEpochAnswered_ = otherEpochAnswered_;
  other.questioned_ = questioned_;
}

}  // namespace PbUtility
