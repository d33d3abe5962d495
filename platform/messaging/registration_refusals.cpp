#include "platform/messaging/registration_refusals.h"

#include <google/protobuf/message_lite.h>

#include <algorithm>

#include "platform/messaging/internal/layer_table.h"
#include "platform/schema/message_ids.h"
#include "platform/schema/registration_key.h"

namespace PbUtility {
namespace {

using google::protobuf::MessageLite;

std::string keyOf(const MessageLite& registration) {
  const std::uint32_t id = PlatformSchema::messageIdOf(registration);
  if (!PlatformSchema::isRepeatedOnReconnect(id)) return {};
  return PlatformSchema::registrationKey(id, registration.SerializeAsString());
}

}  // namespace

bool isAnyRegistrationRefused() { return LayerTable::anyRefused(); }

bool isRegistrationRefused(const PbUtils* layer, const std::string& endpointName,
                           const MessageLite& registration) {
  if (!LayerTable::anyRefused()) return false;
  const std::vector<std::string> keys = PlatformSchema::coveringKeys(
      PlatformSchema::messageIdOf(registration), registration.SerializeAsString());
  return std::any_of(keys.begin(), keys.end(), [&](const std::string& key) {
    return LayerTable::isRefused(layer, endpointName, key);
  });
}

std::string registrationRefusal(const PbUtils* layer, const std::string& endpointName) {
  return LayerTable::anyRefused() ? LayerTable::reasonOfAny(layer, endpointName) : std::string();
}

void noteRegistrationRefused(const PbUtils* layer, const std::string& endpointName,
                             const MessageLite& registration, const std::string& reason) {
  const std::string key = keyOf(registration);
  if (layer != nullptr && !key.empty()) LayerTable::noteRefused(layer, endpointName, key, reason);
}

void noteRegistrationAccepted(const PbUtils* layer, const std::string& endpointName,
                              const MessageLite& registration) {
  if (LayerTable::anyRefused()) LayerTable::noteAccepted(layer, endpointName, keyOf(registration));
}

}  // namespace PbUtility
