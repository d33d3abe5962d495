// One plain mutex around one ordered map. A reader-writer lock would cost more than it saves: what
// is done under the lock is a search and one copy, shorter than the bookkeeping of such a lock.
//
// Updates move their key and value in, since they were passed by value; the record is copied out
// before the lock goes, because the next notice may change it the moment it is gone.
#include "appconfig/cache/config_cache.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <utility>

#include "appconfig/core/internal/fork_lock.h"
#include "base/mutex.h"

namespace AppConfig {

namespace {

// The operations of a mutex fail only when it is misused; going on would corrupt the map.
void check(int error, const char* operation) {
  if (error == 0) return;
  std::fprintf(stderr, "ConfigCache: %s: %s\n", operation, std::strerror(error));
  std::abort();
}

class Guard {
 public:
  explicit Guard(pthread_mutex_t& lock) : lock_(lock) {
    check(pthread_mutex_lock(&lock_), "pthread_mutex_lock");
  }
  ~Guard() { check(pthread_mutex_unlock(&lock_), "pthread_mutex_unlock"); }
  Guard(const Guard&) = delete;
  Guard& operator=(const Guard&) = delete;

 private:
  pthread_mutex_t& lock_;
};

// The locks of all caches, for the sake of fork alone: a cache's own size is part of the binary
// interface. The set goes with its last cache, so that nothing is left to be destroyed at exit,
// when threads may still be running.
Base::Mutex cachesMutex;
std::set<pthread_mutex_t*>* cacheLocks APPCONFIG_GUARDED_BY(cachesMutex)
    APPCONFIG_PT_GUARDED_BY(cachesMutex) = nullptr;

void note(pthread_mutex_t& lock) {
  const Base::MutexLock guard(cachesMutex);
  if (!cacheLocks) cacheLocks = new std::set<pthread_mutex_t*>;
  cacheLocks->insert(&lock);
}

void forget(pthread_mutex_t& lock) {
  const Base::MutexLock guard(cachesMutex);
  cacheLocks->erase(&lock);
  if (!cacheLocks->empty()) return;
  delete cacheLocks;
  cacheLocks = nullptr;
}

void holdAll() APPCONFIG_ACQUIRE(cachesMutex) {
  cachesMutex.lock();
  if (!cacheLocks) return;
  for (pthread_mutex_t* lock : *cacheLocks) check(pthread_mutex_lock(lock), "pthread_mutex_lock");
}

void releaseAll() APPCONFIG_RELEASE(cachesMutex) {
  if (cacheLocks) {
    for (pthread_mutex_t* lock : *cacheLocks)
      check(pthread_mutex_unlock(lock), "pthread_mutex_unlock");
  }
  cachesMutex.unlock();
}

const ForkLock atFork(ForkLock::Place::Caches, {holdAll, releaseAll, releaseAll});

}  // namespace

ConfigCache::ConfigCache() {
  check(pthread_mutexattr_init(&lockAttributes_), "pthread_mutexattr_init");
  check(pthread_mutex_init(&lock_, &lockAttributes_), "pthread_mutex_init");
  check(pthread_mutexattr_destroy(&lockAttributes_), "pthread_mutexattr_destroy");
  note(lock_);
}

ConfigCache::~ConfigCache() {
  forget(lock_);
  check(pthread_mutex_destroy(&lock_), "pthread_mutex_destroy");
}

void ConfigCache::reset() {
  const Guard guard(lock_);
  entries_.clear();
}

// Here and in getConfigValue the parameter is by value because the interface has it so.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
unsigned int ConfigCache::removeVars(std::string text) {
  const Guard guard(lock_);
  unsigned int removed = 0;
  for (Position entry = entries_.begin(); entry != entries_.end();) {
    const Position current = entry++;
    if (current->first.group().find(text) == std::string::npos) continue;
    entries_.erase(current);
    ++removed;
  }
  return removed;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param)
ConfigCache::Position ConfigCache::getConfigValue(ConfigVar var) {
  const Guard guard(lock_);
  return entries_.find(var);
}

bool ConfigCache::copyValue(const ConfigVar& var, std::list<std::string>& out) const {
  const Guard guard(lock_);
  const auto entry = entries_.find(var);
  if (entry == entries_.end() || !entry->second.hasValue()) return false;
  out = entry->second.value_;  // An assignment reuses what out has of elements.
  return true;
}

bool ConfigCache::copyFirstString(const ConfigVar& var, std::string& out) const {
  const Guard guard(lock_);
  const auto entry = entries_.find(var);
  if (entry == entries_.end() || !entry->second.hasValue()) return false;
  out = entry->second.value_.front();
  return true;
}

bool ConfigCache::copyRecord(const ConfigVar& var, ConfigValue& out) const {
  const Guard guard(lock_);
  const auto entry = entries_.find(var);
  if (entry == entries_.end()) return false;
  out = entry->second;
  return true;
}

ConfigValue ConfigCache::update(ConfigVar var, std::list<std::string> value) {
  const Guard guard(lock_);
  ConfigValue& record = entries_.try_emplace(std::move(var)).first->second;
  record.setValue(std::move(value));
  return record;
}

void ConfigCache::store(const ConfigVar& var, const std::list<std::string>& value) {
  const Guard guard(lock_);
  entries_.try_emplace(var).first->second.setValue(value);
}

void ConfigCache::storeIsDefault(const ConfigVar& var, bool isDefault) {
  const Guard guard(lock_);
  entries_.try_emplace(var).first->second.isDefault(isDefault);
}

ConfigValue ConfigCache::updateIsDefault(ConfigVar var, bool isDefault) {
  const Guard guard(lock_);
  ConfigValue& record = entries_.try_emplace(std::move(var)).first->second;
  record.isDefault(isDefault);
  return record;
}

ConfigValue ConfigCache::updateOptionDefaultIndex(ConfigVar var, unsigned int index) {
  const Guard guard(lock_);
  ConfigValue& record = entries_.try_emplace(std::move(var)).first->second;
  record.defaultIndex(index);
  return record;
}

ConfigValue ConfigCache::updateOptions(ConfigVar var, std::vector<std::string> options) {
  const Guard guard(lock_);
  ConfigValue& record = entries_.try_emplace(std::move(var)).first->second;
  record.setOptions(std::move(options));
  return record;
}

ConfigValue ConfigCache::updateAccessLevels(ConfigVar var, const ConfigAccessLevels& levels) {
  const Guard guard(lock_);
  ConfigValue& record = entries_.try_emplace(std::move(var)).first->second;
  record.accessLevels(levels);
  return record;
}

}  // namespace AppConfig
