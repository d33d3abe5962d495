// The flights that are open are in one list, under one mutex. Whoever stores walks through it and
// marks the flights of the same entry: a notice marks the parts that it stored, another flight
// marks the value as contested. When a flight lands, its marks say what may still be stored. Where
// the service tells stamps, their comparison decides instead.
#include "appconfig/manager/internal/in_flight.h"

#include <utility>

#include "appconfig/core/internal/fork_lock.h"

namespace AppConfig {

Base::Mutex flightsMutex;

namespace {

// One list rather than a map by key: it holds as many flights as threads are waiting for the
// service at this moment, and an entry of it costs no allocation.
Flight* openFlights APPCONFIG_GUARDED_BY(flightsMutex) = nullptr;

}  // namespace

// Before the fork the list is put in order, own flights first; the child then has only to cut it,
// and looks at nothing that lies on a stack which it does not have.
struct FlightsAtFork {
  static inline Flight* lastOwn APPCONFIG_GUARDED_BY(flightsMutex) = nullptr;

  static void hold() APPCONFIG_ACQUIRE(flightsMutex) {
    flightsMutex.lock();
    lastOwn = nullptr;
    for (Flight* flight = openFlights; flight != nullptr;) {
      Flight* const next = flight->next_;
      if (flight->thread_ == std::this_thread::get_id()) moveBehindOwn(*flight);
      flight = next;
    }
  }
  static void release() APPCONFIG_RELEASE(flightsMutex) { flightsMutex.unlock(); }
  static void enter() APPCONFIG_RELEASE(flightsMutex) {
    (lastOwn != nullptr ? lastOwn->next_ : openFlights) = nullptr;
    flightsMutex.unlock();
  }

