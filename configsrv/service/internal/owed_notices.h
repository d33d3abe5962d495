// OwedNotices: which peers are still to be told what a registration of theirs missed, and what they
// may therefore be said to know.
//
// A client counts itself up to date with a registration once a notice has come whose revision is
// greater than that of the registration's answer (docs/protocol.md). So as long as something is owed
// that the answer went before, no notice to that peer may carry a greater revision: were the
// connection lost in between, the client would not ask for the rest. Each notice carries the least of
// the owed answers' revisions at most; that the client has in any case, so it only learns late what
// else it knows, and asks for that once more if the connection is lost.
//
// Threads  one.
#pragma once

#include <algorithm>
#include <cstdint>
#include <set>
#include <unordered_map>

#include "platform/messaging/peer.h"

namespace ConfigSrv {

class OwedNotices {
 public:
  // A registration was answered under this revision, and is owed notices until end().
  void begin(PbUtility::PeerId peer, std::uint64_t answered) { owed_[peer].insert(answered); }
  void end(PbUtility::PeerId peer, std::uint64_t answered) {
    const auto found = owed_.find(peer);
    if (found == owed_.end()) return;
    const auto one = found->second.find(answered);
    if (one != found->second.end()) found->second.erase(one);
    if (found->second.empty()) owed_.erase(found);
  }

  // The revision that a notice to the peer may carry, of one that would carry this.
  std::uint64_t carried(PbUtility::PeerId peer, std::uint64_t revision) const {
    if (owed_.empty()) return revision;
    const auto found = owed_.find(peer);
    return found == owed_.end() ? revision : std::min(revision, *found->second.begin());
  }

 private:
  std::unordered_map<PbUtility::PeerId, std::multiset<std::uint64_t>> owed_;
};

}  // namespace ConfigSrv
