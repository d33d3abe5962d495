// A handler may call anything: every public operation from inside every kind of handler, about the
// variable that the handler is called for and about another one, alone and while another thread does
// the same. Each works or returns an error, and none hangs: the service would wait for its provider
// for an hour and the library for its answer likewise, so a call that has to wait for its own
// handler's return does not get by unseen.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>

#include "appconfig/service/platform_cfg_service.h"
#include "platform/schema/config_if.pb.h"
#include "tests/integration/application.h"
#include "tests/integration/fixture.h"
#include "tests/support/watchdog.h"

namespace TestSupport {
namespace {

using AppConfig::AppCfgManager;
using AppConfig::PlatformCfgService;
using AppConfig::SecurityRole;
using std::chrono::hours;
using std::chrono::milliseconds;
using Strings = std::list<std::string>;

// Both take whatever the operations write: a number, the two spellings of true, a text.
const char* const kBothAlike = R"(
[variable."net.own"]
type = "enumeration"
options = ["auto", "manual", "5", "true", "True"]
default = "auto"

[variable."net.other"]
type = "enumeration"
options = ["auto", "manual", "5", "true", "True"]
default = "auto"
)";

// What an operation is called with.
struct Call {
  AppCfgManager* config;
  PbUtility::PbUtils* endpoint;
  ConsumerConfigHandler* consumer;
  ProviderConfigHandler* provider;
  std::string name;

