// OwedNotices: which peers are still to be told what a registration of theirs missed, and the greatest
// revision that a notice to them may carry until they have been.
//
// A client counts itself up to date with a registration once a notice has come whose revision is
// greater than that of the registration's answer (docs/protocol.md). A registration that covers much is
// answered first and told the rest in slices. Until the last of them, no notice to that peer may carry
// a greater revision than the answer: if the connection were lost in between, the client would believe
// to have everything, and not ask for the rest. Of several such answers, the least revision counts.
//
// A notice that carries less than it could does no harm: if the connection is lost, the client asks
// again for what it has been told already.
//
// Threads:  one.
#pragma once

#include <algorithm>
#include <cstdint>
#include <set>
#include <unordered_map>

#include "platform/messaging/serving/peer.h"

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
