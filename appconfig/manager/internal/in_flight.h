// Flight, NoticeStore: keep the answer of a slow request from replacing a newer value, and a late
// notice likewise.
//
// A read that misses the cache asks the service and then stores the answer; a write that waits does
// likewise. Until it stores, anything may happen to the variable: a notice may bring a newer value,
// another read or write may finish first. So the facade opens a Flight before such a request and
// stores through it afterwards; stores from outside any flight go through a NoticeStore.
//
// With stamps: the service says of each state how new it is (StateStamp). What is older than what
// the cache holds, or held before removeVars, is not stored, in whatever order it came; what is
// newer is stored. So what a thread has read or written is never followed by something older.
//
// Without stamps: a message layer or a service may tell none, and stores that the application makes
// itself have none. Then only the order of arrival is left:
//
//   a read and a notice   What the notice stored since the read's flight began stays: the notices
//                         about a registered variable end with its newest value, and an answer may
//                         be older than that.
//   a write and a notice  The notice may tell of the write before this one, and whoever reads what
//                         was just written must not get what was there before. If the two values
//                         differ, the cached value is emptied and the next read asks the service.
//   two flights           Nobody can tell which of two answers is the newer. If their values
//                         differ, the cached value is emptied and the next read asks the service.
//                         Of options, default index and roles the last one stays.
//
// A flight that met neither a notice nor another flight simply stores.
//
// Parts of a record are told apart: a notice about the options does not keep a flight from storing
// the value. The default flag belongs to its value and is dropped with it.
//
// Threads: any. All flights of the process, of all caches, are in one list under one mutex,
//          which is held for a store and never during a request. A hit of the cache comes nowhere
//          near it.
// Forking: a child has the flights of the thread that forked, and no others: the threads of the
//          others, and the stacks on which those flights live, are the parent's.
// Owns:    nothing. A flight lives on the stack of the thread that asks, the cache outlives it.
//
//   Flight flight(cache, key);
//   const std::list<std::string> value = link.getConfigVar(key, isDefault, stamp);
//   // ... during which a notice may have come
//   flight.storeRead(value, isDefault, stamp);
#pragma once

#include <list>
#include <string>
#include <thread>
#include <vector>

#include "appconfig/cache/config_cache.h"
#include "appconfig/core/config_var.h"
#include "appconfig/core/state_stamp.h"
#include "appconfig/manager/internal/flights_mutex.h"
#include "appconfig/manager/internal/parts.h"
#include "appconfig/manager/internal/stamps.h"
#include "base/mutex.h"

namespace AppConfig {

// One request about one entry of one cache, from before it is sent until after its answer is
// stored. Opened on the key under which the answer will be stored.
class Flight {
 public:
  Flight(ConfigCache& cache, ConfigVar key);
  ~Flight();
  Flight(const Flight&) = delete;
  Flight& operator=(const Flight&) = delete;

  // Each stores what the rules above leave of it, and is called at most once.
  void storeRead(const std::list<std::string>& value, bool isDefault, const StateStamp& stamp = {});
  // The default flag stays as it is: a write does not learn it.
  void storeWritten(const std::list<std::string>& value, const StateStamp& stamp = {});
  void storeOptions(const std::vector<std::string>& options, unsigned int defaultIndex,
                    const StateStamp& stamp = {});
  void storeDefaultIndex(unsigned int defaultIndex, const StateStamp& stamp = {});
  void storeAccessLevels(ConfigAccessLevels levels, const StateStamp& stamp = {});

 private:
  friend class NoticeStore;
  friend struct FlightsAtFork;

  bool isOvertakenIn(Parts part) const APPCONFIG_REQUIRES(flightsMutex) {
    return (overtaken_ & part) != 0;
  }
  bool isSameEntryAs(const ConfigCache& cache, const ConfigVar& key) const;
  Stamps* stampsFor(const StateStamp& stamp) const APPCONFIG_REQUIRES(flightsMutex);
  // Whether this part of the answer is to be stored; if so it is what the entry now holds.
  bool takesPlace(Parts part, const StateStamp& stamp, Stamps* stamps) const
      APPCONFIG_REQUIRES(flightsMutex);
  void storeByAge(Age age, const std::list<std::string>& value) APPCONFIG_REQUIRES(flightsMutex);
  // Whether what the answer tells of the value's flag is worth storing, too.
  bool storeValue(const std::list<std::string>& value, const StateStamp& stamp, Stamps* stamps,
                  bool isWritten) APPCONFIG_REQUIRES(flightsMutex);
  // Whether the value now stands in the cache.
  bool landValue(const std::list<std::string>& value) APPCONFIG_REQUIRES(flightsMutex);
  // Empties the cached value when it is another; whether it stands.
  bool distrustUnlessEqual(const std::list<std::string>& value) APPCONFIG_REQUIRES(flightsMutex);
  void contestOthers() const APPCONFIG_REQUIRES(flightsMutex);
  // Joins behind another flight, or as the first.
  void joinList(Flight* before) APPCONFIG_REQUIRES(flightsMutex);
  void leaveList() APPCONFIG_REQUIRES(flightsMutex);

  ConfigCache& cache_;
  const ConfigVar key_;
  const std::thread::id thread_ = std::this_thread::get_id();
  // Parts that a notice has stored since this flight began.
  Parts overtaken_ APPCONFIG_GUARDED_BY(flightsMutex) = 0;
  // Whether another flight has landed a value since then.
  bool contested_ APPCONFIG_GUARDED_BY(flightsMutex) = false;
  Flight* previous_ APPCONFIG_GUARDED_BY(flightsMutex) = nullptr;
  Flight* next_ APPCONFIG_GUARDED_BY(flightsMutex) = nullptr;
};

// While it lives, the holder may store into an entry what admits() lets in. Holds the mutex of the
// list: store and let go.
class APPCONFIG_LOCK_HOLDER NoticeStore {
 public:
  NoticeStore(const ConfigCache& cache, const ConfigVar& key) APPCONFIG_ACQUIRE(flightsMutex);
  // For stores that no stamp comes with: these parts are admitted.
  NoticeStore(const ConfigCache& cache, const ConfigVar& key, Parts parts)
      APPCONFIG_ACQUIRE(flightsMutex);
  ~NoticeStore() APPCONFIG_RELEASE() = default;
  NoticeStore(const NoticeStore&) = delete;
  NoticeStore& operator=(const NoticeStore&) = delete;

  // Whether this part may be stored: unless it is older than what the entry holds. Every flight of
  // the entry that is open now has been overtaken in it then.
  [[nodiscard]] bool admits(Parts part, const StateStamp& stamp) APPCONFIG_REQUIRES(flightsMutex);
  // A value that is not committed yet, told while the state of the stamp holds: it may be stored
  // unless the entry holds something newer than that.
  [[nodiscard]] bool admitsTentative(const StateStamp& held) APPCONFIG_REQUIRES(flightsMutex);

 private:
  void overtake(Parts parts) const APPCONFIG_REQUIRES(flightsMutex);

  const Base::MutexLock guard_;
  const ConfigCache& cache_;
  const ConfigVar& key_;
  // Looked up once there is a stamp to compare.
  Stamps* stamps_ = nullptr;
};

// The cache is about to be destroyed: what is known of its entries' age goes.
void forgetStamps(const ConfigCache& cache);

}  // namespace AppConfig