  static constexpr const char* group = "net";
  ConfigVar var() const { return ConfigVar(group, 0, name, 0); }
  PlatformCfgService& link() const { return *config->getPlatformCfgService(); }
};

struct Operation {
  const char* name;
  void (*run)(const Call& call);
  // What it leaves behind would keep the next notice or question from coming.
  bool undoesRegistrations = false;
};

const SecurityRole kUser = AppConfig::eRoleUser;
const auto kValue = ConfigRegistrar::eValueChanged;

const Operation kOperations[] = {
    {"AppCfgManager::getInstance", [](const Call&) { AppCfgManager::getInstance(); }},
    {"AppCfgManager::getLocalCfgManager", [](const Call&) { AppCfgManager::getLocalCfgManager(); }},
    {"AppCfgManager::AppCfgManager", [](const Call& c) { AppCfgManager made(&c.link()); }},
    {"getPlatformCfgService", [](const Call& c) { c.config->getPlatformCfgService(); }},
    {"setSecurityRole", [](const Call& c) { c.config->setSecurityRole(AppConfig::eRoleFactory); }},
    {"setPbInterface", [](const Call& c) { c.config->setPbInterface(c.endpoint); }},
    {"setPbInterface(null)", [](const Call& c) { c.config->setPbInterface(nullptr); }},
    {"changePrimaryConfigService",
     [](const Call&) { AppCfgManager::changePrimaryConfigService(3, "nowhere", "", nullptr); }},
    {"removeVars", [](const Call& c) { c.config->removeVars(c.group); }},
    {"retrieveConfigVar", [](const Call& c) { c.config->retrieveConfigVar(c.var()); }},
    {"getConfigVar(var, list)",
     [](const Call& c) {
       Strings out;
       c.config->getConfigVar(c.var(), out);
     }},
    {"getConfigVar(parts, list)",
     [](const Call& c) {
       Strings out;
       c.config->getConfigVar(c.group, 0, c.name, 0, out);
     }},
    {"getConfigVar(var), uncached",
     [](const Call& c) {
       c.config->removeVars(c.group);
       c.config->getConfigVar(c.var());
     }},
    {"getConfigVar(var)", [](const Call& c) { c.config->getConfigVar(c.var()); }},
    {"getConfigVar(parts)", [](const Call& c) { c.config->getConfigVar(c.group, 0, c.name, 0); }},
    {"getConfigVarInt(var)", [](const Call& c) { c.config->getConfigVarInt(c.var()); }},
    {"getConfigVarInt(parts)",
     [](const Call& c) { c.config->getConfigVarInt(c.group, 0, c.name, 0); }},
    {"getConfigVarBool(var)", [](const Call& c) { c.config->getConfigVarBool(c.var()); }},
    {"getConfigVarBool(parts)",
     [](const Call& c) { c.config->getConfigVarBool(c.group, 0, c.name, 0); }},
    {"isDefault", [](const Call& c) { c.config->isDefault(c.group, 0, c.name, 0); }},
    {"getConfigValue", [](const Call& c) { c.config->getConfigValue(c.group, 0, c.name, 0); }},
    {"getConfigValue, uncached",
     [](const Call& c) {
       c.config->removeVars(c.group);
       c.config->getConfigValue(c.group, 0, c.name, 0);
     }},

    {"setConfigVar(var, list)",
     [](const Call& c) { c.config->setConfigVar(c.var(), Strings{"manual"}); }},
    {"setConfigVar(var, int)", [](const Call& c) { c.config->setConfigVar(c.var(), 5); }},
    {"setConfigVar(var, bool)", [](const Call& c) { c.config->setConfigVar(c.var(), true); }},
    {"setConfigVar(var, text)", [](const Call& c) { c.config->setConfigVar(c.var(), "manual"); }},
    {"setConfigVar(var, string)",
     [](const Call& c) { c.config->setConfigVar(c.var(), std::string("auto")); }},
    {"setConfigVar(parts, list)",
     [](const Call& c) { c.config->setConfigVar(c.group, 0, c.name, 0, Strings{"manual"}); }},
    {"setConfigVar(parts, int)",
     [](const Call& c) { c.config->setConfigVar(c.group, 0, c.name, 0, 5); }},
    {"setConfigVar(parts, bool)",
     [](const Call& c) { c.config->setConfigVar(c.group, 0, c.name, 0, true); }},
    {"setConfigVar(parts, text)",
     [](const Call& c) { c.config->setConfigVar(c.group, 0, c.name, 0, "manual"); }},
    {"setConfigVar(parts, string)",
     [](const Call& c) { c.config->setConfigVar(c.group, 0, c.name, 0, std::string("auto")); }},
    {"setConfigVar(var, list, result)",
     [](const Call& c) {
       ConfigResult result;
       c.config->setConfigVar(c.var(), Strings{"manual"}, &result);
     }},
    {"setConfigVar(var, int, result)",
     [](const Call& c) {
       ConfigResult result;
       c.config->setConfigVar(c.var(), 5, &result);
     }},
    {"setConfigVar(var, bool, result)",
     [](const Call& c) {
       ConfigResult result;
       c.config->setConfigVar(c.var(), true, &result);
     }},
    {"setConfigVar(var, text, result)",
     [](const Call& c) {
       ConfigResult result;
       c.config->setConfigVar(c.var(), "manual", &result);
     }},
    {"setConfigVar(var, string, null result)",
     [](const Call& c) { c.config->setConfigVar(c.var(), std::string("auto"), nullptr); }},
    {"setConfigVar(parts, list, result)",
     [](const Call& c) {
       ConfigResult result;
       c.config->setConfigVar(c.group, 0, c.name, 0, Strings{"manual"}, &result);
     }},
    {"setConfigVar(parts, int, result)",
     [](const Call& c) {
       ConfigResult result;
       c.config->setConfigVar(c.group, 0, c.name, 0, 5, &result);
     }},
    {"setConfigVar(parts, bool, result)",
     [](const Call& c) {
       ConfigResult result;
       c.config->setConfigVar(c.group, 0, c.name, 0, true, &result);
     }},
    {"setConfigVar(parts, text, result)",
     [](const Call& c) {
       ConfigResult result;
       c.config->setConfigVar(c.group, 0, c.name, 0, "manual", &result);
     }},
    {"setConfigVar(parts, string, null result)",
     [](const Call& c) {
       c.config->setConfigVar(c.group, 0, c.name, 0, std::string("auto"), nullptr);
     }},
    {"isValid(var)",
     [](const Call& c) {
       ConfigResult result;
       c.config->isValid(c.var(), {"manual"}, &result);
     }},
    {"isValid(parts)",
     [](const Call& c) { c.config->isValid(c.group, 0, c.name, 0, {"manual"}, nullptr); }},
    {"resetValue", [](const Call& c) { c.config->resetValue(c.group, 0, c.name, 0); }},

    {"getConfigOptions(var)",
     [](const Call& c) {
       std::vector<std::string> out;
       c.config->getConfigOptions(c.var(), out);
     }},
    {"getConfigOptions(parts, vector)",
     [](const Call& c) {
       std::vector<std::string> out;
       c.config->getConfigOptions(c.group, 0, c.name, 0, out);
     }},
    {"getConfigOptions(parts, list), uncached",
     [](const Call& c) {
       Strings out;
       c.config->removeVars(c.group);
       c.config->getConfigOptions(c.group, 0, c.name, 0, out);
     }},
    {"getConfigOptionDefaultIndex(var)",
     [](const Call& c) {
       unsigned int index = 0;
       c.config->getConfigOptionDefaultIndex(c.var(), index);
     }},
    {"getConfigOptionDefaultIndex(parts)",
     [](const Call& c) {
       unsigned int index = 0;
       c.config->getConfigOptionDefaultIndex(c.group, 0, c.name, 0, index);
     }},
    {"getConfigDefaultOptions",
     [](const Call& c) {
       std::vector<std::string> out;
       c.config->getConfigDefaultOptions(c.group, 0, c.name, 0, out);
     }},
    {"setConfigOptions",
     [](const Call& c) {
       c.config->setConfigOptions(c.group, 0, c.name, 0,
                                  {"auto", "manual", "5", "true", "True", "set"});
     }},
    {"setConfigOptions(default index)",
     [](const Call& c) {
       c.config->setConfigOptions(c.group, 0, c.name, 0,
                                  {"auto", "manual", "5", "true", "True", "set"}, 1U);
     }},

    {"getAccessLevels(var)",
     [](const Call& c) {
       SecurityRole role = kUser;
       c.config->getAccessLevels(c.var(), &role, nullptr);
     }},
    {"getAccessLevels(parts), uncached",
     [](const Call& c) {
       SecurityRole role = kUser;
       c.config->removeVars(c.group);
       c.config->getAccessLevels(c.group, 0, c.name, 0, nullptr, &role);
     }},
    {"setAccessLevels(list)",
     [](const Call& c) { c.config->setAccessLevels({c.var()}, &kUser, nullptr); }},
    {"setAccessLevels(list, errors)",
     [](const Call& c) {
       std::list<std::pair<ConfigVar, eErrorT>> errors;
       c.config->setAccessLevels({c.var()}, nullptr, &kUser, errors);
     }},
    {"setAccessLevels(var)",
     [](const Call& c) { c.config->setAccessLevels(c.var(), &kUser, &kUser); }},
    {"setAccessLevels(var, error)",
     [](const Call& c) {
       eErrorT error = eErrNone;
       c.config->setAccessLevels(c.var(), &kUser, nullptr, error);
     }},
    {"setAccessLevels(parts)",
     [](const Call& c) { c.config->setAccessLevels(c.group, 0, c.name, 0, &kUser, nullptr); }},
    {"setAccessLevels(parts, error)",
     [](const Call& c) {
       eErrorT error = eErrNone;
       c.config->setAccessLevels(c.group, 0, c.name, 0, &kUser, &kUser, error);
     }},
    {"setAccessHidden(list)",
     [](const Call& c) {
       std::list<std::pair<ConfigVar, eErrorT>> errors;
       c.config->setAccessHidden({c.var()}, errors);
     }},
    {"setAccessHidden(var)",
     [](const Call& c) {
       eErrorT error = eErrNone;
       c.config->setAccessHidden(c.var(), error);
     }},
    {"setAccessHidden(parts)",
     [](const Call& c) {
       eErrorT error = eErrNone;
       c.config->setAccessHidden(c.group, 0, c.name, 0, error);
     }},
    {"setAccessReadOnly(list)",
     [](const Call& c) {
       std::list<std::pair<ConfigVar, eErrorT>> errors;
       c.config->setAccessReadOnly({c.var()}, errors);
     }},
    {"setAccessReadOnly(var)",
     [](const Call& c) {
       eErrorT error = eErrNone;
       c.config->setAccessReadOnly(c.var(), error);
     }},
    {"setAccessReadOnly(parts)",
     [](const Call& c) {
       eErrorT error = eErrNone;
       c.config->setAccessReadOnly(c.group, 0, c.name, 0, error);
     }},

    {"updateConfigVar", [](const Call& c) { c.config->updateConfigVar(c.var(), {"manual"}); }},
    {"updateIsDefault", [](const Call& c) { c.config->updateIsDefault(c.var(), false); }},
    {"updateConfigVarOptions",
     [](const Call& c) { c.config->updateConfigVarOptions(c.group, 0, c.name, 0, {"auto"}); }},
    {"updateConfigVarAccessLevels",
     [](const Call& c) { c.config->updateConfigVarAccessLevels(c.group, 0, c.name, 0, {}); }},

    {"registerHandler(group, name, consumer)",
     [](const Call& c) { registerHandler(c.group, c.name, c.consumer, c.config); }, true},
    {"registerHandler(group, name, provider)",
     [](const Call& c) { registerHandler(c.group, c.name, c.provider, c.config); }, true},
    {"registerHandler(group, consumer)",
     [](const Call& c) { registerHandler(c.group, c.consumer, c.config); }, true},
    {"registerHandler(group, provider)",
     [](const Call& c) { registerHandler(c.group, c.provider, c.config); }, true},
    {"registerHandler(null consumer)",
     [](const Call& c) {
       registerHandler(c.group, c.name, static_cast<ConsumerConfigHandler*>(nullptr), c.config);
     }},
    {"registerHandler(null provider)",
     [](const Call& c) {
       registerHandler(c.group, c.name, static_cast<ProviderConfigHandler*>(nullptr), c.config);
     }},
    {"unregisterHandler(group, name, consumer)",
     [](const Call& c) { unregisterHandler(c.group, c.name, c.consumer, c.config); }, true},
    {"unregisterHandler(group, name, provider)",
     [](const Call& c) { unregisterHandler(c.group, c.name, c.provider, c.config); }, true},
    {"unregisterHandler(group, consumer)",
     [](const Call& c) { unregisterHandler(c.group, c.consumer, c.config); }, true},
    {"unregisterHandler(group, provider)",
     [](const Call& c) { unregisterHandler(c.group, c.provider, c.config); }, true},
    {"unregisterHandler(null consumer)",
     [](const Call& c) {
       unregisterHandler(c.group, c.name, static_cast<ConsumerConfigHandler*>(nullptr), c.config);
     },
     true},
    {"unregisterAllHandlers", [](const Call& c) { unregisterAllHandlers(c.config); }, true},
    {"unregisterAllHandlers(no manager)", [](const Call&) { unregisterAllHandlers(nullptr); },
     true},

    {"ConfigRegistrar::registerHandler(provider)",
     [](const Call& c) { c.link().ConfigRegistrar::registerHandler(c.var(), c.provider); }, true},
    {"ConfigRegistrar::registerHandler(consumer)",
     [](const Call& c) { c.link().ConfigRegistrar::registerHandler(c.var(), c.consumer, kValue); },
     true},
    {"ConfigRegistrar::unregisterHandler(consumer)",
     [](const Call& c) {
       c.link().ConfigRegistrar::unregisterHandler(c.var(), c.consumer, kValue);
     },
     true},
    {"ConfigRegistrar::unregisterHandler(provider)",
     [](const Call& c) { c.link().ConfigRegistrar::unregisterHandler(c.var(), c.provider); }, true},
    {"isHandlerRegistered", [](const Call& c) { c.link().isHandlerRegistered(c.var(), kValue); }},
    {"isProviderHandlerRegistered",
     [](const Call& c) { c.link().isProviderHandlerRegistered(c.var()); }},
    {"getHandlers", [](const Call& c) { c.link().getHandlers(c.group, c.name, kValue); }},
    {"getProviderHandlers", [](const Call& c) { c.link().getProviderHandlers(c.group, c.name); }},
    {"getHandlers(map)",
     [](const Call& c) {
       ConfigRegistrar::HandlerMap<ConsumerConfigHandler> own{{c.var(), {c.consumer}}};
       c.link().getHandlers(c.var(), own, true);
     }},
};

enum class Kind { Value, Options, Access, Submit, Validate, OnChange };

const Kind kKinds[] = {Kind::Value,  Kind::Options,  Kind::Access,
                       Kind::Submit, Kind::Validate, Kind::OnChange};
const char* const kVariables[] = {"own", "other"};

const char* nameOf(Kind kind) {
  switch (kind) {
    case Kind::Value:
      return "ValueNotice";
    case Kind::Options:
      return "OptionsNotice";
    case Kind::Access:
      return "AccessNotice";
    case Kind::Submit:
      return "SubmitNotice";
    case Kind::Validate:
      return "ValidateQuestion";
    case Kind::OnChange:
      return "OnChangeQuestion";
  }
  return "";
}

// What the next handler of one kind does, once.
class Trap {
 public:
  void arm(Kind kind, std::function<void()> task) {
    const std::lock_guard<std::mutex> guard(mutex_);
    kind_ = kind;
    task_ = std::move(task);
    begun_ = done_ = false;
  }
  void spring(Kind kind) {
    const std::function<void()> task = take(kind);
    if (!task) return;
    task();
    set(done_);
  }
  bool waitUntilBegun(milliseconds atMost = kPatience) { return waitFor(begun_, atMost); }
  bool waitUntilDone() { return waitFor(done_, 2 * kPatience); }

