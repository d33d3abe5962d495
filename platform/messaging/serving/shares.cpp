// Two maps count what each user and each process holds, and two sums what all do. Root and the service's
// own user are counted by process and in the sum of all, but have no share as users.
#include "platform/messaging/serving/shares.h"

#include <utility>

namespace PbUtility {
namespace {

template <typename Key>
std::size_t count(const std::unordered_map<Key, std::size_t>& counts, Key key) {
  const auto found = counts.find(key);
  return found == counts.end() ? 0 : found->second;
}

// Keys that hold nothing and are kept all the same.
constexpr std::size_t kKeptEmpty = 64;

// A key that holds nothing is forgotten, for processes come and go; but not while they are few: one
// that takes and gives back all the time would be made anew each time.
template <typename Key>
void subtract(std::unordered_map<Key, std::size_t>& counts, Key key, std::size_t amount) {
  const auto found = counts.find(key);
  if (found == counts.end()) return;
  found->second -= amount;
  if (found->second == 0 && counts.size() > kKeptEmpty) counts.erase(found);
}

bool fits(std::size_t present, std::size_t amount, std::size_t limit) {
  return present <= limit && amount <= limit - present;
}

}  // namespace

Shares::Shares(std::string name, ShareLimits limits, uid_t own)
    : name_(std::move(name)), limits_(limits), own_(own) {}

Shares::Limit Shares::passed(Owner owner, std::size_t amount) const {
  if (!fits(ofProcess(owner.pid), amount, limits_.perProcess)) return Limit::Process;
  if (isOrdinary(owner) && !fits(ofUser(owner.uid), amount, limits_.perUser)) return Limit::User;
  if (isOrdinary(owner) && !fits(ordinary_, amount, limits_.ordinary)) return Limit::Ordinary;
  return fits(all_, amount, limits_.all) ? Limit::None : Limit::All;
}

Base::Status<> Shares::room(Owner owner, std::size_t amount) const {
  const auto past = [this](std::size_t limit, const std::string& whose) {
    return Base::failed("no more than " + std::to_string(limit) + " " + name_ + " " + whose);
  };
  switch (passed(owner, amount)) {
    case Limit::None:
      break;
    case Limit::Process:
      return past(limits_.perProcess,
                  "for one process, and process " + std::to_string(owner.pid) + " has its share");
    case Limit::User:
      return past(limits_.perUser,
                  "for one user, and user " + std::to_string(owner.uid) + " has its share");
    case Limit::Ordinary:
      return past(limits_.ordinary,
                  "for all users together, save root and the service's own, and they have them");
    case Limit::All:
      return past(limits_.all, "in all, and they are in use");
  }
  return {};
}

void Shares::add(Owner owner, std::size_t amount) {
  if (amount == 0) return;
  all_ += amount;
  countOf(owner.pid) += amount;
  if (!isOrdinary(owner)) return;
  ordinary_ += amount;
  byUser_[owner.uid] += amount;
}

void Shares::remove(Owner owner, std::size_t amount) {
  if (amount == 0) return;
  all_ -= amount;
  std::size_t& left = countOf(owner.pid);
  left -= amount;
  if (left == 0 && byProcess_.size() > kKeptEmpty) {
    byProcess_.erase(owner.pid);
    latest_ = nullptr;
  }
  if (!isOrdinary(owner)) return;
  ordinary_ -= amount;
  subtract(byUser_, owner.uid, amount);
}

std::size_t Shares::ofUser(uid_t uid) const { return count(byUser_, uid); }
std::size_t Shares::ofProcess(pid_t pid) const {
  return latest_ != nullptr && latestPid_ == pid ? *latest_ : count(byProcess_, pid);
}

std::size_t& Shares::countOf(pid_t pid) {
  if (latest_ == nullptr || latestPid_ != pid) {
    latest_ = &byProcess_[pid];
    latestPid_ = pid;
  }
  return *latest_;
}

}  // namespace PbUtility
