// The file has those who are present under their peers' numbers, and those who are expected under
// number 0, which no peer has: a service that ends while it waits leaves both to the next one.
#include "configsrv/providers/provider_memory.h"

#include <algorithm>
#include <utility>

#include "appconfig/core/lower_case.h"
#include "configsrv/providers/internal/process.h"
#include "configsrv/providers/internal/provider_file.h"

namespace ConfigSrv {
namespace {

using AppConfig::lowerCase;
using PbUtility::Peer;
using PbUtility::PeerId;

constexpr PeerId kNoPeer = 0;

// The start may be unknown on one side, and the role another now.
bool isSame(const KnownProvider& expected, const KnownProvider& come) {
  return expected.type == come.type && expected.pid == come.pid && expected.uid == come.uid &&
         expected.endpoint == come.endpoint;
}

}  // namespace

ProviderMemory::ProviderMemory(const std::string& file, const Log& log)
    : log_(log), file_(std::make_unique<ProviderFile>(file, log, [this] { return contents(); })) {}
ProviderMemory::~ProviderMemory() = default;

void ProviderMemory::open() {
  for (const KnownProvider& provider : file_->read()) {
    if (!isProcessGone(provider.pid, provider.startedAt))
      expected_[provider.name].push_back(provider);
  }
  file_->rewrite();
}

std::map<PeerId, std::set<KnownProvider>> ProviderMemory::contents() const {
  std::map<PeerId, std::set<KnownProvider>> all = present_;
  for (const auto& [name, providers] : expected_)
    all[kNoPeer].insert(providers.begin(), providers.end());
  return all;
}

bool ProviderMemory::expects(std::string_view fullName, const Counts& counts) const {
  if (expected_.empty()) return false;
  std::size_t length = 0;
  for (;;) {
    const auto found = expected_.find(std::string(fullName.substr(0, length)));
    if (found != expected_.end() && std::any_of(found->second.begin(), found->second.end(), counts))
      return true;
    if (length == fullName.size()) return false;
    // The next beginning ends before the next dot, or is the whole name.
    length = std::min(fullName.find('.', length + 1), fullName.size());
  }
}

KnownProvider ProviderMemory::knownOf(const Peer& peer, const Registration& registration) {
  const auto known = present_.find(peer.id);
  const bool seen = known != present_.end() && !known->second.empty();
  return {peer.pid,          seen ? known->second.begin()->startedAt : startOfProcess(peer.pid),
          peer.uid,          peer.gid,
          registration.role, static_cast<int>(registration.type),
          peer.name,         lowerCase(registration.name)};
}

bool ProviderMemory::take(const KnownProvider& provider) {
  const auto found = expected_.find(provider.name);
  if (found == expected_.end()) return false;
  std::vector<KnownProvider>& all = found->second;
  const auto same = std::find_if(all.begin(), all.end(), [&](const KnownProvider& expected) {
    return isSame(expected, provider);
  });
  if (same == all.end()) return false;
  all.erase(same);
  if (all.empty()) expected_.erase(found);
  if (expected_.empty()) endExpectations();
  return true;
}

// Those who were expected stay in the file until nobody is expected any longer.
void ProviderMemory::endExpectations() { file_->rewrite(); }

// It is added to those who are present before it is taken from those who are expected: should the
// service end in between, it stands in the file twice, which does no harm, rather than not at all.
bool ProviderMemory::registered(const Peer& peer, const Registration& registration) {
  const KnownProvider provider = knownOf(peer, registration);
  if (count_ < kMaxRemembered) {
    if (present_[peer.id].insert(provider).second) {
      ++count_;
      file_->add(peer.id, provider);
    }
  } else if (!std::exchange(full_, true)) {
    log_.warning(
        "more than " + std::to_string(kMaxRemembered) +
        " registrations of providers: after a restart, changes will not wait for the rest");
  }
  return take(provider);
}

bool ProviderMemory::refused(const Peer& peer, const Registration& registration) {
  return take(knownOf(peer, registration));
}

void ProviderMemory::withdrawn(PeerId peer, const Subscriptions& subscriptions) {
  const auto found = present_.find(peer);
  if (found == present_.end()) return;
  std::map<int, std::vector<std::string>> names;
  std::set<KnownProvider> left;
  for (const KnownProvider& provider : found->second) {
    const auto [ofType, isNew] = names.try_emplace(provider.type);
    if (isNew)
      ofType->second =
          subscriptions.names(peer, static_cast<ConfigIF::CallbackType>(provider.type));
    const std::vector<std::string>& all = ofType->second;
    if (std::binary_search(all.begin(), all.end(), provider.name)) left.insert(provider);
  }
  if (left.size() == found->second.size()) return;
  count_ -= found->second.size() - left.size();
  found->second = std::move(left);
  if (found->second.empty()) present_.erase(found);
  file_->rewrite();
}

void ProviderMemory::gone(PeerId peer) {
  const auto found = present_.find(peer);
  if (found == present_.end()) return;
  count_ -= found->second.size();
  present_.erase(found);
  file_->remove(peer);
}

bool ProviderMemory::forgetDead() {
  bool any = false;
  for (auto entry = expected_.begin(); entry != expected_.end();) {
    std::vector<KnownProvider>& all = entry->second;
    const auto gone = [](const KnownProvider& provider) {
      return isProcessGone(provider.pid, provider.startedAt);
    };
    const auto end = std::remove_if(all.begin(), all.end(), gone);
    any = any || end != all.end();
    all.erase(end, all.end());
    entry = all.empty() ? expected_.erase(entry) : std::next(entry);
  }
  if (any && expected_.empty()) endExpectations();
  return any;
}

void ProviderMemory::giveUp() {
  std::set<std::string> who;
  for (const auto& [name, providers] : expected_) {
    for (const KnownProvider& provider : providers)
      who.insert("\"" + provider.endpoint + "\" (pid " + std::to_string(provider.pid) + ")");
  }
  for (const std::string& provider : who)
    log_.warning("provider " + provider + " has not come back; changes go on without it");
  expected_.clear();
  if (!who.empty()) endExpectations();
}

}  // namespace ConfigSrv