 private:
  std::function<void()> take(Kind kind) {
    const std::lock_guard<std::mutex> guard(mutex_);
    if (!task_ || kind != kind_) return nullptr;
    begun_ = true;
    changed_.notify_all();
    return std::exchange(task_, nullptr);
  }
  void set(bool& flag) {
    const std::lock_guard<std::mutex> guard(mutex_);
    flag = true;
    changed_.notify_all();
  }
  bool waitFor(const bool& flag, milliseconds atMost) {
    std::unique_lock<std::mutex> guard(mutex_);
    return changed_.wait_for(guard, atMost, [&flag] { return flag; });
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  Kind kind_ = Kind::Value;
  std::function<void()> task_;
  bool begun_ = false;
  bool done_ = false;
};

class Consumer final : public ConsumerConfigHandler {
 public:
  explicit Consumer(Trap& trap) : trap_(trap) {}
  void configChanged(const std::string&, int, const std::string& name, int, const Strings&,
                     const std::string&) override {
    if (name == "own") trap_.spring(Kind::Value);
  }
  void submit(const std::string&, int, const std::string&, int, int, const std::string&) override {
    trap_.spring(Kind::Submit);
  }
  void optionsChanged(const std::string&, int, const std::string&, int, const Strings&,
                      std::string) override {
    trap_.spring(Kind::Options);
  }
  void accessLevelsChanged(const std::string&, int, const std::string&, int, SecurityRole,
                           SecurityRole, std::string) override {
    trap_.spring(Kind::Access);
  }

