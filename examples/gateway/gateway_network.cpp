// gateway-network: the owner of everything below "network". It is asked before a value changes and
// may veto what this gateway's hardware cannot do; then it applies what was accepted.

#include <list>
#include <string>

#include "appconfig/manager/app_cfg_manager.h"
#include "appconfig/registry/provider_config_handler.h"
#include "appconfig/registry/registration.h"
#include "examples/gateway/hardware.h"
#include "examples/gateway/stop_signal.h"
#include "examples/gateway/text.h"
#include "platform/messaging/endpoint.h"

namespace {

using Gateway::keyText;
using Gateway::say;
using Gateway::valueText;

// Type and limits of the definition were checked before a provider is asked: an MTU is a number
// here, and an address has four parts.
std::string refusal(const std::string& group, int port, const std::string& name,
                    const std::list<std::string>& value) {
  if (group != "network.eth" || value.empty()) return {};
  if (name == "mtu") return Gateway::refusalOfMtu(port, value.front());
  if (name == "address") return Gateway::refusalOfAddress(value.front());
  return {};
}

class NetworkOwner final : public ProviderConfigHandler {
 public:
  bool dynamicValidate(const std::string& group, int groupInstance, const std::string& name,
                       int nameInstance, const std::list<std::string>& value,
                       AppConfig::SecurityRole /*requesterRole*/, ConfigResult* result) override {
    const std::string reason = refusal(group, groupInstance, name, value);
    if (reason.empty()) return true;
    say("refused: " + keyText(group, groupInstance, name, nameInstance) + " = " + valueText(value));
    result->addResultMessage(reason);
    return result->fillConfigResult(false, eErrVetoed, false);
  }

  bool onChange(const std::string& group, int groupInstance, const std::string& name,
                int nameInstance, const std::list<std::string>& value,
                AppConfig::SecurityRole /*requesterRole*/, ConfigResult* /*result*/) override {
    // A real owner would set up the port here, and put an error into the result if it cannot.
    say("applied: " + keyText(group, groupInstance, name, nameInstance) + " = " + valueText(value));
    return true;
  }
};

}  // namespace

int main() {
  const Gateway::StopSignal stop;
  NetworkOwner owner;
  PbUtility::Endpoint endpoint("gateway-network");
  AppConfig::AppCfgManager* config = AppConfig::AppCfgManager::getInstance();
  config->setPbInterface(&endpoint);
  registerHandler("network", &owner, config);
  say("gateway-network is ready");

  stop.wait();
  unregisterAllHandlers(config);
  return 0;
}
