#include "configsrv/monitor/internal/open_messages.h"

#include <utility>

namespace ConfigSrv {
namespace {

PbUtility::Owner ownerOf(const PbUtility::Peer& peer) { return {peer.uid, peer.pid}; }

std::size_t bytesOf(const OpenMessage& open) {
  std::size_t bytes = OpenMessages::kOpenBytes + open.peer.name.size() + open.message.size();
  if (open.facts.name) bytes += open.facts.name->size();
  for (const ConfigVar& key : open.facts.variables)
    bytes += OpenMessages::kVariableBytes + key.group().size() + key.name().size();
  return bytes;
}

}  // namespace

OpenMessages::OpenMessages(PbUtility::ShareLimits limits, uid_t own)
    : bytes_("bytes of messages that monitors wait to see answered", limits, own) {}

void OpenMessages::remember(const Key& key, const PbUtility::Peer& peer, const Facts& facts,
                            const std::string& message) {
  take(key);
  OpenMessage open{peer, {}, message};
  open.facts.variables = facts.variables;
  open.facts.name = facts.name;
  const std::size_t bytes = bytesOf(open);
  if (!bytes_.room(ownerOf(peer), bytes).ok()) return;
  bytes_.add(ownerOf(peer), bytes);
  open_.emplace(key, std::move(open));
}

OpenMessage* OpenMessages::find(const Key& key) {
  const auto found = open_.find(key);
  return found == open_.end() ? nullptr : &found->second;
}

std::optional<OpenMessage> OpenMessages::take(const Key& key) {
  const auto found = open_.find(key);
  if (found == open_.end()) return std::nullopt;
  bytes_.remove(ownerOf(found->second.peer), bytesOf(found->second));
  std::optional<OpenMessage> open = std::move(found->second);
  open_.erase(found);
  return open;
}

void OpenMessages::clear() {
  while (!open_.empty()) take(OpenMessages::Key(open_.begin()->first));
}

}  // namespace ConfigSrv