 private:
  Trap& trap_;
};

class Provider final : public ProviderConfigHandler {
 public:
  explicit Provider(Trap& trap) : trap_(trap) {}
  bool dynamicValidate(const std::string&, int, const std::string&, int, const Strings&,
                       SecurityRole, ConfigResult*) override {
    trap_.spring(Kind::Validate);
    return true;
  }
  bool onChange(const std::string&, int, const std::string&, int, const Strings&, SecurityRole,
                ConfigResult*) override {
    trap_.spring(Kind::OnChange);
    return true;
  }

 private:
  Trap& trap_;
};

class HandlerCallsFixture : public testing::Test {
 protected:
  explicit HandlerCallsFixture(
      unsigned maxConnections = PbUtility::EndpointOptions().maxConnections)
      : endpoint_("application", patient(service_.runtimeDir(), maxConnections)) {
    service_.start();
    writer_.actAs(CommonIF::SECURITY_ROLE_FACTORY);
    config_->setPbInterface(&endpoint_);
    config_->setSecurityRole(AppConfig::eRoleFactory);
    registerAnew();
  }

  static PbUtility::EndpointOptions patient(const std::string& runtimeDir,
                                            unsigned maxConnections) {
    PbUtility::EndpointOptions options = inDirectory(runtimeDir);
    options.deadline = hours(1);
    options.maxConnections = maxConnections;
    return options;
  }

