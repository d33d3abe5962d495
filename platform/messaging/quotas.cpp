#include "platform/messaging/internal/quotas.h"

#include "platform/messaging/server.h"

namespace PbUtility {
namespace {

std::string limit(unsigned number, const std::string& whose) {
  return "all " + std::to_string(number) + " connections " + whose + " are in use";
}

}  // namespace

std::string Quotas::refusal(const ucred& who, const ServerOptions& limits) const {
  if (all_ >= limits.maxConnections) return limit(limits.maxConnections, "of the service");
  if (count(byProcess_, who.pid) >= limits.maxConnectionsPerProcess) {
    return limit(limits.maxConnectionsPerProcess, "that one process may have");
  }
  if (who.uid == 0 || who.uid == own_) return {};
  if (count(byUser_, who.uid) >= limits.maxConnectionsPerUser) {
    return limit(limits.maxConnectionsPerUser, "that one user may have");
  }
  if (all_ + limits.reservedConnections >= limits.maxConnections) {
    return limit(limits.maxConnections - limits.reservedConnections,
                 "that are not kept for root and the service's own user");
  }
  return {};
}

void Quotas::add(const ucred& who) {
  ++all_;
  ++byProcess_[who.pid];
  ++byUser_[who.uid];
}

void Quotas::remove(const ucred& who) {
  --all_;
  drop(byProcess_, who.pid);
  drop(byUser_, who.uid);
}

}  // namespace PbUtility
