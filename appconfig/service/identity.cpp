// Who a link is: its instances, its names, its namespace, its role, and the endpoint it uses.
//
// The two process-wide instances are made under one mutex and read without it, so that first uses
// on several threads make one link, and later ones cost an atomic load.

#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <set>

#include "appconfig/core/internal/fork_lock.h"
#include "appconfig/service/platform_cfg_service.h"
#include "appconfig/wire/protobuf_message_helper.h"
#include "base/mutex.h"
#include "platform/messaging/msg.h"
#include "platform/messaging/pb_utils.h"
#include "platform/schema/config_if.pb.h"

namespace AppConfig {

namespace {

constexpr int kTheOnlyInstance = -1;

// Guards the making and replacing of the two instances, and which receivers are installed. The
// facade has a mutex of the same purpose, which is taken before this one; while this one is held,
// no other is taken and nothing outside this file is called.
Base::Mutex instancesMutex;

void hold() APPCONFIG_ACQUIRE(instancesMutex) { instancesMutex.lock(); }
void release() APPCONFIG_RELEASE(instancesMutex) { instancesMutex.unlock(); }

const ForkLock atFork(ForkLock::Place::Links, {hold, release, release});

// The numbers of the message layers on which a link has installed its receivers: a second time,
// each message would be told twice. Numbers, because an endpoint that takes a destroyed one's
// address has none of the receivers. Here rather than in the link, whose fields are laid down.
// Never destroyed, for links are not either.
std::map<const PlatformCfgService*, std::set<std::uint64_t>>& installedOn()
    APPCONFIG_REQUIRES(instancesMutex) {
  static auto* const installed = new std::map<const PlatformCfgService*, std::set<std::uint64_t>>;
  return *installed;
}

// Whether the receivers have yet to be installed there, which the caller then does.
bool takeInstalling(const PlatformCfgService* link, std::uint64_t layer) {
  const Base::MutexLock guard(instancesMutex);
  return installedOn()[link].insert(layer).second;
}

// std::to_string rather than a stream: a locale that groups digits must not get into the name.
std::string nameOfLink(int nameSpace) {
  const std::string number = std::to_string(nameSpace);
  // The namespace stands twice because services have stored names of this form.
  return "PlatCfgSvc" + number + "-" + std::to_string(getpid()) + "-" + number;
}

std::string fullName(std::string prefix, const std::string& last) {
  if (!prefix.empty() && prefix.back() != '/') prefix += '/';
  return prefix + last;
}

}  // namespace

std::atomic<PlatformCfgService*> PlatformCfgService::ms_instance{nullptr};
std::atomic<PlatformCfgService*> PlatformCfgService::ms_localInstance{nullptr};

PlatformCfgService::PlatformCfgService(int nameSpace, const std::string& linkToConfig,
                                       const std::string& linkToSelf)
    : pb_(nullptr),
      linkName_(nameOfLink(nameSpace)),
      securityRole_(CommonIF::SECURITY_ROLE_USER),
      nameSpace_(nameSpace),
      linkToConfig_(linkToConfig),
      linkToSelf_(linkToSelf) {}

PlatformCfgService* PlatformCfgService::getInstance() {
  if (PlatformCfgService* primary = ms_instance) return primary;
  PlatformCfgService* const local = getLocalCfgService();
  const Base::MutexLock guard(instancesMutex);
  if (!ms_instance) ms_instance = local;
  return ms_instance;
}

PlatformCfgService* PlatformCfgService::getLocalCfgService() {
  if (PlatformCfgService* local = ms_localInstance) return local;
  const Base::MutexLock guard(instancesMutex);
  if (!ms_localInstance) ms_localInstance = new PlatformCfgService(0, "", "");
  return ms_localInstance;
}

PlatformCfgService* PlatformCfgService::changePrimaryConfigService(int nameSpace,
                                                                   const std::string& linkToConfig,
                                                                   const std::string& linkToSelf,
                                                                   PbUtility::PbUtils* pb) {
  PlatformCfgService* primary = nullptr;
  {
    const Base::MutexLock guard(instancesMutex);
    if (ms_instance && ms_instance != ms_localInstance) return nullptr;
    primary = new PlatformCfgService(nameSpace, linkToConfig, linkToSelf);
    ms_instance = primary;
  }
  primary->setPbInterface(pb);
  return primary;
}

void PlatformCfgService::setPbInterface(PbUtility::PbUtils* pb) {
  if (!pb) return;
  const bool isAttached = pb_.exchange(pb) == pb;
  const bool isNew = takeInstalling(this, PbUtility::layerNumber(pb));
  if (isAttached && !isNew) return;
  pb->addRemoteEndpoint(getConfigFQName(), kTheOnlyInstance);
  if (!isNew) return;
  MSG_Callback receivers[kReceiverRecords];
  std::copy(std::begin(msgCallbacks), std::end(msgCallbacks), std::begin(receivers));
  for (MSG_Callback& record : receivers) {
    if (record.receiver) record.userData = this;
  }
  pb->addHandlers(receivers);
}

std::string PlatformCfgService::getConfigFQName() const {
  return fullName(linkToConfig_, "ConfigSrvc");
}

std::string PlatformCfgService::getSelfFQName() const {
  const PbUtility::PbUtils* const pb = pb_;
  return pb ? fullName(linkToSelf_, pb->localEndpoint()) : "";
}

SecurityRole PlatformCfgService::setSecurityRole(SecurityRole role) {
  return enumTranslate(securityRole_.exchange(enumTranslate(role)));
}

bool PlatformCfgService::isMatchingNamespace(int nameSpace, ConfigIF::Scope scope) const {
  return scope != ConfigIF::SCOPE_NAMESPACE || nameSpace == nameSpace_;
}

int PlatformCfgService::determineNamespace(const ConfigVar& var) const {
  return nameSpace_ != 0 ? nameSpace_ : var.nameSpace();
}

ConfigVar PlatformCfgService::keyForRequest(const ConfigVar& var) const {
  return ConfigVar(determineNamespace(var), var.group(), var.groupInstance(), var.name(),
                   var.nameInstance());
}

PlatformCfgService* PlatformCfgService::findMatchingCfgService(void* userData) {
  if (userData == getInstance()) return getInstance();
  if (userData == getLocalCfgService()) return getLocalCfgService();
  return nullptr;
}

PlatformCfgService* PlatformCfgService::findMatchingCfgService(void* userData,
                                                               const ConfigIF::Inst& inst) {
  PlatformCfgService* const link = findMatchingCfgService(userData);
  if (!link) return nullptr;
  const int nameSpace = ProtobufMessageHelper::getConfigVarNamespace(inst);
  return link->isMatchingNamespace(nameSpace, inst.scope()) ? link : nullptr;
}

bool PlatformCfgService::ask(const google::protobuf::MessageLite& request,
                             google::protobuf::MessageLite* response) const {
  PbUtility::PbUtils* const pb = pb_;
  return pb && pb->sendWaitResponse(request, response, getConfigFQName()) == 0;
}

bool PlatformCfgService::tell(const google::protobuf::MessageLite& request) const {
  PbUtility::PbUtils* const pb = pb_;
  return pb && pb->send(request, getConfigFQName(), nullptr) == 0;
}

}  // namespace AppConfig
