// One table for the process. Reads of variables ask it whether they may be kept, and almost always
// nothing is refused: refusedInAll says so without the mutex.
#include "platform/messaging/internal/layer_table.h"

#include <pthread.h>

#include <atomic>
#include <map>
#include <utility>

#include "base/mutex.h"
#include "platform/messaging/pb_utils.h"

namespace PbUtility {
namespace {

struct Layer {
  std::uint64_t number = 0;
  // By endpoint name and key: the reason.
  std::map<std::pair<std::string, std::string>, std::string> refused;
};

// Never destroyed: layers of static storage end after it would have been.
struct Table {
  Base::Mutex mutex;
  std::uint64_t lastNumber APPCONFIG_GUARDED_BY(mutex) = 0;
  std::map<const PbUtils*, Layer> layers APPCONFIG_GUARDED_BY(mutex);
};

Table& table() {
  static Table* const table = new Table;
  return *table;
}

std::atomic<std::size_t> refusedInAll{0};

// The layer's record; null when there is none.
Layer* find(const PbUtils* layer) APPCONFIG_REQUIRES(table().mutex) {
  const auto found = table().layers.find(layer);
  return found == table().layers.end() ? nullptr : &found->second;
}

Layer& recordOf(const PbUtils* layer) APPCONFIG_REQUIRES(table().mutex) {
  Layer& record = table().layers[layer];
  if (record.number == 0) record.number = ++table().lastNumber;
  return record;
}

}  // namespace

void LayerTable::watchForks() {
  static pthread_once_t once = PTHREAD_ONCE_INIT;
  pthread_once(&once, [] {
    const auto hold = []() APPCONFIG_ACQUIRE(table().mutex) { table().mutex.lock(); };
    const auto release = []() APPCONFIG_RELEASE(table().mutex) { table().mutex.unlock(); };
    pthread_atfork(hold, release, release);
  });
}

std::uint64_t LayerTable::numberOf(const PbUtils* layer) {
  watchForks();
  const Base::MutexLock guard(table().mutex);
  return recordOf(layer).number;
}

void LayerTable::forget(const PbUtils* layer) {
  const Base::MutexLock guard(table().mutex);
  const auto found = table().layers.find(layer);
  if (found == table().layers.end()) return;
  refusedInAll -= found->second.refused.size();
  table().layers.erase(found);
}

bool LayerTable::anyRefused() { return refusedInAll != 0; }

bool LayerTable::isRefused(const PbUtils* layer, const std::string& endpointName,
                           const std::string& key) {
  const Base::MutexLock guard(table().mutex);
  const Layer* const record = find(layer);
  return record != nullptr && record->refused.count({endpointName, key}) != 0;
}

std::string LayerTable::reasonOfAny(const PbUtils* layer, const std::string& endpointName) {
  const Base::MutexLock guard(table().mutex);
  const Layer* const record = find(layer);
  if (record == nullptr) return {};
  const auto first = record->refused.lower_bound({endpointName, ""});
  const bool isThere = first != record->refused.end() && first->first.first == endpointName;
  return isThere ? first->second : std::string();
}

void LayerTable::noteRefused(const PbUtils* layer, const std::string& endpointName,
                             const std::string& key, const std::string& reason) {
  watchForks();
  const Base::MutexLock guard(table().mutex);
  auto& refused = recordOf(layer).refused;
  const std::size_t before = refused.size();
  refused[{endpointName, key}] = reason;
  refusedInAll += refused.size() - before;
}

void LayerTable::noteAccepted(const PbUtils* layer, const std::string& endpointName,
                              const std::string& key) {
  const Base::MutexLock guard(table().mutex);
  Layer* const record = find(layer);
  if (record != nullptr) refusedInAll -= record->refused.erase({endpointName, key});
}

std::uint64_t layerNumber(const PbUtils* layer) { return LayerTable::numberOf(layer); }

void forgetLayer(const PbUtils* layer) noexcept { LayerTable::forget(layer); }

}  // namespace PbUtility
