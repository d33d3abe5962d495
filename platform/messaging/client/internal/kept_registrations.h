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
//   - the registration was made without a revision, and no answer says since when the service has it:
//     the caller may have read something meanwhile;
//   - the service's epoch is another, or requests were answered by one of another epoch;
//   - the registration is told on change of values to come, and a question was delivered: the value
//     may have been taken over, and nobody will say that it did not come to be.
//
// What the service refuses for want of room is asked for again, in the order of the refusals, when
// whoever owns the connection says so (takeRefused); isRegistrationRefused tells of it until then.
//
// Threads:  any; one mutex, held for what is kept here and while the refusals are noted.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "platform/messaging/wire/frame.h"

namespace PbUtility {

class PbUtils;

class KeptRegistrations {
 public:
  // Refusals are noted as those of this layer at this remote; of no layer, nowhere.
  explicit KeptRegistrations(const PbUtils* layer = nullptr, std::string remoteName = {});

  struct Repeat {
    std::string key;
    std::uint32_t messageId;
    std::string payload;
    std::uint64_t revision;
  };
  // Counts the delivery connections. What was sent before one began says nothing about it.
  using Connection = std::uint64_t;

  // A registration is about to be sent for the first time, or again. Keys are those of
  // platform/schema/registration_key.h. To be followed by acknowledge, refuse or abandon, with the
  // connection that is handed back.
  Connection keep(const std::string& key, std::uint32_t messageId, std::string payload,
                  std::uint64_t epoch, std::uint64_t revision);
  // The service has it since this revision.
  void acknowledge(const std::string& key, Connection connection, std::uint64_t epoch,
                   std::uint64_t revision);
  // The service has no room for it, in these words.
  void refuse(const std::string& key, Connection connection, const std::string& reason);
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
  // Each is to be followed by acknowledge, refuse or abandon, with connection().
  std::vector<Repeat> beginConnection(std::uint64_t epoch);
  // Those that were abandoned, to be repeated on this connection, likewise.
  std::vector<Repeat> takeAbandoned();
  // At most so many of those that were refused, likewise; those refused longest ago come first.
  std::vector<Repeat> takeRefused(std::size_t atMost);
  // Whether any waits to be taken.
  bool anyRefused() const;
  Connection connection() const;

  // Copies to a child after fork, whose service connections know nothing yet.
  void copyTo(KeptRegistrations& other) const;

  // Around fork: what is copied must not be half of a change.
  void holdForFork() const APPCONFIG_ACQUIRE(mutex_) { mutex_.lock(); }
  void releaseAfterFork() const APPCONFIG_RELEASE(mutex_) { mutex_.unlock(); }

 private:
  struct Registration {
    std::uint32_t messageId = 0;
    std::string payload;
    bool toldOnChange = false;
    // What was known when it was made or repeated, and in which epoch.
    std::uint64_t since = kRevisionNow;
    std::uint64_t epoch = 0;
    // How often it was sent on this connection without an answer yet.
    unsigned unanswered = 0;
    bool acknowledged = false;
    std::uint64_t acknowledgedAt = 0;
    // For want of room, and not accepted since.
    bool refused = false;
    // In refused_; 0: it does not wait there.
    std::uint64_t place = 0;
  };
  using Registrations = std::map<std::string, Registration>;
  std::uint64_t knownBy(const Registration& registration) const APPCONFIG_REQUIRES(mutex_);
  std::uint64_t repeatedWith(const Registration& registration, std::uint64_t epoch) const
      APPCONFIG_REQUIRES(mutex_);
  static Repeat repeat(const std::string& key, Registration& registration, std::uint64_t revision,
                       std::uint64_t epoch);
  Registration* answeredOne(const std::string& key, Connection connection)
      APPCONFIG_REQUIRES(mutex_);
  void leaveQueue(Registration& registration) APPCONFIG_REQUIRES(mutex_);
  void noteAccepted(const std::string& key, Registration& registration) APPCONFIG_REQUIRES(mutex_);
  Registrations::iterator erase(Registrations::iterator position) APPCONFIG_REQUIRES(mutex_);

  const PbUtils* const layer_;
  const std::string remoteName_;
  mutable Base::Mutex mutex_;
  Registrations registrations_ APPCONFIG_GUARDED_BY(mutex_);
  // Keys of those that wait to be asked for again, by place.
  std::map<std::uint64_t, std::string> refused_ APPCONFIG_GUARDED_BY(mutex_);
  std::uint64_t lastPlace_ APPCONFIG_GUARDED_BY(mutex_) = 0;
  Connection connection_ APPCONFIG_GUARDED_BY(mutex_) = 0;
  std::uint64_t epoch_ APPCONFIG_GUARDED_BY(mutex_) = 0;
  bool otherEpochAnswered_ APPCONFIG_GUARDED_BY(mutex_) = false;
  bool questioned_ APPCONFIG_GUARDED_BY(mutex_) = false;
  bool anyDelivered_ APPCONFIG_GUARDED_BY(mutex_) = false;
  std::uint64_t delivered_ APPCONFIG_GUARDED_BY(mutex_) = 0;
};

}  // namespace PbUtility
