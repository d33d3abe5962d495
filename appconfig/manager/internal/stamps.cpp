// A hash table of its own for each cache: it is looked at once for each answer and each notice, and
// never by a read that the cache answers.
#include "appconfig/manager/internal/stamps.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace AppConfig {
namespace {

struct Hash {
  std::size_t operator()(const ConfigVar& key) const {
    const std::hash<std::string_view> hash;
    const auto instances = static_cast<std::size_t>(key.groupInstance()) * 31U +
                           static_cast<std::size_t>(key.nameInstance()) * 7U +
                           static_cast<std::size_t>(key.nameSpace());
    return hash(key.group()) * 3U + hash(key.name()) + instances;
  }
};

struct Equal {
  bool operator()(const ConfigVar& a, const ConfigVar& b) const {
    return a.nameInstance() == b.nameInstance() && a.groupInstance() == b.groupInstance() &&
           a.nameSpace() == b.nameSpace() && a.name() == b.name() && a.group() == b.group();
  }
};

using Records = std::unordered_map<ConfigVar, Stamps, Hash, Equal>;

// Of one cache. A process has as many as facades: two, as a rule.
struct CacheRecords {
  const ConfigCache* cache;
  Records records;
};

// Made when the first stamp is told, and never destroyed, so that threads which outlive main may
// still use it.
std::vector<CacheRecords>* allRecords APPCONFIG_GUARDED_BY(flightsMutex)
    APPCONFIG_PT_GUARDED_BY(flightsMutex) = nullptr;

Records& recordsOf(const ConfigCache& cache) APPCONFIG_REQUIRES(flightsMutex) {
  if (allRecords == nullptr) allRecords = new std::vector<CacheRecords>;
  for (CacheRecords& each : *allRecords) {
    if (each.cache == &cache) return each.records;
  }
  allRecords->push_back({&cache, {}});
  return allRecords->back().records;
}

unsigned indexOf(Parts part) {
  unsigned index = 0;
  while ((part >> index) > 1U) ++index;
  return index;
}

}  // namespace

Stamps& Stamps::of(const ConfigCache& cache, const ConfigVar& key) {
  return recordsOf(cache).try_emplace(key).first->second;
}

void Stamps::forget(const ConfigCache& cache) {
  if (allRecords == nullptr) return;
  const auto isIts = [&](const CacheRecords& each) { return each.cache == &cache; };
  allRecords->erase(std::remove_if(allRecords->begin(), allRecords->end(), isIts),
                    allRecords->end());
}

Age Stamps::ageOf(Parts part, const StateStamp& stamp) const {
  if (!stamp.isKnown() || epoch_ == 0) return Age::Unknown;
  if (stamp.epoch != epoch_) return stamp.epoch < epoch_ ? Age::Older : Age::Newer;
  const std::uint64_t known = toldBefore_[indexOf(part)];
  const std::uint64_t told = stamp.changedAt + 1;
  if (told == known) return Age::Same;
  return told < known ? Age::Older : Age::Newer;
}

// What was told of other parts in an epoch before says nothing in this one.
void Stamps::set(Parts part, const StateStamp& stamp) {
  if (!stamp.isKnown()) return;
  if (epoch_ != stamp.epoch) *this = Stamps();
  epoch_ = stamp.epoch;
  toldBefore_[indexOf(part)] = stamp.changedAt + 1;
}

}  // namespace AppConfig
