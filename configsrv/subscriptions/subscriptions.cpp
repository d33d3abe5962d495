// An index by name: each registered name holds its entries, sorted so that the entries of one type
// stand together. A variable's subscribers are found by looking up its full name and each of its
// beginnings at a dot, so a million registrations elsewhere cost nothing.
//
// Entries are small (8 bytes) because a client registers for every variable that it reads: what its
// registrations share, the peer, the identity and the client name, is kept once, as their caller. A
// caller knows the names of its entries. To withdraw all of its registrations, or those of a peer that
// is gone, is to mark callers: their entries count no more, and are erased in slices. Whoever registers
// again meanwhile, under the same texts, is another caller.
#include "configsrv/subscriptions/subscriptions.h"

#include <algorithm>
#include <array>
#include <deque>
#include <set>
#include <unordered_map>

#include "appconfig/core/lower_case.h"
#include "configsrv/subscriptions/internal/name_table.h"

namespace ConfigSrv {
namespace {

using AppConfig::lowerCase;
using AppConfig::SecurityRole;
using PbUtility::Owner;
using PbUtility::PeerId;
using Node = NameTable::Node;

using CallerNumber = std::uint32_t;
constexpr CallerNumber kNoCaller = ~CallerNumber{0};
// Types of callbacks are numbers below this.
constexpr std::size_t kTypes = 8;

// Whose registrations these are, under which texts.
struct Caller {
  PeerId peer = 0;
  Owner owner;
  std::string identity;
  std::string clientName;
  // What it registered counts.
  bool isActive = true;
  // A tree and not a hash table: one of a hundred thousand would move all of them when it grows.
  std::set<Node*> names;
  std::size_t registrations = 0;
  std::array<std::uint32_t, kTypes> ofType{};
};

struct PeerRecord {
  // The active ones.
  std::vector<CallerNumber> callers;
  // With those that are still to be erased.
  std::size_t registrations = 0;
};

std::uint8_t small(int number) { return static_cast<std::uint8_t>(number); }

std::uint32_t& countOf(Caller& caller, std::uint8_t type) { return caller.ofType[type]; }

Base::Status<> tooLong(const char* what, std::size_t bytes, std::size_t limit) {
  return Base::failed(std::string(what) + " of " + std::to_string(bytes) +
                      " bytes is longer than the limit of " + std::to_string(limit));
}

Base::Status<> tooMany(const char* what, std::size_t limit) {
  return Base::failed(std::string("more ") + what + " than the limit of " + std::to_string(limit));
}

std::size_t bytesOfOne(const Node& node) {
  return SubscriptionLimits::kRegistrationBytes + node.first.text.size();
}

std::size_t bytesOf(const Registration& registration) {
  return SubscriptionLimits::kRegistrationBytes + registration.name.size();
}

std::size_t bytesOfCaller(const std::string& identity, const std::string& clientName) {
  return SubscriptionLimits::kCallerBytes + identity.size() + clientName.size();
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
  Impl(SubscriptionLimits limits, uid_t own, Later later)
      : limits_(limits),
        bytes_("bytes of registrations", limits.bytes, own),
        later_(std::move(later)) {}

  Base::Status<> add(PeerId peer, Owner owner, const Registration& registration);
  bool remove(PeerId peer, std::string_view name, ConfigIF::CallbackType type,
              std::string_view identity);
  std::size_t removeAll(PeerId peer, std::string_view clientName);
  void forget(PeerId peer);

  // Calls visit(entry, caller) for each entry that covers the name and counts, until it returns
  // false.
  template <typename Visit>
  void visitCovering(std::string_view fullName, ConfigIF::CallbackType type, Visit visit) const;

  bool contains(PeerId peer, const Registration& registration) const;
  std::vector<std::string> names(PeerId peer, ConfigIF::CallbackType type) const;
  std::size_t count() const { return count_; }
  std::size_t count(PeerId peer) const {
    const auto found = peers_.find(peer);
    return found == peers_.end() ? 0 : found->second.registrations;
  }
  const PbUtility::Shares& bytes() const { return bytes_; }
  bool isErasing() const { return !leaving_.empty(); }
  Base::Status<> reserve(Owner owner, std::size_t bytes) {
    Base::Status<> room = bytes_.room(owner, bytes);
    if (room.ok()) bytes_.add(owner, bytes);
    return room;
  }
  void release(Owner owner, std::size_t bytes) { bytes_.remove(owner, bytes); }

 private:
  Base::Status<> checkTexts(const Registration& registration) const;
  Base::Status<> roomFor(PeerId peer, Owner owner, const Registration& registration,
                         bool isNewCaller) const;
  CallerNumber findCaller(PeerId peer, const Registration& registration) const;
  CallerNumber newCaller(PeerId peer, Owner owner, const Registration& registration);
  void insert(CallerNumber number, const std::string& name, Entry entry);
  // Takes what was erased at a name off the counts.
  void uncount(Caller& caller, const Node& node, std::uint8_t type, std::size_t count);
  void dropName(CallerNumber number, Node& node);
  void dropCaller(CallerNumber number);
  void dropPeerIfEmpty(PeerId peer);

  void deactivate(CallerNumber number);
  void eraseLater();
  void eraseSlice();
  std::size_t eraseOneName(CallerNumber number);

  const SubscriptionLimits limits_;
  NameTable names_;
  // By number; null where a number is free.
  std::vector<std::unique_ptr<Caller>> callers_;
  std::vector<CallerNumber> freeNumbers_;
  std::unordered_map<PeerId, PeerRecord> peers_;
  std::size_t count_ = 0;
  PbUtility::Shares bytes_;
  // Callers whose entries are to be erased.
  std::deque<CallerNumber> leaving_;
  const Later later_;
  bool isScheduled_ = false;
};

// --- Adding ---

Base::Status<> Subscriptions::Impl::checkTexts(const Registration& registration) const {
  if (static_cast<std::size_t>(registration.type) >= kTypes)
    return Base::failed("there is no callback type " + std::to_string(registration.type));
  if (registration.name.size() > limits_.nameBytes)
    return tooLong("a name", registration.name.size(), limits_.nameBytes);
  if (registration.identity.size() > limits_.identityBytes)
    return tooLong("a callback identity", registration.identity.size(), limits_.identityBytes);
  if (registration.clientName.size() > limits_.clientNameBytes)
    return tooLong("a client name", registration.clientName.size(), limits_.clientNameBytes);
  return {};
}

Base::Status<> Subscriptions::Impl::roomFor(PeerId peer, Owner owner,
                                            const Registration& registration,
                                            bool isNewCaller) const {
  const auto found = peers_.find(peer);
  const bool isKnown = found != peers_.end();
  if (isKnown && found->second.registrations >= limits_.registrationsPerPeer)
    return tooMany("registrations of one process", limits_.registrationsPerPeer);
  if (count_ >= limits_.registrations) return tooMany("registrations", limits_.registrations);
  if (isNewCaller && isKnown && found->second.callers.size() >= limits_.callersPerPeer)
    return tooMany("callback identities of one process", limits_.callersPerPeer);
  const std::size_t forCaller =
      isNewCaller ? bytesOfCaller(registration.identity, registration.clientName) : 0;
  return bytes_.room(owner, bytesOf(registration) + forCaller);
}

CallerNumber Subscriptions::Impl::findCaller(PeerId peer, const Registration& registration) const {
  const auto found = peers_.find(peer);
  if (found == peers_.end()) return kNoCaller;
  for (const CallerNumber number : found->second.callers) {
    const Caller& caller = *callers_[number];
    if (caller.identity == registration.identity && caller.clientName == registration.clientName)
      return number;
  }
  return kNoCaller;
}

CallerNumber Subscriptions::Impl::newCaller(PeerId peer, Owner owner,
                                            const Registration& registration) {
  auto caller = std::make_unique<Caller>();
  caller->peer = peer;
  caller->owner = owner;
  caller->identity = registration.identity;
  caller->clientName = registration.clientName;
  bytes_.add(owner, bytesOfCaller(caller->identity, caller->clientName));
  if (freeNumbers_.empty()) {
    freeNumbers_.push_back(static_cast<CallerNumber>(callers_.size()));
    callers_.emplace_back();
  }
  const CallerNumber number = freeNumbers_.back();
  freeNumbers_.pop_back();
  callers_[number] = std::move(caller);
  peers_[peer].callers.push_back(number);
  return number;
}

void Subscriptions::Impl::insert(CallerNumber number, const std::string& name, Entry entry) {
  Caller& caller = *callers_[number];
  entry.caller = number;
  Node& node = names_.at(name);
  NameTable::insert(node, entry);
  caller.names.insert(&node);
  ++caller.registrations;
  ++countOf(caller, entry.type);
  ++peers_[caller.peer].registrations;
  ++count_;
  bytes_.add(caller.owner, bytesOfOne(node));
}

bool Subscriptions::Impl::contains(PeerId peer, const Registration& registration) const {
  const CallerNumber caller = findCaller(peer, registration);
  const Node* node =
      caller == kNoCaller ? nullptr : names_.find(lowerCase(std::string(registration.name)));
  const Entry entry{caller, small(registration.type), small(registration.role)};
  return node != nullptr && std::binary_search(node->second.begin(), node->second.end(), entry);
}

Base::Status<> Subscriptions::Impl::add(PeerId peer, Owner owner,
                                        const Registration& registration) {
  Base::Status<> added = checkTexts(registration);
  if (!added.ok() || contains(peer, registration)) return added;
  const CallerNumber known = findCaller(peer, registration);
  added = roomFor(peer, owner, registration, known == kNoCaller);
  if (!added.ok()) return added;
  insert(known == kNoCaller ? newCaller(peer, owner, registration) : known,
         lowerCase(std::string(registration.name)),
         {0, small(registration.type), small(registration.role)});
  return added;
}

// --- Erasing ---

void Subscriptions::Impl::uncount(Caller& caller, const Node& node, std::uint8_t type,
                                  std::size_t count) {
  caller.registrations -= count;
  countOf(caller, type) -= static_cast<std::uint32_t>(count);
  count_ -= count;
  bytes_.remove(caller.owner, count * bytesOfOne(node));
  const auto peer = peers_.find(caller.peer);
  if (peer != peers_.end()) peer->second.registrations -= count;
}

// Separates caller and name once no entry of the caller is left there.
void Subscriptions::Impl::dropName(CallerNumber number, Node& node) {
  if (NameTable::hasAnyOf(node, number)) return;
  callers_[number]->names.erase(&node);
  names_.dropIfEmpty(node);
}

void Subscriptions::Impl::dropCaller(CallerNumber number) {
  const std::unique_ptr<Caller> caller = std::move(callers_[number]);
  bytes_.remove(caller->owner, bytesOfCaller(caller->identity, caller->clientName));
  freeNumbers_.push_back(number);
  const auto peer = peers_.find(caller->peer);
  if (peer == peers_.end()) return;
  std::vector<CallerNumber>& all = peer->second.callers;
  all.erase(std::remove(all.begin(), all.end(), number), all.end());
  dropPeerIfEmpty(caller->peer);
}

void Subscriptions::Impl::dropPeerIfEmpty(PeerId peer) {
  const auto found = peers_.find(peer);
  if (found != peers_.end() && found->second.callers.empty() && found->second.registrations == 0)
    peers_.erase(found);
}

bool Subscriptions::Impl::remove(PeerId peer, std::string_view name, ConfigIF::CallbackType type,
                                 std::string_view identity) {
  const auto found = peers_.find(peer);
  if (found == peers_.end()) return false;
  const std::string wanted = lowerCase(std::string(name));
  bool any = false;
  const std::vector<CallerNumber> callers = found->second.callers;
  for (const CallerNumber number : callers) {
    Caller& caller = *callers_[number];
    Node* node = caller.identity == identity ? names_.find(wanted) : nullptr;
    const std::size_t count = node == nullptr ? 0 : NameTable::erase(*node, number, small(type));
    if (count == 0) continue;
    any = true;
    uncount(caller, *node, small(type), count);
    dropName(number, *node);
    if (caller.registrations == 0) dropCaller(number);
  }
  return any;
}

// --- Erasing later ---

void Subscriptions::Impl::deactivate(CallerNumber number) {
  callers_[number]->isActive = false;
  leaving_.push_back(number);
}

std::size_t Subscriptions::Impl::removeAll(PeerId peer, std::string_view clientName) {
  const auto found = peers_.find(peer);
  if (found == peers_.end()) return 0;
  std::vector<CallerNumber>& all = found->second.callers;
  std::size_t withdrawn = 0;
  const auto isKept = [&](CallerNumber number) {
    return callers_[number]->clientName != clientName;
  };
  const auto theirs = std::stable_partition(all.begin(), all.end(), isKept);
  for (auto number = theirs; number != all.end(); ++number) {
    withdrawn += callers_[*number]->registrations;
    deactivate(*number);
  }
  all.erase(theirs, all.end());
  eraseLater();
  return withdrawn;
}

void Subscriptions::Impl::forget(PeerId peer) {
  const auto found = peers_.find(peer);
  if (found == peers_.end()) return;
  for (const CallerNumber number : found->second.callers) deactivate(number);
  peers_.erase(found);
  eraseLater();
}

void Subscriptions::Impl::eraseLater() {
  if (!later_) {
    while (!leaving_.empty()) eraseSlice();
  } else if (!leaving_.empty() && !isScheduled_) {
    isScheduled_ = true;
    later_(callers_[leaving_.front()]->owner.uid, [this] {
      isScheduled_ = false;
      eraseSlice();
      eraseLater();
    });
  }
}

void Subscriptions::Impl::eraseSlice() {
  for (std::size_t done = 0; done < SubscriptionLimits::kErasedAtOnce && !leaving_.empty();) {
    const CallerNumber number = leaving_.front();
    done += eraseOneName(number);
    if (!callers_[number]->names.empty()) continue;
    leaving_.pop_front();
    dropCaller(number);
  }
}

// How much work it was.
std::size_t Subscriptions::Impl::eraseOneName(CallerNumber number) {
  Caller& caller = *callers_[number];
  if (caller.names.empty()) return 1;
  Node& node = **caller.names.begin();
  const std::size_t each = 1 + node.second.size() / SubscriptionLimits::kMovedForOne;
  const std::size_t before = caller.registrations;
  for (std::uint8_t type = 0; type < kTypes; ++type) {
    if (countOf(caller, type) > 0)
      uncount(caller, node, type, NameTable::erase(node, number, type));
  }
  const std::size_t erased = before - caller.registrations;
  dropName(number, node);
  return erased * each;
}

// --- Finding ---

template <typename Visit>
void Subscriptions::Impl::visitCovering(std::string_view fullName, ConfigIF::CallbackType type,
                                        Visit visit) const {
  if (names_.isEmpty()) return;
  std::size_t length = 0;
  while (true) {
    const Node* node = names_.find(fullName.substr(0, length));
    if (node != nullptr) {
      const NameTable::Entries& entries = node->second;
      for (auto entry = std::lower_bound(entries.begin(), entries.end(), Entry{0, small(type), 0});
           entry != entries.end() && entry->type == small(type); ++entry) {
        const Caller& caller = *callers_[entry->caller];
        if (caller.isActive && !visit(*entry, caller)) return;
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
  for (const CallerNumber number : found->second.callers) {
    Caller& caller = *callers_[number];
    if (countOf(caller, small(type)) == 0) continue;
    const auto isWanted = [&](const Entry& entry) {
      return entry.caller == number && entry.type == small(type);
    };
    for (const Node* node : caller.names) {
      const NameTable::Entries& entries = node->second;
      const auto first =
          std::lower_bound(entries.begin(), entries.end(), Entry{number, small(type), 0});
      if (first != entries.end() && isWanted(*first)) names.push_back(node->first.text);
    }
  }
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  return names;
}

// --- Subscriptions ---

Subscriptions::Subscriptions(SubscriptionLimits limits, uid_t own, Later later)
    : impl_(std::make_unique<Impl>(limits, own, std::move(later))) {}
Subscriptions::~Subscriptions() = default;

Base::Status<> Subscriptions::add(PeerId peer, Owner owner, const Registration& registration) {
  return impl_->add(peer, owner, registration);
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
  impl_->visitCovering(fullName, type, [&](const Entry& entry, const Caller& caller) {
    result.push_back(
        {caller.peer, caller.identity, caller.clientName, static_cast<SecurityRole>(entry.role)});
    return true;
  });
  std::sort(result.begin(), result.end(), beforeInList);
  result.erase(std::unique(result.begin(), result.end(), samePlace), result.end());
  return result;
}

bool Subscriptions::anyCovering(std::string_view fullName, ConfigIF::CallbackType type) const {
  bool any = false;
  impl_->visitCovering(fullName, type, [&](const Entry&, const Caller&) {
    any = true;
    return false;
  });
  return any;
}

bool Subscriptions::contains(PeerId peer, const Registration& registration) const {
  return impl_->contains(peer, registration);
}

std::vector<std::string> Subscriptions::names(PeerId peer, ConfigIF::CallbackType type) const {
  return impl_->names(peer, type);
}

std::size_t Subscriptions::count() const { return impl_->count(); }
std::size_t Subscriptions::count(PeerId peer) const { return impl_->count(peer); }
Base::Status<> Subscriptions::reserve(Owner owner, std::size_t bytes) {
  return impl_->reserve(owner, bytes);
}

void Subscriptions::release(Owner owner, std::size_t bytes) { impl_->release(owner, bytes); }

bool Subscriptions::isErasing() const { return impl_->isErasing(); }
const PbUtility::Shares& Subscriptions::bytes() const { return impl_->bytes(); }

}  // namespace ConfigSrv
