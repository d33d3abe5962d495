// LayerTable: what this process keeps about each message layer beside the object itself, whose fields
// and virtual functions are those that programs were built with: its number, and which of its
// registrations the service refused.
//
// A layer's record ends with the layer: the destructor of PbUtils says so (forgetLayer), so that
// another object at the same address begins anew.
//
// Threads:  any; one mutex, under which nothing else is taken.
// Forking:  a child has its parent's table. Whoever uses the table with a lock of its own held, which
//           fork takes too, calls watchForks before it registers that lock with pthread_atfork(3):
//           fork takes first what was registered last.
#pragma once

#include <cstdint>
#include <string>

namespace PbUtility {

class PbUtils;

class LayerTable {
 public:
  // Begins to take the mutex for forks; called once or often.
  static void watchForks();

  // 1 and up, and never that of another layer.
  static std::uint64_t numberOf(const PbUtils* layer);
  static void forget(const PbUtils* layer);

  // Whether any layer has a refused registration.
  static bool anyRefused();
  // Keys are those of platform/schema/registration_key.h.
  static bool isRefused(const PbUtils* layer, const std::string& endpointName,
                        const std::string& key);
  static std::string reasonOfAny(const PbUtils* layer, const std::string& endpointName);
  static void noteRefused(const PbUtils* layer, const std::string& endpointName,
                          const std::string& key, const std::string& reason);
  static void noteAccepted(const PbUtils* layer, const std::string& endpointName,
                           const std::string& key);
};

}  // namespace PbUtility
