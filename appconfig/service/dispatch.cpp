// The one file of this folder that includes manager: a notice has to reach the cache, and the cache
// belongs to the facade over the link. Everything else here is below manager, so the target of this
// file is one of its own.
//
// Each receiver parses its payload, calls the handler of that message and sends what the handler
// returns. A payload that would unfold to too much counts as one that cannot be parsed. A notice
// for somebody else is dropped without a word; a provider's question is always answered, for the
// service waits. A handler that throws ends the program (handler_call.h).

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string_view>
#include <type_traits>
#include <utility>

#include "appconfig/manager/app_cfg_manager.h"
#include "appconfig/registry/consumer_config_handler.h"
#include "appconfig/registry/internal/handler_walk.h"
#include "appconfig/registry/provider_config_handler.h"
#include "appconfig/service/internal/handler_call.h"
#include "appconfig/service/platform_cfg_service.h"
#include "appconfig/wire/protobuf_message_helper.h"
#include "platform/messaging/msg.h"
#include "platform/schema/config_if.pb.h"
#include "platform/schema/message_bounds.h"

namespace AppConfig {

namespace {

constexpr int kOwnerNameBytes = 128;

// A variable as an incoming message names it. A message's namespace only decides whom it is for.
struct Name {
  std::string group;
  int groupInstance = 0;
  std::string name;
  int nameInstance = 0;

  [[nodiscard]] bool readFrom(const ConfigIF::Inst& inst) {
    return ProtobufMessageHelper::getConfigVarName(group, groupInstance, name, nameInstance,
                                                   inst) == 0;
  }
  ConfigVar key() const { return ConfigVar(group, groupInstance, name, nameInstance); }

  // One operation of a handler of this variable.
  template <typename Call>
  auto calling(const char* operation, Call call) const {
    return callHandler(
        operation, [this] { return key().dottedName(); }, call);
  }
};

// The handlers of one message, one after another. Those whose registration ends before their turn comes
// are left out.
template <typename Handler>
class Called {
 public:
  using Type = ConfigRegistrar::ConsumerCallbackType;

  // Providers are registered without a type.
  Called(PlatformCfgService& link, const Name& var, Type type = ConfigRegistrar::eValueChanged)
      : link_(link), var_(var), type_(type), left_(lookUp()) {}

  // Null behind the last.
  Handler* next() {
    if (std::exchange(isBegun_, true)) left_.pop_front();
    while (!left_.empty() && !walk_.begin(left_.front()) && !isStillMeant(left_.front()))
      left_.pop_front();
    return left_.empty() ? nullptr : left_.front();
  }

 private:
  std::list<Handler*> lookUp() const {
    if constexpr (std::is_same_v<Handler, ProviderConfigHandler>)
      return link_.getProviderHandlers(var_.group, var_.name);
    else
      return link_.getHandlers(var_.group, var_.name, type_);
  }

  // As often as it is registered now, for each of its registrations is one call.
  bool isStillMeant(Handler* handler) const {
    const std::list<Handler*> now = lookUp();
    return std::count(now.begin(), now.end(), handler) >=
           std::count(left_.begin(), left_.end(), handler);
  }