  // Whatever an operation did to the registrations: one consumer and one provider, known to both
  // sides.
  void registerAnew() {
    PlatformCfgService& link = *config_->getPlatformCfgService();
    for (const char* name : {"own", ""}) {
      unregisterHandler("net", name, &consumer_, config_);
      unregisterHandler("net", name, &provider_, config_);
    }
    unregisterHandler("net", "other", &consumer_, config_);
    unregisterHandler("net", "other", &provider_, config_);
    registerHandler("net", "own", &consumer_, config_);
    registerHandler("net", "own", &provider_, config_);
    for (int type = ConfigIF::CallbackType_MIN; type <= ConfigIF::CallbackType_MAX; ++type) {
      if (!ConfigIF::CallbackType_IsValid(type)) continue;
      link.registerCallback(ConfigVar("net", 0, "own", 0),
                            static_cast<ConfigIF::CallbackType>(type));
    }
    EXPECT_TRUE(endpoint_.waitUntilConnected(TestClient::kService, kPatience));
  }

  static ConfigIF::Inst own() {
    ConfigIF::Inst inst;
    inst.add_path()->set_name("net");
    inst.add_path()->set_name("own");
    return inst;
  }

  // Makes the service call the handlers of this kind. True when the service went along.
  bool provoke(Kind kind) {
    switch (kind) {
      case Kind::Options:
        return changeOptions();
      case Kind::Access:
        return changeAccess();
      case Kind::Submit:
        return submit();
      default:
        return changeValue();
    }
  }
  // A write that nobody waited for may arrive just before, so that there is nothing to change.
  bool provokeUntilItBegins(Kind kind) {
    bool accepted = false;
    do {
      accepted = provoke(kind);
    } while (!trap_.waitUntilBegun(milliseconds(500)));
    return accepted;
  }
  bool changeValue() {
    const Outcome now = writer_.read("net.own");
    const bool isAuto = !now.values.empty() && now.values[0] == "auto";
    return writer_.write("net.own", isAuto ? "manual" : "auto").ok();
  }
  bool changeOptions() {
    ConfigIF::SetAttributeOptionsReq request;
    *request.mutable_inst() = own();
    for (const char* option : {"auto", "manual", "5", "true", "True"}) request.add_options(option);
    request.add_options(std::to_string(++options_));
    ConfigIF::SetAttributeOptionsRsp response;
    return writer_.request(request, &response).ok();
  }
  bool changeAccess() {
    ConfigIF::GetAccessLevelsReq question;
    *question.mutable_inst() = own();
    ConfigIF::GetAccessLevelsRsp now;
    if (!writer_.request(question, &now).ok()) return false;
    ConfigIF::SetAccessLevelsReq request;
    *request.add_inst() = own();
    request.set_read_role(now.read_role() == CommonIF::SECURITY_ROLE_PUBLIC
                              ? CommonIF::SECURITY_ROLE_USER
                              : CommonIF::SECURITY_ROLE_PUBLIC);
    ConfigIF::SetAccessLevelsRsp response;
    return writer_.request(request, &response).ok();
  }
  bool submit() {
    ConfigIF::SubmitReq request;
    *request.mutable_inst() = own();
    ConfigIF::SubmitRsp response;
    return writer_.request(request, &response).ok();
  }

