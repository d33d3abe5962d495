// Flight, NoticeStore: keep the answer of a slow request from replacing a newer value.
//
// A read that misses the cache asks the service and then stores the answer; a write that waits does
// likewise. Until it stores, anything may happen to the variable: a notice may bring a newer value,
// another read or write may finish first. The cache cannot tell, so the facade opens a Flight
// before such a request and stores through it afterwards; stores from outside any flight, notices
// above all, go through a NoticeStore.
//
// Against a notice   a read's flight loses: what a notice stored since the flight began stays. The
//                    notices about a registered variable end with its newest value, an answer need
//                    not be. A write's flight does not: the notice may tell of the write before it,
//                    and who reads what was just written must not get what was there before. Unless
//                    both agree the cached value is emptied, and the next read asks the service.
// Against a flight   nobody can tell which of two answers is the newer. Equal values agree. Of
//                    different ones neither may stay: the cached value is emptied, and the next
//                    read asks the service. Of options, default index and roles the last one stays.
// Without contention a flight simply stores.
//
// Parts of a record are told apart: a notice about the options does not keep a flight from storing
// the value. The default flag belongs to its value and is dropped with it.
//
// Threads  any. All flights of the process, of all caches, are in one list under one mutex,
//          which is held for a store and never during a request. A hit of the cache comes nowhere
//          near it.
// Forking  a child has the flights of the thread that forked, and no others: the threads of the
//          others, and the stacks on which those flights live, are the parent's.
// Owns     nothing. A flight lives on the stack of the thread that asks, the cache outlives it.
//
//   Flight flight(cache, key);
//   const std::list<std::string> value = link.getConfigVar(key, isDefault);
//   // ... during which a notice may have come
//   flight.storeRead(value, isDefault);
#pragma once

#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "appconfig/cache/config_cache.h"
#include "appconfig/core/config_var.h"

namespace AppConfig {

// Parts of a record that are announced and answered apart. Bits of a set.
using Parts = unsigned int;
constexpr Parts kValuePart = 1;
constexpr Parts kDefaultFlagPart = 2;
constexpr Parts kOptionsPart = 4;
constexpr Parts kDefaultIndexPart = 8;
constexpr Parts kReadRolePart = 16;
constexpr Parts kWriteRolePart = 32;

// One request about one entry of one cache, from before it is sent until after its answer is
// stored. Opened on the key under which the answer will be stored.
class Flight {
 public:
  Flight(ConfigCache& cache, const ConfigVar& key);
  ~Flight();
  Flight(const Flight&) = delete;
  Flight& operator=(const Flight&) = delete;

  // Each stores what the rules above leave of it, and is called at most once.
  void storeRead(const std::list<std::string>& value, bool isDefault);
  // The default flag stays as it is: a write does not learn it.
  void storeWritten(const std::list<std::string>& value);
  void storeOptions(const std::vector<std::string>& options, unsigned int defaultIndex);
  void storeDefaultIndex(unsigned int defaultIndex);
  void storeAccessLevels(ConfigAccessLevels levels);

 private:
  friend class NoticeStore;
  friend struct FlightsAtFork;

  bool isOvertakenIn(Parts part) const { return (overtaken_ & part) != 0; }
  bool isSameEntryAs(const ConfigCache& cache, const ConfigVar& key) const;
  // Whether the value now stands in the cache. The mutex is held.
  bool landValue(const std::list<std::string>& value);
  // Empties the cached value when it is another; whether it stands. The mutex is held.
  bool distrustUnlessEqual(const std::list<std::string>& value);
  void contestOthers() const;
  // The mutex is held. Joins behind another flight, or as the first.
  void joinList(Flight* before);
  void leaveList();

  ConfigCache& cache_;
  const ConfigVar key_;
  const std::thread::id thread_ = std::this_thread::get_id();
  // All below is guarded by the mutex of the list.
  Parts overtaken_ = 0;     // parts that a notice has stored since this flight began
  bool contested_ = false;  // whether another flight has landed a value since then
  Flight* previous_ = nullptr;
  Flight* next_ = nullptr;
};

// While it lives, the holder may store these parts of an entry; every flight of that entry which is
// open now has been overtaken in them. Holds the mutex of the list: store and let go.
class NoticeStore {
 public:
  NoticeStore(const ConfigCache& cache, const ConfigVar& key, Parts parts);
  NoticeStore(const NoticeStore&) = delete;
  NoticeStore& operator=(const NoticeStore&) = delete;

 private:
  const std::lock_guard<std::mutex> guard_;
};

}  // namespace AppConfig
