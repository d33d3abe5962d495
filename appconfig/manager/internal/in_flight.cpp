#include "appconfig/manager/internal/in_flight.h"

#include "appconfig/core/internal/fork_lock.h"

namespace AppConfig {

namespace {

// Guards the list and what its flights know. The cache's own mutex is taken while it is held, never
// the other way round; no request is made and no handler called under it. Both are constant
// initialised and never destroyed, so threads that outlive main may still use them.
std::mutex flightsMutex;

// One list rather than a map by key: it holds as many flights as threads are waiting for the
// service at this moment, and an entry of it costs no allocation.
Flight* openFlights = nullptr;

}  // namespace

// Before the fork the list is put in order, own flights first; the child then has only to cut it,
// and looks at nothing that lies on a stack which it does not have.
struct FlightsAtFork {
  static inline Flight* lastOwn = nullptr;

  static void hold() {
    flightsMutex.lock();
    lastOwn = nullptr;
    for (Flight* flight = openFlights; flight != nullptr;) {
      Flight* const next = flight->next_;
      if (flight->thread_ == std::this_thread::get_id()) moveBehindOwn(*flight);
      flight = next;
    }
  }
  static void release() { flightsMutex.unlock(); }
  static void enter() {
    (lastOwn != nullptr ? lastOwn->next_ : openFlights) = nullptr;
    flightsMutex.unlock();
  }

 private:
  static void moveBehindOwn(Flight& flight) {
    flight.leaveList();
    flight.joinList(lastOwn);
    lastOwn = &flight;
  }
};

static const ForkLock atFork(ForkLock::kFlights,
                             {FlightsAtFork::hold, FlightsAtFork::release, FlightsAtFork::enter});

Flight::Flight(ConfigCache& cache, const ConfigVar& key) : cache_(cache), key_(key) {
  const std::lock_guard<std::mutex> guard(flightsMutex);
  joinList(nullptr);
}

Flight::~Flight() {
  const std::lock_guard<std::mutex> guard(flightsMutex);
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

void Flight::storeRead(const std::list<std::string>& value, bool isDefault) {
  const std::lock_guard<std::mutex> guard(flightsMutex);
  if (isOvertakenIn(kValuePart) || !landValue(value)) return;
  if (!isOvertakenIn(kDefaultFlagPart)) cache_.updateIsDefault(key_, isDefault);
}

void Flight::storeWritten(const std::list<std::string>& value) {
  const std::lock_guard<std::mutex> guard(flightsMutex);
  if (isOvertakenIn(kValuePart))
    distrustUnlessEqual(value);
  else
    landValue(value);
}

void Flight::storeOptions(const std::vector<std::string>& options, unsigned int defaultIndex) {
  const std::lock_guard<std::mutex> guard(flightsMutex);
  if (!isOvertakenIn(kOptionsPart)) cache_.updateOptions(key_, options);
  if (!isOvertakenIn(kDefaultIndexPart)) cache_.updateOptionDefaultIndex(key_, defaultIndex);
}

void Flight::storeDefaultIndex(unsigned int defaultIndex) {
  const std::lock_guard<std::mutex> guard(flightsMutex);
  if (!isOvertakenIn(kDefaultIndexPart)) cache_.updateOptionDefaultIndex(key_, defaultIndex);
}

// Half of the levels may have been announced meanwhile; the other half is still good.
void Flight::storeAccessLevels(ConfigAccessLevels levels) {
  const std::lock_guard<std::mutex> guard(flightsMutex);
  if (isOvertakenIn(kReadRolePart)) levels.readRoleSet = false;
  if (isOvertakenIn(kWriteRolePart)) levels.writeRoleSet = false;
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
    cache_.update(key_, value);
    return true;
  }
  return distrustUnlessEqual(value);
}

bool Flight::distrustUnlessEqual(const std::list<std::string>& value) {
  std::list<std::string> cached;
  if (!cache_.copyValue(key_, cached)) return false;
  if (cached == value) return true;
  cache_.update(key_, {});
  return false;
}

void Flight::contestOthers() const {
  for (Flight* other = openFlights; other; other = other->next_) {
    if (other != this && other->isSameEntryAs(cache_, key_)) other->contested_ = true;
  }
}

NoticeStore::NoticeStore(const ConfigCache& cache, const ConfigVar& key, Parts parts)
    : guard_(flightsMutex) {
  for (Flight* flight = openFlights; flight; flight = flight->next_) {
    if (flight->isSameEntryAs(cache, key)) flight->overtaken_ |= parts;
  }
}

}  // namespace AppConfig
