// The library in front of a service that answers anything, and that announces and asks anything: the
// receivers as an endpoint calls them, and every request of the facade.
#include <unistd.h>

#include <array>
#include <new>
#include <set>
#include <utility>
#include <vector>

#include "appconfig/manager/app_cfg_manager.h"
#include "appconfig/registry/consumer_config_handler.h"
#include "appconfig/registry/provider_config_handler.h"
#include "appconfig/registry/registration.h"
#include "appconfig/service/platform_cfg_service.h"
#include "fuzz/input.h"
#include "fuzz/messages.h"
#include "fuzz/mutators.h"
#include "platform/messaging/client/internal/dispatch.h"
#include "platform/messaging/pb_utils.h"

namespace {

using AppConfig::AppCfgManager;
using AppConfig::PlatformCfgService;
using Fuzz::Input;
using Fuzz::require;
using PbUtility::FrameHeader;
using PbUtility::FrameKind;
using Strings = std::list<std::string>;

constexpr std::size_t kMaxSteps = 200;

// An endpoint whose far end is the input.
class HostileService final : public PbUtility::PbUtils {
 public:
  void addRemoteEndpoint(const std::string& /*name*/, int /*instance*/) override {}
  void addHandlers(const MSG_Callback* table) override {
    for (; table->receiver != nullptr; ++table) receivers_.push_back(*table);
  }
  std::string localEndpoint() const override { return "ui"; }
  int send(const google::protobuf::MessageLite& request, const std::string& /*endpoint*/,
           unsigned int* /*sequence*/) override {
    require(request.IsInitialized(), "a request is a whole message");
    Fuzz::observe(request.SerializeAsString());
    return answers_ != nullptr && answers_->byte() % 8 == 0 ? -1 : 0;
  }
  int sendWaitResponse(const google::protobuf::MessageLite& request,
                       google::protobuf::MessageLite* response,
                       const std::string& /*endpoint*/) override {
    Fuzz::observe(request.SerializeAsString());
    if (answers_ == nullptr) return -1;
    const std::string_view answer = answers_->piece();
    return response->ParseFromArray(answer.data(), static_cast<int>(answer.size())) ? 0 : -1;
  }

  // Null: nobody answers.
  void answerFrom(Input* input) { answers_ = input; }
  const std::vector<MSG_Callback>& receivers() const { return receivers_; }

 private:
  Input* answers_ = nullptr;
  std::vector<MSG_Callback> receivers_;
};

void requireFolded(const std::string& name) {
  for (const char c : name) require(c < 'A' || c > 'Z', "handlers are told names in lower case");
}

class Consumer final : public ConsumerConfigHandler {
 public:
  void configChanged(const std::string& group, int, const std::string& name, int, const Strings&,
                     const std::string&) override {
    requireFolded(group + name);
  }
  void submit(const std::string& group, int, const std::string& name, int, int,
              const std::string&) override {
    requireFolded(group + name);
  }
  void optionsChanged(const std::string& group, int, const std::string& name, int, const Strings&,
                      std::string) override {
    requireFolded(group + name);
  }
  void accessLevelsChanged(const std::string& group, int, const std::string& name, int,
                           AppConfig::SecurityRole, AppConfig::SecurityRole, std::string) override {
    requireFolded(group + name);
  }
};

// Says what it was asked, so that hostile text goes out again.
class Provider final : public ProviderConfigHandler {
 public:
  bool dynamicValidate(const std::string& group, int, const std::string& name, int,
                       const Strings& value, AppConfig::SecurityRole,
                       ConfigResult* result) override {
    requireFolded(group + name);
    if (!value.empty()) result->addResultMessage(value.front());
    return value.size() != 1;
  }
  bool onChange(const std::string& group, int, const std::string& name, int, const Strings& value,
                AppConfig::SecurityRole, ConfigResult* result) override {
    requireFolded(group + name);
    if (!value.empty()) result->addResultMessage(value.front());
    return true;
  }
};

// Link and facade live as long as the process: notices find them by their addresses. So that no input
// finds what another one has left, both are made anew for each, where they stand.
class Library {
 public:
  Library() {
    link_->~PlatformCfgService();
    new (link_) PlatformCfgService(0, "", "");
    manager_->~AppCfgManager();
    new (manager_) AppCfgManager(link_);
    manager_->setPbInterface(&service_);
  }

  void run(Input& input);

 private:
  void deliver(Input& input);
  void checkReplies(const FrameHeader& header, std::string_view replies) const;
  void call(Input& input);
  void callAboutOptionsOrAccess(std::uint8_t which, const ConfigVar& var, const std::string& text);

