// Peer: who is connected to a server. All connections of one endpoint of one process make one peer.
//
// Owns:   copies; a Peer says nothing about whether its connections are still there.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace PbUtility {

// Never that of another peer, however long the server runs. 0: nobody.
using PeerId = std::uint64_t;

// What the kernel says of a peer, and the name that it gives itself.
struct Peer {
  PeerId id = 0;
  std::string name;
  uid_t uid = 0;
  gid_t gid = 0;
  pid_t pid = 0;
};

// A peer that is connected now.
struct ConnectedPeer {
  Peer peer;
  // Whether it can be notified and asked.
  bool delivery = false;
};

}  // namespace PbUtility