  void callInside(Kind kind, const Operation& operation, const char* variable, bool twice) {
    const std::string what = std::string(operation.name) + " about " + variable + " inside a " +
                             nameOf(kind) + (twice ? ", twice at once" : "");
    SCOPED_TRACE(what);
    watchdog_.step(what);
    const Call call{config_, &endpoint_, &consumer_, &provider_, variable};
    trap_.arm(kind, [&operation, &call] { operation.run(call); });
    auto provoked =
        std::async(std::launch::async, [this, kind] { return provokeUntilItBegins(kind); });
    if (twice && trap_.waitUntilBegun()) operation.run(call);
    ASSERT_TRUE(trap_.waitUntilDone()) << "never called, or never back";
    // A write by the other thread may have changed the very thing in between.
    const bool accepted = provoked.get();
    EXPECT_TRUE(twice || accepted);
    if (operation.undoesRegistrations) registerAnew();
    ++pairs_;
  }

  Watchdog watchdog_;
  ServiceProcess service_{kBothAlike, {"--provider-deadline", "3600000"}};
  TestClient writer_{"writer", service_.runtimeDir(), hours(1)};
  Trap trap_;
  Consumer consumer_{trap_};
  Provider provider_{trap_};
  PbUtility::Endpoint endpoint_;
  AppCfgManager* config_ = AppCfgManager::getLocalCfgManager();
  int options_ = 0;
  std::size_t pairs_ = 0;
};

class HandlerCallsTest : public HandlerCallsFixture, public testing::WithParamInterface<Kind> {};

TEST_P(HandlerCallsTest, EveryOperationComesBack) {
  for (const Operation& operation : kOperations) {
    for (const char* variable : kVariables) {
      callInside(GetParam(), operation, variable, false);
      callInside(GetParam(), operation, variable, true);
      if (HasFatalFailure()) return;
    }
  }
  EXPECT_EQ(pairs_, std::size(kOperations) * std::size(kVariables) * 2);
}

INSTANTIATE_TEST_SUITE_P(Inside, HandlerCallsTest, testing::ValuesIn(kKinds),
                         [](const auto& kind) { return nameOf(kind.param); });

// A consumer that goes for good while it is being told: it takes itself out of the registry and
// deletes itself, as an object does whose owner is gone.
class Leaving final : public ConsumerConfigHandler {
 public:
  Leaving(AppCfgManager* config, std::atomic<bool>& gone) : config_(config), gone_(gone) {}
  ~Leaving() override { gone_ = true; }
  void configChanged(const std::string& group, int, const std::string& name, int, const Strings&,
                     const std::string&) override {
    unregisterHandler(group, name, this, config_);
    delete this;
  }
  void submit(const std::string&, int, const std::string&, int, int, const std::string&) override {}
  void optionsChanged(const std::string&, int, const std::string&, int, const Strings&,
                      std::string) override {}
  void accessLevelsChanged(const std::string&, int, const std::string&, int, SecurityRole,
                           SecurityRole, std::string) override {}

