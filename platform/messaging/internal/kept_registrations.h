// KeptRegistrations: the callback registrations of one remote, as the endpoint repeats them.
//
// The service forgets a client when it restarts, and the client's cache relies on being told: so
// the endpoint keeps the bytes of each registration, whether or not the service could be reached
// when it was made, and sends them again on each new delivery connection together with what the
// client knows by then.
//
// What is known is a revision. A registration starts with the revision of the answer that its
// thread saw last (a read, say): the service announces what changed after it. Once notices have
// come that are younger than the service's answer to the registration, all owed to it has been
// delivered, and the revision of the last delivered notice takes its place.
//
// Threads  any; one mutex, held for the map alone.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/messaging/frame.h"

namespace PbUtility {

class KeptRegistrations {
 public:
  struct Repeat {
    std::string key;
    std::uint32_t messageId;
    std::string payload;
    std::uint64_t revision;
  };

  // A registration is about to be sent for the first time, or again. Keys are those of
  // platform/schema/registration_key.h.
  void keep(const std::string& key, std::uint32_t messageId, std::string payload,
            std::uint64_t epoch, std::uint64_t revision);
  // The service has it since this revision.
  void acknowledge(const std::string& key, std::uint64_t epoch, std::uint64_t revision);
  void withdraw(const std::string& key);
  // Withdraws all whose key starts like this: all of one client name.
  void withdrawAll(const std::string& keyPrefix);

  // All notices up to this revision have been delivered.
  void delivered(std::uint64_t revision);

  // Begins a new delivery connection: all registrations, each with the revision to repeat it with.
  std::vector<Repeat> beginConnection(std::uint64_t epoch);

  std::size_t size() const;
  // Copies to a child after fork, whose service connections know nothing yet.
  void copyTo(KeptRegistrations& other) const;

 private:
  struct Registration {
    std::uint32_t messageId = 0;
    std::string payload;
    std::uint64_t since = kRevisionNow;
    std::uint64_t acknowledgedAt = 0;
    bool acknowledged = false;
  };
  std::uint64_t knownBy(const Registration& registration) const;

  mutable std::mutex mutex_;
  std::map<std::string, Registration> registrations_;
  std::uint64_t epoch_ = 0;
  bool anyDelivered_ = false;
  std::uint64_t delivered_ = 0;
};

}  // namespace PbUtility
