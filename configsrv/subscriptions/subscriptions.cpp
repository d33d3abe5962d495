// An index by name: each registered name holds its entries, sorted so that the entries of one type
// stand together. A variable's subscribers are found by looking up its full name and each of its
// beginnings at a dot, so a million registrations elsewhere cost nothing.
//
// Entries are small (16 bytes) because a client registers for every variable that it reads: the
// texts that its registrations share, identity and client name, are kept once for each peer.
#include "configsrv/subscriptions/subscriptions.h"

#include <algorithm>
#include <tuple>
#include <unordered_map>
#include <unordered_set>

namespace ConfigSrv {
namespace {

using AppConfig::SecurityRole;
using PbUtility::PeerId;

// The texts of a peer's registrations, used by `uses` of them. A slot without uses is free.
struct Caller {
  std::string identity;
  std::string clientName;
  std::size_t uses = 0;
};

struct Entry {
  PeerId peer;
  std::uint32_t caller;
  std::uint8_t type;
  std::uint8_t role;
};

auto orderOf(const Entry& entry) {
  return std::tie(entry.type, entry.peer, entry.caller, entry.role);
}
bool operator<(const Entry& a, const Entry& b) { return orderOf(a) < orderOf(b); }

using Entries = std::vector<Entry>;
// Names and their entries; nodes do not move, so that peers can point to theirs.
using Index = std::unordered_map<std::string, Entries>;

struct PeerRecord {
  std::vector<Caller> callers;
  std::unordered_set<Index::value_type*> names;
  std::size_t registrations = 0;
};

std::uint8_t small(int number) { return static_cast<std::uint8_t>(number); }

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

std::string folded(std::string_view name) {
  std::string result(name);
  std::transform(result.begin(), result.end(), result.begin(), lower);
  return result;
}

std::string tooLong(const char* what, std::size_t bytes, std::size_t limit) {
  return std::string(what) + " of " + std::to_string(bytes) +
         " bytes is longer than the limit of " + std::to_string(limit);
}

std::string tooMany(const char* what, std::size_t limit) {
  return std::string("more ") + what + " than the limit of " + std::to_string(limit);
}

bool samePlace(const Subscriber& a, const Subscriber& b) {
  return a.peer == b.peer && a.identity == b.identity;
}

bool beforeInList(const Subscriber& a, const Subscriber& b) {
  if (a.peer != b.peer) return a.peer < b.peer;
  if (a.identity != b.identity) return a.identity < b.identity;
  return a.role > b.role;
}

}  // namespace

class Subscriptions::Impl {
 public:
  explicit Impl(SubscriptionLimits limits) : limits_(limits) {}

  std::string add(PeerId peer, const Registration& registration);
  bool remove(PeerId peer, std::string_view name, ConfigIF::CallbackType type,
              std::string_view identity);
  std::size_t removeAll(PeerId peer, std::string_view clientName);
  void forget(PeerId peer) {
    eraseWhere(peer, [](const Entry&, const Caller&) { return true; });
  }

  // Calls visit(entry) for each entry that covers the name, until it returns false.
  template <typename Visit>
  void visitCovering(std::string_view fullName, ConfigIF::CallbackType type, Visit visit) const;

  const Caller& callerOf(const Entry& entry) const {
    return peers_.at(entry.peer).callers[entry.caller];
  }
  std::vector<std::string> names(PeerId peer, ConfigIF::CallbackType type) const;
  std::size_t count() const { return count_; }
  std::size_t count(PeerId peer) const {
    const auto found = peers_.find(peer);
    return found == peers_.end() ? 0 : found->second.registrations;
  }

 private:
  static constexpr std::uint32_t kNoCaller = ~std::uint32_t{0};

  std::string checkTexts(const Registration& registration) const;
  std::string checkCounts(const PeerRecord& record) const;
  std::uint32_t findCaller(const PeerRecord& record, const Registration& registration) const;
  std::uint32_t takeCaller(PeerRecord& record, const Registration& registration) const;
  bool isKnown(const std::string& name, const Entry& entry) const;
  void insert(PeerRecord& record, const std::string& name, const Entry& entry);
  void eraseNameIfEmpty(Index::value_type* node);
  void erasePeerIfEmpty(PeerId peer);

  template <typename Predicate>
  std::size_t eraseWhere(PeerId peer, Predicate predicate);
  template <typename Predicate>
  std::size_t eraseFromName(PeerId peer, PeerRecord& record, Index::value_type* node,
                            Predicate predicate);

