#include "platform/messaging/serving/internal/buffers.h"

#include <utility>

namespace PbUtility {

Buffers::Buffers(ShareLimits limits, uid_t own)
    : shares_("bytes of unread answers, unread notices and unfinished frames", limits, own) {}

void Buffers::change(Account& account, std::size_t bytes) {
  const std::size_t before = std::exchange(account.bytes, bytes);
  if (before == 0) accounts_.insert(&account);
  if (bytes == 0) accounts_.erase(&account);
  if (bytes < before) return shares_.remove(account.owner, before - bytes);
  shares_.add(account.owner, bytes - before);
  if (shares_.passed(account.owner) != Shares::Limit::None) grown_.push_back(account.owner);
}

bool Buffers::fits(const Account& account, std::size_t more) const {
  const Shares::Limit limit = shares_.passed(account.owner, more);
  return limit != Shares::Limit::Process && limit != Shares::Limit::User;
}

std::optional<Buffers::Excess> Buffers::excess() {
  for (; !grown_.empty(); grown_.pop_back()) {
    const Owner owner = grown_.back();
    const Shares::Limit limit = shares_.passed(owner);
    const Account* most = limit == Shares::Limit::None ? nullptr : greediest(owner, limit);
    if (most != nullptr) return Excess{most->connection, shares_.room(owner, 0).text};
  }
  return std::nullopt;
}

const Buffers::Account* Buffers::greediest(Owner owner, Shares::Limit limit) const {
  const auto isAsked = [&](Owner one) {
    if (limit == Shares::Limit::Process) return one.pid == owner.pid;
    if (limit == Shares::Limit::User) return one.uid == owner.uid;
    return limit == Shares::Limit::All || shares_.isOrdinary(one);
  };
  // Of a limit that several share, first whoever holds most in all.
  const auto rank = [&](const Account& one) {
    std::size_t ofOwner = 0;
    if (limit == Shares::Limit::Ordinary) ofOwner = shares_.ofUser(one.owner.uid);
    if (limit == Shares::Limit::All) ofOwner = shares_.ofProcess(one.owner.pid);
    return std::pair(ofOwner, one.bytes);
  };
  const Account* most = nullptr;
  for (const Account* one : accounts_) {
    if (isAsked(one->owner) && (most == nullptr || rank(*one) > rank(*most))) most = one;
  }
  return most;
}

}  // namespace PbUtility
