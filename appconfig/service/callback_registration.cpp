// Keeps the service's list of callbacks in step with the handlers registered here: the first
// handler of a type for a variable costs one registration, later ones none.
//
// Asking whether something is registered and registering it are two steps, and no lock joins them,
// for the request between them may not be made under one. Two threads may therefore both register
// with the service; a service accepts a registration made twice.

#include "appconfig/service/platform_cfg_service.h"
#include "appconfig/wire/protobuf_message_helper.h"
#include "platform/messaging/registration_refusals.h"
#include "platform/schema/config_if.pb.h"

namespace AppConfig {

namespace {

// The order in which a consumer is registered and unregistered.
constexpr ConfigRegistrar::ConsumerCallbackType kConsumerTypes[] = {
    ConfigRegistrar::eValueChanged, ConfigRegistrar::eSubmit, ConfigRegistrar::eAttributeChanged,
    ConfigRegistrar::eOptionsChanged, ConfigRegistrar::eAccessLevelsChanged};

}  // namespace

bool PlatformCfgService::registerCallback(const ConfigVar& var, ConfigIF::CallbackType type) {
  ConfigIF::RegisterClientCallbackRsp response;
  return ask(ProtobufMessageHelper::getRegClientCallbackRequest(getSelfFQName(), securityRole_,
                                                                var.dottedName(), type, linkName_),
             &response) &&
         response.result().error() == CommonIF::ERROR_NONE;
}

bool PlatformCfgService::unregisterCallback(const ConfigVar& var, ConfigIF::CallbackType type) {
  ConfigIF::UnregisterClientCallbackRsp response;
  return ask(ProtobufMessageHelper::getUnregClientCallbackRequest(
                 getSelfFQName(), securityRole_, var.dottedName(), type, linkName_),
             &response) &&
         response.result().error() == CommonIF::ERROR_NONE;
}

bool PlatformCfgService::unregisterChangeCallback(const ConfigVar& var) {
  return unregisterCallback(var, ConfigIF::CALLBACK_VALUE_CHANGED);
}

bool PlatformCfgService::unregisterAttributeCallback(const ConfigVar& var) {
  return unregisterCallback(var, ConfigIF::CALLBACK_ATTRIBUTE_CHANGED);
}

bool PlatformCfgService::unregisterOptionsCallback(const ConfigVar& var) {
  return unregisterCallback(var, ConfigIF::CALLBACK_OPTIONS_CHANGED);
}

bool PlatformCfgService::unregisterSubmitCallback(const ConfigVar& var) {
  return unregisterCallback(var, ConfigIF::CALLBACK_SUBMIT);
}

bool PlatformCfgService::unregisterAccessLevelsCallback(const ConfigVar& var) {
  return unregisterCallback(var, ConfigIF::CALLBACK_ACCESS_LEVELS_CHANGED);
}

void PlatformCfgService::unregisterAllCallbacks() {
  tell(ProtobufMessageHelper::getUnregAllClientCallbacksRequest(getSelfFQName()));
}

// Nearly always one look at a number.
bool PlatformCfgService::isTold(const ConfigVar& var, ConsumerCallbackType type) const {
  if (!PbUtility::isAnyRegistrationRefused()) return true;
  return !PbUtility::isRegistrationRefused(
      pb_, getConfigFQName(),
      ProtobufMessageHelper::getRegClientCallbackRequest(
          getSelfFQName(), securityRole_, var.dottedName(), enumTranslate(type), linkName_));
}

// Both take a copy, for what they are given may be the key of an entry that is about to change.
// NOLINTBEGIN(performance-unnecessary-value-param)
bool PlatformCfgService::registerHandlerProactively(ConfigVar var, ConsumerCallbackType type) {
  if (!isHandlerRegistered(var, type)) registerMarker(var, type);
  return true;
}

PlatformCfgService::Coverage PlatformCfgService::coverageOf(const ConfigVar& var,
                                                            ConsumerCallbackType type) {
  // Counted before the look: when something is unregistered in between, registerAfterAnswer looks
  // again.
  const unsigned before = unregistrations();
  return {isHandlerRegistered(var, type), before};
}

void PlatformCfgService::registerAfterAnswer(const ConfigVar& var, ConsumerCallbackType type,
                                             const Coverage& before) {
  const bool mayHaveGone = unregistrations() != before.unregistrations;
  const bool isCovered = before.isRegistered && (!mayHaveGone || isHandlerRegistered(var, type));
  if (!isCovered) registerMarker(var, type);
}

void PlatformCfgService::registerMarker(const ConfigVar& var, ConsumerCallbackType type) {
  registerCallback(var, enumTranslate(type));
  ConfigRegistrar::registerHandler(var, nullptr, type);
}

void PlatformCfgService::registerHandlerRequested(ConfigVar var, ConsumerConfigHandler* handler,
                                                  ConsumerCallbackType type) {
  if (!isHandlerRegistered(var, type)) registerCallback(var, enumTranslate(type));
  ConfigRegistrar::registerHandler(var, handler, type);
}
// NOLINTEND(performance-unnecessary-value-param)

void PlatformCfgService::registerHandler(const std::string& group, const std::string& name,
                                         ConsumerConfigHandler* handler) {
  const ConfigVar key(group, 0, name, 0);
  for (const ConsumerCallbackType type : kConsumerTypes)
    registerHandlerRequested(key, handler, type);
}

void PlatformCfgService::registerHandler(const std::string& group, const std::string& name,
                                         ProviderConfigHandler* handler) {
  const ConfigVar key(group, 0, name, 0);
  if (!isProviderHandlerRegistered(key)) {
    // Validation first: no change may be announced to a provider that was not asked.
    registerCallback(key, ConfigIF::CALLBACK_DYNAMIC_VALIDATE);
    registerCallback(key, ConfigIF::CALLBACK_ON_CHANGE);
  }
  ConfigRegistrar::registerHandler(key, handler);
}

void PlatformCfgService::unregisterHandler(const std::string& group, const std::string& name,
                                           ConsumerConfigHandler* handler) {
  const ConfigVar key(group, 0, name, 0);
  for (const ConsumerCallbackType type : kConsumerTypes)
    ConfigRegistrar::unregisterHandler(key, handler, type);
}

void PlatformCfgService::unregisterHandler(const std::string& group, const std::string& name,
                                           ProviderConfigHandler* handler) {
  ConfigRegistrar::unregisterHandler(ConfigVar(group, 0, name, 0), handler);
}

void PlatformCfgService::endHandler(const ConfigVar& key, ConsumerConfigHandler* handler) {
  for (const ConsumerCallbackType type : kConsumerTypes) endRegistration(key, handler, type);
}

void PlatformCfgService::endHandler(const ConfigVar& key, ProviderConfigHandler* handler) {
  endRegistration(key, handler);
}

}  // namespace AppConfig
