// Quotas: how many connections each process and each user of the device has, and whether one more
// may come.
//
// A socket that everybody may connect to has to be shared out: without this, one process that opens
// connections without end would lock out everybody, the tool that could find it included. Some
// connections are kept for root and the service's own user alone.
//
// Threads  the serving thread alone.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <map>
#include <string>

namespace PbUtility {

struct ServerOptions;

class Quotas {
 public:
  // The service's own user shares in what is kept for root.
  explicit Quotas(uid_t own) : own_(own) {}

  // Empty when one more connection of theirs fits, else which limit it would pass.
  std::string refusal(const ucred& who, const ServerOptions& limits) const;

  void add(const ucred& who);
  void remove(const ucred& who);

 private:
  template <typename Key>
  static unsigned count(const std::map<Key, unsigned>& counts, Key key) {
    const auto found = counts.find(key);
    return found == counts.end() ? 0 : found->second;
  }
  template <typename Key>
  static void drop(std::map<Key, unsigned>& counts, Key key) {
    const auto found = counts.find(key);
    if (found != counts.end() && --found->second == 0) counts.erase(found);
  }

  const uid_t own_;
  unsigned all_ = 0;
  std::map<pid_t, unsigned> byProcess_;
  std::map<uid_t, unsigned> byUser_;
};

}  // namespace PbUtility
