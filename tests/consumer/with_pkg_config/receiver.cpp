// Takes the messages themselves, as a message layer of a device's own would, beside the library.
#include <cstdio>
#include <future>

#include "appconfig/manager/app_cfg_manager.h"
#include "platform/messaging/endpoint.h"
#include "platform/messaging/msg.h"

namespace {

constexpr std::uint32_t kValueChanged = 0x1A0143;

void receive(void* userData, const MSG_Message* message) {
  char owner[64];
  MSG_GetOwnerName(message, owner, sizeof owner);
  const bool complete = MSG_GetPayload(message) != nullptr && MSG_GetPayloadBytes(message) > 0 &&
                        MSG_GetSender(message) != 0;
  std::printf("%s: 0x%X from %s\n", complete ? "received" : "incomplete",
              static_cast<unsigned>(MSG_GetMessageId(message)), owner);
  static_cast<std::promise<void>*>(userData)->set_value();
}

}  // namespace

int main() {
  PbUtility::Endpoint endpoint("receiver");
  std::promise<void> received;
  const MSG_Callback table[] = {{receive, &received, kValueChanged, kValueChanged, 0}, {}};
  endpoint.addHandlers(table);
  AppConfig::AppCfgManager* config = AppConfig::AppCfgManager::getInstance();
  config->setPbInterface(&endpoint);
  if (config->getConfigVarInt("room", 0, "target", 0) != 20) return 1;
  std::puts("ready");
  std::fflush(stdout);
  received.get_future().wait();
  return 0;
}
