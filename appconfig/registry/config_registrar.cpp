// A lookup asks which entries of the map cover a variable. Instead of looking at every entry, it
// names the few keys that could and searches the map for those:
//
//   exact   an entry covers the variable exactly when group and name joined by a dot read the same.
//           Each dot of the joined name is one way to split it again: "a.b.c" can have been
//           registered as ("a", "b.c"), as ("a.b", "c"), or whole, as the group "a.b.c".
//   group   an entry without a name covers the group's own name and whatever follows it after a
//           dot: of the group "a.b", the prefixes "a" and "a.b".
//
// Either way a longer prefix comes later in the map than a shorter one, so trying the prefixes in
// the order of their length yields the entries in map order. That order is promised.
#include "appconfig/registry/config_registrar.h"

#include <algorithm>
#include <atomic>
#include <string_view>
#include <utility>

#include "appconfig/core/internal/fork_lock.h"
#include "appconfig/registry/internal/handler_walk.h"

Base::Mutex ConfigRegistrar::mutex_;

struct RegistrarAtFork {
  static void hold() APPCONFIG_ACQUIRE(ConfigRegistrar::mutex_) { ConfigRegistrar::mutex_.lock(); }
  static void release() APPCONFIG_RELEASE(ConfigRegistrar::mutex_) {
    ConfigRegistrar::mutex_.unlock();
  }
};

namespace {

const AppConfig::ForkLock atFork(AppConfig::ForkLock::Place::Registry,
                                 {RegistrarAtFork::hold, RegistrarAtFork::release,
                                  RegistrarAtFork::release});

// How often a handler was taken out of any registrar.
std::atomic<unsigned> removals{0};

template <typename T>
using HandlerMap = ConfigRegistrar::HandlerMap<T>;

template <typename T>
class Collector {
 public:
  Collector(const HandlerMap<T>& handlers, bool includeMarkers)
      : handlers_(handlers), includeMarkers_(includeMarkers) {}

  void addExact(std::string_view fullName) {
    for (std::size_t dot = fullName.find('.'); dot < fullName.size();
         dot = fullName.find('.', dot + 1)) {
      const std::string_view name = fullName.substr(dot + 1);
      // An entry without a name is its group alone, which here would lack the trailing dot.
      if (!name.empty()) addEntry({fullName.substr(0, dot), name});
    }
    addEntry({fullName, {}});
  }

  void addGroups(const ConfigVar& var) {
    const std::string_view group = var.group();
    const std::size_t nul = std::min(group.find('\0'), group.size());
    for (std::size_t length = 0; length <= nul; ++length) {
      if (coversAsGroup(group.substr(0, length), var)) addEntry({group.substr(0, length), {}});
    }
    if (nul < group.size()) addGroupsBehindNul(var, group.substr(0, nul + 1));
  }

  std::list<T*> take() { return std::move(found_); }

 private:
  // Groups are compared as strncasecmp compares, which sees nothing behind a zero byte that both
  // have. Such groups are never meant, but what they match must not depend on how it is searched.
  void addGroupsBehindNul(const ConfigVar& var, std::string_view throughNul) {
    for (auto entry = handlers_.lower_bound(ConfigVarNames{throughNul, {}});
         entry != handlers_.end() && beginsWith(entry->first.group(), throughNul); ++entry) {
      if (entry->first.name().empty() && coversAsGroup(entry->first.group(), var))
        add(entry->second);
    }
  }

  static bool beginsWith(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
  }

  // Whether an entry for this group, known to read like the start of the variable's, ends where
  // one of the variable's groups ends, and is not the variable itself.
  static bool coversAsGroup(std::string_view entryGroup, const ConfigVar& var) {
    const std::string& group = var.group();
    if (entryGroup.size() > group.size()) return false;
    if (entryGroup.size() < group.size()) return group[entryGroup.size()] == '.';
    return !var.name().empty() || entryGroup != group;
  }

  void addEntry(const ConfigVarNames& names) {
    const auto entry = handlers_.find(names);
    if (entry != handlers_.end()) add(entry->second);
  }

  void add(const std::list<T*>& handlers) {
    for (T* handler : handlers) {
      if (handler != nullptr || includeMarkers_) found_.push_back(handler);
    }
  }

