// Stamps: how new each part of each entry of each cache is, as far as the service has told.
//
// They stand beside the caches and not in them, because the layout of a cache and of its records is
// part of the library's binary interface; and they outlive an entry, because what was forgotten by
// removeVars must not come back older than it was.
//
// Shape:   one record for each variable that a stamp was ever told of: its epoch, and a revision
//          for each part. A part of which nothing was told in the record's epoch is older than
//          anything of that epoch.
// Threads: any; the mutex of the flights is held for every call.
// Owns:    its records, until forget().
#pragma once

#include <cstdint>

#include "appconfig/cache/config_cache.h"
#include "appconfig/core/config_var.h"
#include "appconfig/core/state_stamp.h"
#include "appconfig/manager/internal/flights_mutex.h"
#include "appconfig/manager/internal/parts.h"
#include "base/mutex.h"

namespace AppConfig {

// What a stamp is, held against what is known of the entry.
enum class Age { Unknown, Older, Same, Newer };

// Of one entry of one cache.
class Stamps {
 public:
  // Those of the entry, made when there are none; they stay where they are until forget().
  static Stamps& of(const ConfigCache& cache, const ConfigVar& key)
      APPCONFIG_REQUIRES(flightsMutex);
  // The cache is gone.
  static void forget(const ConfigCache& cache) APPCONFIG_REQUIRES(flightsMutex);

  // Of one part. Unknown when the stamp says nothing, and when nothing was told of the entry yet.
  Age ageOf(Parts part, const StateStamp& stamp) const APPCONFIG_REQUIRES(flightsMutex);
  // The cache now holds this state of this part. A stamp that says nothing changes nothing.
  void set(Parts part, const StateStamp& stamp) APPCONFIG_REQUIRES(flightsMutex);

 private:
  std::uint64_t epoch_ APPCONFIG_GUARDED_BY(flightsMutex) = 0;
  // One more than the revision of each part; 0: nothing was told in this epoch.
  std::uint64_t toldBefore_[kPartCount] APPCONFIG_GUARDED_BY(flightsMutex) = {};
};

}  // namespace AppConfig