  PlatformCfgService& link_;
  const Name& var_;
  const Type type_;
  // Before the lookup, so that it knows of every end that the lookup may not have seen.
  HandlerWalk walk_;
  // The one that is being called first.
  std::list<Handler*> left_;
  bool isBegun_ = false;
};

using Consumers = Called<ConsumerConfigHandler>;
using Providers = Called<ProviderConfigHandler>;

void sendReply(const MSG_Message* incoming, MSG_Message* reply) {
  char owner[kOwnerNameBytes];
  MSG_GetOwnerName(incoming, owner, kOwnerNameBytes);
  MSG_SendMsg(owner, MSG_GetSender(incoming), reply);
}

template <typename Payload, std::uint32_t messageId,
          MSG_Message* (*handler)(const Payload&, const MSG_Message*, void*)>
void receive(void* userData, const MSG_Message* message) {
  Payload payload;
  const std::string_view bytes(static_cast<const char*>(MSG_GetPayload(message)),
                               static_cast<std::size_t>(MSG_GetPayloadBytes(message)));
  if (!PlatformSchema::readMessage(messageId, bytes, payload).ok()) {
    std::printf("Parse Error\n");
    return;
  }
  if (MSG_Message* const reply = handler(payload, message, userData)) sendReply(message, reply);
}

template <typename Question>
ConfigResult resultFor(const Question& question) {
  ConfigResult result;
  result.setServerContext(question.server_context());
  result.setClientName(question.client_name());
  return result;
}

// Variable and value of a provider's question; false, and the reason in the result, when the
// message does not hold them.
template <typename Question>
bool readQuestion(const Question& question, Name& name, std::list<std::string>& value,
                  ConfigResult& result) {
  if (!name.readFrom(question.value().inst())) {
    result.addResultMessage("unable to parse variable name");
    return false;
  }
  if (ProtobufMessageHelper::getConfigVarValue(value, question.value()) != 0) {
    result.addResultMessage("unable to parse value");
    return false;
  }
  return true;
}

ConfigAccessLevels levelsIn(const ConfigIF::AccessLevelChangedNtfy& notice) {
  ConfigAccessLevels levels;
  levels.readRoleSet = notice.has_read_role();
  levels.writeRoleSet = notice.has_write_role();
  if (levels.readRoleSet) levels.readRole = PlatformCfgService::enumTranslate(notice.read_role());
  if (levels.writeRoleSet)
    levels.writeRole = PlatformCfgService::enumTranslate(notice.write_role());
  return levels;
}

void validateWithProviders(PlatformCfgService& link, const ConfigIF::DynamicValidateReq& request,
                           ConfigResult& result) {
  Name var;
  std::list<std::string> value;
  if (!readQuestion(request, var, value, result)) return;
  const SecurityRole role = PlatformCfgService::enumTranslate(request.role());
  for (Providers asked(link, var); ProviderConfigHandler* provider = asked.next();) {
    const bool goesOn = var.calling("dynamicValidate", [&] {
      return provider->dynamicValidate(var.group, var.groupInstance, var.name, var.nameInstance,
                                       value, role, &result);
    });
    if (!goesOn) return;
  }
}

// The cache first, so that a provider which reads the variable sees what it is told about.
template <typename StoreInCache>
void changeAtProviders(PlatformCfgService& link, const ConfigIF::OnChangeReq& request,
                       ConfigResult& result, StoreInCache storeInCache) {
  Name var;
  std::list<std::string> value;
  if (!readQuestion(request, var, value, result)) return;
  storeInCache(var.key(), value);
  const SecurityRole role = PlatformCfgService::enumTranslate(request.role());
  for (Providers asked(link, var); ProviderConfigHandler* provider = asked.next();) {
    var.calling("onChange", [&] {
      return provider->onChange(var.group, var.groupInstance, var.name, var.nameInstance, value,
                                role, &result);
    });
  }
}

}  // namespace

using Link = PlatformCfgService;

const MSG_Callback PlatformCfgService::msgCallbacks[kReceiverRecords] = {
    {receive<ConfigIF::DynamicValidateReq, 0x1A0150, &Link::dynamicValidateHandler>, nullptr,
     0x1A0150, 0x1A0150, 0},
    {receive<ConfigIF::OnChangeReq, 0x1A0100, &Link::onChangeHandler>, nullptr, 0x1A0100, 0x1A0100,
     0},
    {receive<ConfigIF::ConfigChangedNtfy, 0x1A0143, &Link::configChangedHandler>, nullptr, 0x1A0143,
     0x1A0143, 0},
    {receive<ConfigIF::AttributeChangedNtfy, 0x1A01A3, &Link::attributeChangedHandler>, nullptr,
     0x1A01A3, 0x1A01A3, 0},
    {receive<ConfigIF::OptionsChangedNtfy, 0x1A0253, &Link::optionsChangedHandler>, nullptr,
     0x1A0253, 0x1A0253, 0},
    {receive<ConfigIF::SubmitNtfy, 0x1A0273, &Link::submitHandler>, nullptr, 0x1A0273, 0x1A0273, 0},
    {receive<ConfigIF::AccessLevelChangedNtfy, 0x1A0333, &Link::accessLevelsChangedHandler>,
     nullptr, 0x1A0333, 0x1A0333, 0},
    {nullptr, nullptr, 0, 0, 0},
};

AppCfgManager* PlatformCfgService::findMatchingCfgManager(void* userData) {
  if (userData == getInstance()) return AppCfgManager::getInstance();
  if (userData == getLocalCfgService()) return AppCfgManager::getLocalCfgManager();
  return nullptr;
}

MSG_Message* PlatformCfgService::dynamicValidateHandler(const ConfigIF::DynamicValidateReq& request,
                                                        const MSG_Message* message,
                                                        void* userData) {
  ConfigResult result = resultFor(request);
  if (Link* const link = findMatchingCfgService(userData, request.value().inst()))
    validateWithProviders(*link, request, result);
  else
    result.addResultMessage("Not intersted");  // sic: services compare this text
  return msgUtil_buildMsgWithHeader(ProtobufMessageHelper::getDynamicValidateResponse(result),
                                    message, nullptr);
}

MSG_Message* PlatformCfgService::onChangeHandler(const ConfigIF::OnChangeReq& request,
                                                 const MSG_Message* message, void* userData) {
  ConfigResult result = resultFor(request);
  Link* const link = findMatchingCfgService(userData, request.value().inst());
  AppCfgManager* const manager = findMatchingCfgManager(userData);
  const auto storeInCache = [&](const ConfigVar& key, const std::list<std::string>& value) {
    manager->takeTentative(key, value, stampIn(request));
  };
  if (link && manager)
    changeAtProviders(*link, request, result, storeInCache);
  else
    result.addResultMessage("Not interested");  // spelled otherwise than above: both are known
  return msgUtil_buildMsgWithHeader(ProtobufMessageHelper::getOnChangeResponse(result), message,
                                    nullptr);
}

MSG_Message* PlatformCfgService::configChangedHandler(const ConfigIF::ConfigChangedNtfy& notice,
                                                      const MSG_Message* /*message*/,
                                                      void* userData) {
  Link* const link = findMatchingCfgService(userData, notice.value().inst());
  AppCfgManager* const manager = findMatchingCfgManager(userData);
  if (!link || !manager) return nullptr;
  Name var;
  std::list<std::string> value;
  if (!var.readFrom(notice.value().inst())) return nullptr;
  if (ProtobufMessageHelper::getConfigVarValue(value, notice.value()) != 0) return nullptr;
  if (notice.callback_identity() != link->linkName_) return nullptr;
  // A service that does not say leaves the flag as it was.
  const bool isDefault = notice.is_default();
  manager->takeAnnounced(var.key(), value, notice.has_is_default() ? &isDefault : nullptr,
                         stampIn(notice));
  for (Consumers told(*link, var, eValueChanged); ConsumerConfigHandler* consumer = told.next();) {
    var.calling("configChanged", [&] {
      consumer->configChanged(var.group, var.groupInstance, var.name, var.nameInstance, value,
                              notice.callback_identity());
    });
  }
  return nullptr;
}

// Received so that it is consumed; nothing is cached of attributes and consumers are not told.
MSG_Message* PlatformCfgService::attributeChangedHandler(
    const ConfigIF::AttributeChangedNtfy& /*notice*/, const MSG_Message* /*message*/,
    void* /*userData*/) {
  return nullptr;
}

MSG_Message* PlatformCfgService::optionsChangedHandler(const ConfigIF::OptionsChangedNtfy& notice,
                                                       const MSG_Message* /*message*/,
                                                       void* userData) {
  Link* const link = findMatchingCfgService(userData, notice.inst());
  AppCfgManager* const manager = findMatchingCfgManager(userData);
  if (!link || !manager || notice.callback_identity() != link->linkName_) return nullptr;
  Name var;
  if (!var.readFrom(notice.inst())) return nullptr;
  Consumers told(*link, var, eOptionsChanged);
  std::list<std::string> options;
  ProtobufMessageHelper::getStringList(options, notice.options());
  // As with the default flag: a service that does not say leaves the index as it was.
  const unsigned int index = notice.default_index();
  manager->takeAnnouncedOptions(var.key(), options, notice.has_default_index() ? &index : nullptr,
                                stampIn(notice));
  while (ConsumerConfigHandler* const consumer = told.next()) {
    var.calling("optionsChanged", [&] {
      consumer->optionsChanged(var.group, var.groupInstance, var.name, var.nameInstance, options,
                               notice.callback_identity());
    });
  }
  return nullptr;
}

MSG_Message* PlatformCfgService::submitHandler(const ConfigIF::SubmitNtfy& notice,
                                               const MSG_Message* /*message*/, void* userData) {
  Link* const link = findMatchingCfgService(userData, notice.inst());
  if (!link || notice.callback_identity() != link->linkName_) return nullptr;
  Name var;
  if (!var.readFrom(notice.inst())) return nullptr;
  for (Consumers told(*link, var, eSubmit); ConsumerConfigHandler* consumer = told.next();) {
    var.calling("submit", [&] {
      consumer->submit(var.group, var.groupInstance, var.name, var.nameInstance,
                       enumTranslate(notice.type()), notice.callback_identity());
    });
  }
  return nullptr;
}

MSG_Message* PlatformCfgService::accessLevelsChangedHandler(
    const ConfigIF::AccessLevelChangedNtfy& notice, const MSG_Message* /*message*/,
    void* userData) {
  Link* const link = findMatchingCfgService(userData, notice.inst());
  AppCfgManager* const manager = findMatchingCfgManager(userData);
  if (!link || !manager || notice.callback_identity() != link->linkName_) return nullptr;
  Name var;
  if (!var.readFrom(notice.inst())) return nullptr;
  Consumers told(*link, var, eAccessLevelsChanged);
  const ConfigAccessLevels levels = levelsIn(notice);
  manager->takeAnnouncedLevels(var.key(), levels, stampIn(notice));
  while (ConsumerConfigHandler* const consumer = told.next()) {
    var.calling("accessLevelsChanged", [&] {
      consumer->accessLevelsChanged(var.group, var.groupInstance, var.name, var.nameInstance,
                                    levels.readRole, levels.writeRole, notice.callback_identity());
    });
  }
  return nullptr;
}

}  // namespace AppConfig