 private:
  AppCfgManager* const config_;
  std::atomic<bool>& gone_;
};

class LeavingProvider final : public ProviderConfigHandler {
 public:
  LeavingProvider(AppCfgManager* config, std::atomic<bool>& gone) : config_(config), gone_(gone) {}
  ~LeavingProvider() override { gone_ = true; }
  bool dynamicValidate(const std::string& group, int, const std::string& name, int, const Strings&,
                       SecurityRole, ConfigResult*) override {
    unregisterHandler(group, name, this, config_);
    delete this;
    return true;
  }
  bool onChange(const std::string&, int, const std::string&, int, const Strings&, SecurityRole,
                ConfigResult*) override {
    return true;
  }

 private:
  AppCfgManager* const config_;
  std::atomic<bool>& gone_;
};

using HandlerMayTest = HandlerCallsFixture;

TEST_F(HandlerMayTest, AConsumerMayDeleteItselfWhileItIsToldAndTheOthersAreToldStill) {
  std::atomic<bool> gone{false};
  unregisterHandler("net", "own", &consumer_, config_);
  registerHandler("net", "own", new Leaving(config_, gone), config_);
  registerHandler("net", "own", &consumer_, config_);
  trap_.arm(Kind::Value, [] {});
  EXPECT_TRUE(provoke(Kind::Value));
  EXPECT_TRUE(trap_.waitUntilDone());
  EXPECT_TRUE(gone);
}

TEST_F(HandlerMayTest, AProviderMayDeleteItselfWhileItIsAskedAndTheChangeGoesOn) {
  std::atomic<bool> gone{false};
  registerHandler("net", "own", new LeavingProvider(config_, gone), config_);
  EXPECT_TRUE(provoke(Kind::Value));
  EXPECT_TRUE(gone);
}

// All connections for requests may be waiting for the very answer that the handler is about to
// give: it needs one that they cannot take.
class OneConnectionTest : public HandlerCallsFixture {
 protected:
  OneConnectionTest() : HandlerCallsFixture(1) {}
};

TEST_F(OneConnectionTest, AHandlerHasAConnectionWhenAllOthersWaitForIt) {
  Strings seen;
  trap_.arm(Kind::Validate, [&] {
    config_->removeVars("net");
    config_->getConfigVar("net", 0, "other", 0, seen);
  });
  watchdog_.step("a read inside a question while the only connection waits for its answer");
  ConfigResult result;
  EXPECT_TRUE(config_->setConfigVar("net", 0, "own", 0, "manual", &result));
  EXPECT_TRUE(trap_.waitUntilDone());
  EXPECT_EQ(seen, Strings{"auto"});
}

// Kept beside the figure that the documentation gives.
TEST(HandlerCallsTableTest, ThePageGivesTheNumberOfPairs) {
  const std::size_t pairs = std::size(kOperations) * std::size(kKinds);
  const std::string text =
      std::to_string(std::size(kOperations)) + " operations × " +
      std::to_string(std::size(kKinds)) + " kinds of handlers = " + std::to_string(pairs) +
      " pairs, each called " + std::to_string(2 * std::size(kVariables)) +
      " times: " + std::to_string(2 * std::size(kVariables) * pairs) + " calls";
  RecordProperty("pairs", std::to_string(pairs));
  EXPECT_THAT(readFile(APPCONFIG_RELIABILITY_PAGE), testing::HasSubstr(text)) << text;
}

}  // namespace
}  // namespace TestSupport