 private:
  static void moveBehindOwn(Flight& flight) APPCONFIG_REQUIRES(flightsMutex) {
    flight.leaveList();
    flight.joinList(lastOwn);
    lastOwn = &flight;
  }
};

static const ForkLock atFork(ForkLock::Place::Flights,
                             {FlightsAtFork::hold, FlightsAtFork::release, FlightsAtFork::enter});

Flight::Flight(ConfigCache& cache, ConfigVar key) : cache_(cache), key_(std::move(key)) {
  const Base::MutexLock guard(flightsMutex);
  joinList(nullptr);
}

Flight::~Flight() {
  const Base::MutexLock guard(flightsMutex);
  leaveList();
}

void Flight::joinList(Flight* before) {
  Flight*& place = before ? before->next_ : openFlights;
  previous_ = before;
  next_ = place;
  if (next_) next_->previous_ = this;
  place = this;
}

void Flight::leaveList() {
  (previous_ ? previous_->next_ : openFlights) = next_;
  if (next_) next_->previous_ = previous_;
}

// Null for an answer that comes without a stamp: the order of arrival decides about it.
Stamps* Flight::stampsFor(const StateStamp& stamp) const {
  return stamp.isKnown() ? &Stamps::of(cache_, key_) : nullptr;
}

bool Flight::takesPlace(Parts part, const StateStamp& stamp, Stamps* stamps) const {
  const Age age = stamps ? stamps->ageOf(part, stamp) : Age::Unknown;
  const bool mayStay = age == Age::Unknown || age == Age::Same;
  if (age == Age::Older || (mayStay && isOvertakenIn(part))) return false;
  if (stamps) stamps->set(part, stamp);
  return true;
}

// What was stored meanwhile under the same state may be another value all the same, of somebody who
// needs no stamp, and stays; unless it was removed or emptied since.
void Flight::storeByAge(Age age, const std::list<std::string>& value) {
  std::string unused;
  if (age == Age::Older) return;
  if (age == Age::Same && isOvertakenIn(kValuePart) && cache_.copyFirstString(key_, unused)) return;
  contestOthers();
  cache_.store(key_, value);
}

bool Flight::storeValue(const std::list<std::string>& value, const StateStamp& stamp,
                        Stamps* stamps, bool isWritten) {
  const Age age = stamps ? stamps->ageOf(kValuePart, stamp) : Age::Unknown;
  if (age != Age::Unknown) {
    storeByAge(age, value);
    if (age == Age::Newer) stamps->set(kValuePart, stamp);
    return true;
  }
  const bool overtaken = isOvertakenIn(kValuePart);
  if (overtaken && !isWritten) return false;
  const bool stands = overtaken ? distrustUnlessEqual(value) : landValue(value);
  if (stands && stamps) stamps->set(kValuePart, stamp);
  return stands;
}

void Flight::storeRead(const std::list<std::string>& value, bool isDefault,
                       const StateStamp& stamp) {
  const Base::MutexLock guard(flightsMutex);
  Stamps* const stamps = stampsFor(stamp);
  if (!storeValue(value, stamp, stamps, false)) return;
  if (takesPlace(kDefaultFlagPart, stamp, stamps)) cache_.storeIsDefault(key_, isDefault);
}

void Flight::storeWritten(const std::list<std::string>& value, const StateStamp& stamp) {
  const Base::MutexLock guard(flightsMutex);
  storeValue(value, stamp, stampsFor(stamp), true);
}

void Flight::storeOptions(const std::vector<std::string>& options, unsigned int defaultIndex,
                          const StateStamp& stamp) {
  const Base::MutexLock guard(flightsMutex);
  Stamps* const stamps = stampsFor(stamp);
  if (takesPlace(kOptionsPart, stamp, stamps)) cache_.updateOptions(key_, options);
  if (takesPlace(kDefaultIndexPart, stamp, stamps))
    cache_.updateOptionDefaultIndex(key_, defaultIndex);
}

void Flight::storeDefaultIndex(unsigned int defaultIndex, const StateStamp& stamp) {
  const Base::MutexLock guard(flightsMutex);
  if (takesPlace(kDefaultIndexPart, stamp, stampsFor(stamp)))
    cache_.updateOptionDefaultIndex(key_, defaultIndex);
}

// Half of the levels may have been announced meanwhile; the other half is still good.
void Flight::storeAccessLevels(ConfigAccessLevels levels, const StateStamp& stamp) {
  const Base::MutexLock guard(flightsMutex);
  Stamps* const stamps = stampsFor(stamp);
  levels.readRoleSet = levels.readRoleSet && takesPlace(kReadRolePart, stamp, stamps);
  levels.writeRoleSet = levels.writeRoleSet && takesPlace(kWriteRolePart, stamp, stamps);
  cache_.updateAccessLevels(key_, levels);
}

bool Flight::isSameEntryAs(const ConfigCache& cache, const ConfigVar& key) const {
  const std::less<ConfigVar> before;
  return &cache_ == &cache && !before(key_, key) && !before(key, key_);
}

// Finding no value in a contested entry means that somebody emptied or removed it; filling it again
// might bring back what they had reason to distrust. Others are contested even by a value that is
// not stored: their answers may be older than this one all the same.
bool Flight::landValue(const std::list<std::string>& value) {
  contestOthers();
  if (!contested_) {
    cache_.store(key_, value);
    return true;
  }
  return distrustUnlessEqual(value);
}

bool Flight::distrustUnlessEqual(const std::list<std::string>& value) {
  std::list<std::string> cached;
  if (!cache_.copyValue(key_, cached)) return false;
  if (cached == value) return true;
  cache_.store(key_, {});
  return false;
}

void Flight::contestOthers() const {
  for (Flight* other = openFlights; other; other = other->next_) {
    if (other != this && other->isSameEntryAs(cache_, key_)) other->contested_ = true;
  }
}

NoticeStore::NoticeStore(const ConfigCache& cache, const ConfigVar& key)
    : guard_(flightsMutex), cache_(cache), key_(key) {}

NoticeStore::NoticeStore(const ConfigCache& cache, const ConfigVar& key, Parts parts)
    : NoticeStore(cache, key) {
  overtake(parts);
}

void NoticeStore::overtake(Parts parts) const {
  for (Flight* flight = openFlights; flight; flight = flight->next_) {
    if (flight->isSameEntryAs(cache_, key_)) flight->overtaken_ |= parts;
  }
}

bool NoticeStore::admits(Parts part, const StateStamp& stamp) {
  if (stamp.isKnown()) {
    if (stamps_ == nullptr) stamps_ = &Stamps::of(cache_, key_);
    if (stamps_->ageOf(part, stamp) == Age::Older) return false;
    stamps_->set(part, stamp);
  }
  overtake(part);
  return true;
}

// The stamp is that of what holds, so that both what the change comes to and, when it fails, what
// still holds take the place of the tentative value.
bool NoticeStore::admitsTentative(const StateStamp& held) { return admits(kValuePart, held); }

void forgetStamps(const ConfigCache& cache) {
  const Base::MutexLock guard(flightsMutex);
  Stamps::forget(cache);
}

}  // namespace AppConfig
