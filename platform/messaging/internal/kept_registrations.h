// KeptRegistrations: the callback registrations of one remote, as the endpoint repeats them.
//
// The service forgets a client when it restarts, and the client's cache relies on being told: so
// the endpoint keeps the bytes of each registration, whether or not the service could be reached
// when it was made, and sends them again on each new delivery connection together with what the
// client knows by then.
//
// What is known is a revision. A registration starts with the revision of the answer that its
// thread saw last (a read, say): the service announces what changed after it. Once notices have
// come that are younger than the service's answers to the registration, all owed to it has been
// delivered, and the revision of the last delivered notice takes its place.
//
// Nothing is known (kRevisionNone), and everything is asked for, when
//   - the registration was made by who knew nothing and no answer says since when the service has it:
//     something else may have been read meanwhile;
//   - the service's epoch is another, or requests were answered by one of another epoch;
//   - the registration is told on change of values to come, and a question was delivered: the value
//     may have been taken over, and nobody will say that it did not come to be.
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
  // Counts the delivery connections. What was sent before one began says nothing about it.
  using Connection = std::uint64_t;

  // A registration is about to be sent for the first time, or again. Keys are those of
  // platform/schema/registration_key.h. To be followed by acknowledge or abandon, with the
  // connection that is handed back.
  Connection keep(const std::string& key, std::uint32_t messageId, std::string payload,
                  std::uint64_t epoch, std::uint64_t revision);
  // The service has it since this revision.
  void acknowledge(const std::string& key, Connection connection, std::uint64_t epoch,
                   std::uint64_t revision);
  // Whether the service has it is not known.
  void abandon(const std::string& key, Connection connection);
  void withdraw(const std::string& key);
  // Withdraws all whose key starts like this: all of one client name.
  void withdrawAll(const std::string& keyPrefix);

  // All notices up to this revision have been delivered.
  void delivered(std::uint64_t revision);
  // A question was delivered.
  void questioned();
  // A request was answered by a service of this epoch.
  void answered(std::uint64_t epoch);

  // Begins a new delivery connection: all registrations, each with the revision to repeat it with.
  // Each is to be followed by acknowledge or abandon, with connection().
  std::vector<Repeat> beginConnection(std::uint64_t epoch);
  // Those that were abandoned, to be repeated on this connection, likewise.
  std::vector<Repeat> takeAbandoned();
  Connection connection() const;

  std::size_t size() const;
  // Copies to a child after fork, whose service connections know nothing yet.
  void copyTo(KeptRegistrations& other) const;

  // Around fork: what is copied must not be half of a change.
  void holdForFork() const { mutex_.lock(); }
  void releaseAfterFork() const { mutex_.unlock(); }

 private:
  struct Registration {
    std::uint32_t messageId = 0;
    std::string payload;
    bool toldOnChange = false;
    std::uint64_t since = kRevisionNow;
    std::uint64_t epoch = 0;  // of since
    unsigned unanswered = 0;  // how often it is on its way
    bool acknowledged = false;
    std::uint64_t acknowledgedAt = 0;
  };
  // The mutex is held for all of these.
  std::uint64_t knownBy(const Registration& registration) const;
  std::uint64_t repeatedWith(const Registration& registration, std::uint64_t epoch) const;
  static Repeat repeat(const std::string& key, Registration& registration, std::uint64_t revision,
                       std::uint64_t epoch);
  Registration* answeredOne(const std::string& key, Connection connection);

  mutable std::mutex mutex_;
  std::map<std::string, Registration> registrations_;
  Connection connection_ = 0;
  std::uint64_t epoch_ = 0;
  bool otherEpochAnswered_ = false;
  bool questioned_ = false;
  bool anyDelivered_ = false;
  std::uint64_t delivered_ = 0;
};

}  // namespace PbUtility