  const SubscriptionLimits limits_;
  Index index_;
  std::unordered_map<PeerId, PeerRecord> peers_;
  std::size_t count_ = 0;
  // Reused for each look-up, so that looking up allocates nothing.
  mutable std::string searched_;
};

std::string Subscriptions::Impl::checkTexts(const Registration& registration) const {
  if (registration.name.size() > limits_.nameBytes)
    return tooLong("a name", registration.name.size(), limits_.nameBytes);
  if (registration.identity.size() > limits_.identityBytes)
    return tooLong("a callback identity", registration.identity.size(), limits_.identityBytes);
  if (registration.clientName.size() > limits_.clientNameBytes)
    return tooLong("a client name", registration.clientName.size(), limits_.clientNameBytes);
  return {};
}

std::string Subscriptions::Impl::checkCounts(const PeerRecord& record) const {
  if (record.registrations >= limits_.registrationsPerPeer)
    return tooMany("registrations of one process", limits_.registrationsPerPeer);
  if (count_ >= limits_.registrations) return tooMany("registrations", limits_.registrations);
  return {};
}

std::uint32_t Subscriptions::Impl::findCaller(const PeerRecord& record,
                                              const Registration& registration) const {
  const auto found =
      std::find_if(record.callers.begin(), record.callers.end(), [&](const Caller& caller) {
        return caller.uses > 0 && caller.identity == registration.identity &&
               caller.clientName == registration.clientName;
      });
  return found == record.callers.end() ? kNoCaller
                                       : static_cast<std::uint32_t>(found - record.callers.begin());
}

// A free slot filled with the registration's texts; kNoCaller when the limit is reached.
std::uint32_t Subscriptions::Impl::takeCaller(PeerRecord& record,
                                              const Registration& registration) const {
  auto slot = std::find_if(record.callers.begin(), record.callers.end(),
                           [](const Caller& caller) { return caller.uses == 0; });
  if (slot == record.callers.end()) {
    if (record.callers.size() >= limits_.callersPerPeer) return kNoCaller;
    slot = record.callers.insert(slot, Caller{});
  }
  *slot = {registration.identity, registration.clientName, 0};
  return static_cast<std::uint32_t>(slot - record.callers.begin());
}

bool Subscriptions::Impl::isKnown(const std::string& name, const Entry& entry) const {
  const auto found = index_.find(name);
  return found != index_.end() &&
         std::binary_search(found->second.begin(), found->second.end(), entry);
}

void Subscriptions::Impl::insert(PeerRecord& record, const std::string& name, const Entry& entry) {
  Index::value_type& node = *index_.try_emplace(name).first;
  Entries& entries = node.second;
  entries.insert(std::lower_bound(entries.begin(), entries.end(), entry), entry);
  record.names.insert(&node);
  record.callers[entry.caller].uses++;
  record.registrations++;
  count_++;
}

std::string Subscriptions::Impl::add(PeerId peer, const Registration& registration) {
  std::string tooLongText = checkTexts(registration);
  if (!tooLongText.empty()) return tooLongText;
  const std::string name = folded(registration.name);
  PeerRecord& record = peers_[peer];
  Entry entry{peer, findCaller(record, registration), small(registration.type),
              small(registration.role)};
  if (entry.caller != kNoCaller && isKnown(name, entry)) return {};

  std::string refusal = checkCounts(record);
  if (refusal.empty() && entry.caller == kNoCaller) entry.caller = takeCaller(record, registration);
  if (refusal.empty() && entry.caller == kNoCaller)
    refusal = tooMany("callback identities of one process", limits_.callersPerPeer);
  if (refusal.empty())
    insert(record, name, entry);
  else
    erasePeerIfEmpty(peer);
  return refusal;
}

void Subscriptions::Impl::eraseNameIfEmpty(Index::value_type* node) {
  if (node->second.empty()) index_.erase(index_.find(node->first));
}

void Subscriptions::Impl::erasePeerIfEmpty(PeerId peer) {
  const auto found = peers_.find(peer);
  if (found != peers_.end() && found->second.registrations == 0) peers_.erase(found);
}

// Erases the peer's entries at one name for which predicate(entry, caller) holds. The caller takes
// the name out of the peer's record when none is left.
template <typename Predicate>
std::size_t Subscriptions::Impl::eraseFromName(PeerId peer, PeerRecord& record,
                                               Index::value_type* node, Predicate predicate) {
  Entries& entries = node->second;
  const auto erased = [&](const Entry& entry) {
    if (entry.peer != peer || !predicate(entry, record.callers[entry.caller])) return false;
    record.callers[entry.caller].uses--;
    return true;
  };
  const auto end = std::remove_if(entries.begin(), entries.end(), erased);
  const auto removed = static_cast<std::size_t>(entries.end() - end);
  entries.erase(end, entries.end());
  record.registrations -= removed;
  count_ -= removed;
  return removed;
}

namespace {

bool holdsEntryOf(const Entries& entries, PeerId peer) {
  return std::any_of(entries.begin(), entries.end(),
                     [&](const Entry& entry) { return entry.peer == peer; });
}

}  // namespace

template <typename Predicate>
std::size_t Subscriptions::Impl::eraseWhere(PeerId peer, Predicate predicate) {
  const auto found = peers_.find(peer);
  if (found == peers_.end()) return 0;
  PeerRecord& record = found->second;
  std::size_t removed = 0;
  for (auto name = record.names.begin(); name != record.names.end();) {
    Index::value_type* node = *name;
    removed += eraseFromName(peer, record, node, predicate);
    name = holdsEntryOf(node->second, peer) ? std::next(name) : record.names.erase(name);
    eraseNameIfEmpty(node);
  }
  erasePeerIfEmpty(peer);
  return removed;
}

bool Subscriptions::Impl::remove(PeerId peer, std::string_view name, ConfigIF::CallbackType type,
                                 std::string_view identity) {
  const auto foundPeer = peers_.find(peer);
  const auto foundName = index_.find(folded(name));
  if (foundPeer == peers_.end() || foundName == index_.end()) return false;
  Index::value_type* node = &*foundName;
  PeerRecord& record = foundPeer->second;
  const std::size_t removed =
      eraseFromName(peer, record, node, [&](const Entry& entry, const Caller& caller) {
        return entry.type == small(type) && caller.identity == identity;
      });
  if (!holdsEntryOf(node->second, peer)) record.names.erase(node);
  eraseNameIfEmpty(node);
  erasePeerIfEmpty(peer);
  return removed > 0;
}

std::size_t Subscriptions::Impl::removeAll(PeerId peer, std::string_view clientName) {
  return eraseWhere(
      peer, [&](const Entry&, const Caller& caller) { return caller.clientName == clientName; });
}

template <typename Visit>
void Subscriptions::Impl::visitCovering(std::string_view fullName, ConfigIF::CallbackType type,
                                        Visit visit) const {
  std::size_t length = 0;
  while (true) {
    searched_.assign(fullName.data(), length);
    const auto found = index_.find(searched_);
    if (found != index_.end()) {
      const Entries& entries = found->second;
      const Entry first{0, 0, small(type), 0};
      for (auto entry = std::lower_bound(entries.begin(), entries.end(), first);
           entry != entries.end() && entry->type == small(type); ++entry) {
        if (!visit(*entry)) return;
      }
    }
    if (length == fullName.size()) return;
    // The next beginning ends before the next dot, or is the whole name.
    length = std::min(fullName.find('.', length + 1), fullName.size());
  }
}

std::vector<std::string> Subscriptions::Impl::names(PeerId peer,
                                                    ConfigIF::CallbackType type) const {
  std::vector<std::string> names;
  const auto found = peers_.find(peer);
  if (found == peers_.end()) return names;
  const auto wanted = [&](const Entry& entry) {
    return entry.peer == peer && entry.type == small(type);
  };
  for (const Index::value_type* node : found->second.names) {
    const Entries& entries = node->second;
    if (std::any_of(entries.begin(), entries.end(), wanted)) names.push_back(node->first);
  }
  std::sort(names.begin(), names.end());
  return names;
}

Subscriptions::Subscriptions(SubscriptionLimits limits) : impl_(std::make_unique<Impl>(limits)) {}
Subscriptions::~Subscriptions() = default;

std::string Subscriptions::add(PeerId peer, const Registration& registration) {
  return impl_->add(peer, registration);
}

bool Subscriptions::remove(PeerId peer, std::string_view name, ConfigIF::CallbackType type,
                           std::string_view identity) {
  return impl_->remove(peer, name, type, identity);
}

std::size_t Subscriptions::removeAll(PeerId peer, std::string_view clientName) {
  return impl_->removeAll(peer, clientName);
}

void Subscriptions::forget(PeerId peer) { impl_->forget(peer); }

std::vector<Subscriber> Subscriptions::covering(std::string_view fullName,
                                                ConfigIF::CallbackType type) const {
  std::vector<Subscriber> result;
  impl_->visitCovering(fullName, type, [&](const Entry& entry) {
    const Caller& caller = impl_->callerOf(entry);
    result.push_back(
        {entry.peer, caller.identity, caller.clientName, static_cast<SecurityRole>(entry.role)});
    return true;
  });
  std::sort(result.begin(), result.end(), beforeInList);
  result.erase(std::unique(result.begin(), result.end(), samePlace), result.end());
  return result;
}

bool Subscriptions::anyCovering(std::string_view fullName, ConfigIF::CallbackType type) const {
  bool any = false;
  impl_->visitCovering(fullName, type, [&](const Entry&) {
    any = true;
    return false;
  });
  return any;
}

std::vector<std::string> Subscriptions::names(PeerId peer, ConfigIF::CallbackType type) const {
  return impl_->names(peer, type);
}

std::size_t Subscriptions::count() const { return impl_->count(); }
std::size_t Subscriptions::count(PeerId peer) const { return impl_->count(peer); }

}  // namespace ConfigSrv