  PlatformCfgService* const link_ = PlatformCfgService::getLocalCfgService();
  AppCfgManager* const manager_ = AppCfgManager::getLocalCfgManager();
  HostileService service_;
  Consumer consumer_;
  Provider provider_;
};

void Library::run(Input& input) {
  service_.answerFrom(nullptr);
  registerHandler("net", "mtu", &consumer_, manager_);
  registerHandler("net", "mtu", &provider_, manager_);
  registerHandler("dev", &consumer_, manager_);
  for (std::size_t i = 0; i < kMaxSteps && !input.isOver(); ++i) {
    service_.answerFrom(&input);
    Fuzz::countStep();
    input.byte() % 2 == 0 ? deliver(input) : call(input);
  }
  service_.answerFrom(nullptr);
  unregisterAllHandlers(manager_);
}

// Puts into a payload the one thing that a hostile service can know and a corpus cannot: the name
// of the link, which holds the process's number.
std::string withLinkName(std::string_view payload) {
  static const std::string linkName =
      "PlatCfgSvc0-" + std::to_string(static_cast<int>(::getpid())) + "-0";
  constexpr std::string_view kPlaceholder = "LINK";
  std::string text(payload);
  const std::size_t at = text.find(kPlaceholder);
  if (at == std::string::npos || at == 0) return text;
  // The byte before it is its length.
  text[at - 1] = static_cast<char>(linkName.size());
  return text.replace(at, kPlaceholder.size(), linkName);
}

void Library::deliver(Input& input) {
  constexpr std::array<std::uint32_t, 8> kIds = {0x1A0150, 0x1A0100, 0x1A0143, 0x1A01A3,
                                                 0x1A0253, 0x1A0273, 0x1A0333, 0x1A0433};
  const std::uint8_t which = input.byte();
  FrameHeader header;
  header.messageId = kIds[which % kIds.size()];
  header.kind = which % kIds.size() < 2 ? FrameKind::Question : FrameKind::Notice;
  header.sequence = which;
  const std::string payload = withLinkName(input.piece());
  const std::string owner = "ConfigSrvc";
  const std::string replies =
      PbUtility::dispatch({header, payload, &owner, 1}, service_.receivers());
  Fuzz::observe(replies);
  checkReplies(header, replies);
}

// A notice has no reply; a question has answers that are messages, and then its end.
void Library::checkReplies(const FrameHeader& question, std::string_view replies) const {
  if (question.kind == FrameKind::Notice) return require(replies.empty(), "a notice has no reply");
  FrameHeader header;
  while (replies.size() >= PbUtility::kFrameHeaderBytes) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(replies.data());
    require(decodeHeader(bytes, header).ok(), "a reply is a frame");
    require(header.sequence == question.sequence, "a reply is one to its question");
    replies.remove_prefix(PbUtility::kFrameHeaderBytes);
    if (header.kind == FrameKind::Answer) {
      require(header.messageId == question.messageId + 1, "an answer is of its question's kind");
      Fuzz::requireMessage(header.messageId, replies.substr(0, header.payloadBytes));
    }
    replies.remove_prefix(header.payloadBytes);
  }
  require(replies.empty() && header.kind == FrameKind::Done, "a question comes to its end");
}

void Library::call(Input& input) {
  const std::uint8_t which = input.byte();
  const std::string text(input.piece());
  const ConfigVar var(which < 128 ? "net" : text, which % 3, which < 192 ? "mtu" : text, 0);
  ConfigResult result;
  Strings value{text};
  switch (which % 16) {
    case 0:
      return static_cast<void>(manager_->getConfigVar(var, value));
    case 1:
      return static_cast<void>(manager_->getConfigVar(var));
    case 2:
      return static_cast<void>(manager_->getConfigVarInt(var));
    case 3:
      return static_cast<void>(manager_->getConfigVarBool(var));
    case 4:
      return static_cast<void>(
          manager_->getConfigValue(var.group(), var.groupInstance(), var.name(), 0));
    case 5:
      return static_cast<void>(manager_->setConfigVar(var, value, &result));
    case 6:
      return static_cast<void>(manager_->isValid(var, value, &result));
    case 7:
      return static_cast<void>(manager_->resetValue(var.group(), 0, var.name(), 0));
    case 8:
      return static_cast<void>(manager_->isDefault(var.group(), 0, var.name(), 0));
    default:
      return callAboutOptionsOrAccess(which, var, text);
  }
}

void Library::callAboutOptionsOrAccess(std::uint8_t which, const ConfigVar& var,
                                       const std::string& text) {
  std::vector<std::string> options;
  unsigned int index = 0;
  AppConfig::SecurityRole read = AppConfig::eRolePublic;
  AppConfig::SecurityRole write = AppConfig::eRolePublic;
  std::list<std::pair<ConfigVar, eErrorT>> errors;
  switch (which % 16) {
    case 9:
      return static_cast<void>(manager_->getConfigOptions(var, options));
    case 10:
      return static_cast<void>(manager_->getConfigOptionDefaultIndex(var, index));
    case 11:
      return static_cast<void>(
          manager_->getConfigDefaultOptions(var.group(), 0, var.name(), 0, options));
    case 12:
      return static_cast<void>(
          manager_->setConfigOptions(var.group(), 0, var.name(), 0, {text}, 0));
    case 13:
      return static_cast<void>(manager_->getAccessLevels(var, &read, &write));
    case 14:
      return static_cast<void>(manager_->setAccessLevels({var, var}, &read, &write, errors));
    default:
      return static_cast<void>(manager_->removeVars(text));
  }
}

}  // namespace

// A delivery has its payload. A call has a text, and mostly one answer.
Fuzz::InputShape Fuzz::inputShape() {
  return {0, InputShape::Rest::Steps, [](std::string_view bytes) {
            return bytes.front() % 2 == 0 ? StepForm{2, Piece::Message}
                                          : StepForm{2, Piece::Bytes, Piece::Message};
          }};
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  Library().run(input);
  return 0;
}