  const HandlerMap<T>& handlers_;
  const bool includeMarkers_;
  std::list<T*> found_;
};

// The lookup itself.
template <typename T>
std::list<T*> collect(const ConfigVar& var, const HandlerMap<T>& handlers, bool includeMarkers) {
  Collector<T> collector(handlers, includeMarkers);
  collector.addExact(var.dottedName());
  collector.addGroups(var);
  return collector.take();
}

// Leaves an empty list behind rather than no entry, also for a variable never registered.
template <typename T>
bool removeAll(std::list<T*>& handlers, T* handler) {
  const std::size_t before = handlers.size();
  handlers.remove(handler);
  if (handlers.size() == before) return false;
  ++removals;
  return true;
}

template <typename T>
bool removeOne(std::list<T*>& handlers, T* handler) {
  const auto found = std::find(handlers.begin(), handlers.end(), handler);
  if (found == handlers.end()) return false;
  handlers.erase(found);
  ++removals;
  return true;
}

}  // namespace

void ConfigRegistrar::registerHandler(const ConfigVar& var, ProviderConfigHandler* handler) {
  const Base::MutexLock lock(mutex_);
  providerHandlers_[var].push_back(handler);
}

void ConfigRegistrar::registerHandler(const ConfigVar& var, ConsumerConfigHandler* handler,
                                      ConsumerCallbackType type) {
  const Base::MutexLock lock(mutex_);
  consumerHandlers_[type][var].push_back(handler);
}

bool ConfigRegistrar::unregisterHandler(const ConfigVar& var, ConsumerConfigHandler* handler,
                                        ConsumerCallbackType type) {
  const Base::MutexLock lock(mutex_);
  return removeAll(consumerHandlers_[type][var], handler);
}

bool ConfigRegistrar::unregisterHandler(const ConfigVar& var, ProviderConfigHandler* handler) {
  const Base::MutexLock lock(mutex_);
  return removeAll(providerHandlers_[var], handler);
}

bool ConfigRegistrar::endRegistration(const ConfigVar& var, ConsumerConfigHandler* handler,
                                      ConsumerCallbackType type) {
  const Base::MutexLock lock(mutex_);
  const bool wasThere = removeOne(consumerHandlers_[type][var], handler);
  AppConfig::HandlerWalk::noteEnd();
  return wasThere;
}

bool ConfigRegistrar::endRegistration(const ConfigVar& var, ProviderConfigHandler* handler) {
  const Base::MutexLock lock(mutex_);
  const bool wasThere = removeOne(providerHandlers_[var], handler);
  AppConfig::HandlerWalk::noteEnd();
  return wasThere;
}

unsigned ConfigRegistrar::unregistrations() { return removals; }

bool ConfigRegistrar::isHandlerRegistered(const ConfigVar& var, ConsumerCallbackType type) {
  const Base::MutexLock lock(mutex_);
  return !collect(var, consumerHandlers_[type], true).empty();
}

bool ConfigRegistrar::isProviderHandlerRegistered(const ConfigVar& var) {
  const Base::MutexLock lock(mutex_);
  return !collect(var, providerHandlers_, true).empty();
}

std::list<ConsumerConfigHandler*> ConfigRegistrar::getHandlers(const std::string& group,
                                                               const std::string& name,
                                                               ConsumerCallbackType type) {
  const ConfigVar var(group, 0, name, 0);
  const Base::MutexLock lock(mutex_);
  return collect(var, consumerHandlers_[type], false);
}

std::list<ProviderConfigHandler*> ConfigRegistrar::getProviderHandlers(const std::string& group,
                                                                       const std::string& name) {
  const ConfigVar var(group, 0, name, 0);
  const Base::MutexLock lock(mutex_);
  return collect(var, providerHandlers_, false);
}

template <typename T>
std::list<T*> ConfigRegistrar::getHandlers(const ConfigVar& var, HandlerMap<T>& handlers,
                                           bool includeMarkers) {
  const Base::MutexLock lock(mutex_);
  return collect(var, handlers, includeMarkers);
}

template std::list<ConsumerConfigHandler*> ConfigRegistrar::getHandlers(
    const ConfigVar& var, HandlerMap<ConsumerConfigHandler>& handlers, bool includeMarkers);
template std::list<ProviderConfigHandler*> ConfigRegistrar::getHandlers(
    const ConfigVar& var, HandlerMap<ProviderConfigHandler>& handlers, bool includeMarkers);
