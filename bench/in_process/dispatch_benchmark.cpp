// Does dispatching a notice slow down as registrations grow? From the bytes that came in to the
// handler's call: parsing, storing in the cache, finding the handler among all, calling it. The
// floor is the same with 100 registrations.
//
// There is one local link in a process, so the sizes run from small to large, each adding to what
// is registered; the program must not be told to shuffle them.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include "appconfig/core/config_var.h"
#include "appconfig/registry/consumer_config_handler.h"
#include "appconfig/service/platform_cfg_service.h"
#include "appconfig/wire/protobuf_message_helper.h"
#include "bench/in_process/batch_times.h"
#include "platform/schema/config_if.pb.h"

namespace {

using AppConfig::PlatformCfgService;
using AppConfig::ProtobufMessageHelper;

// The same number in all sizes, so that what grows is the registrations alone.
constexpr std::size_t kPicked = 100;

class Counting final : public ConsumerConfigHandler {
 public:
  void configChanged(const std::string&, int, const std::string&, int,
                     const std::list<std::string>&, const std::string&) override {
    ++calls;
  }
  void submit(const std::string&, int, const std::string&, int, int, const std::string&) override {}
  void optionsChanged(const std::string&, int, const std::string&, int,
                      const std::list<std::string>&, std::string) override {}
  void accessLevelsChanged(const std::string&, int, const std::string&, int,
                           AppConfig::SecurityRole, AppConfig::SecurityRole, std::string) override {
  }
  std::int64_t calls = 0;
};

Counting& handler() {
  static Counting counting;
  return counting;
}

ConfigVar nthVar(std::int64_t n) {
  return ConfigVar("network.port" + std::to_string(n / 20), 0, "setting" + std::to_string(n % 20),
                   0);
}

void registerUpTo(PlatformCfgService& link, std::int64_t count) {
  static std::int64_t registered = 0;
  for (; registered < count; ++registered)
    link.ConfigRegistrar::registerHandler(nthVar(registered), &handler(),
                                          ConfigRegistrar::eValueChanged);
}

std::string noticeOf(const ConfigVar& var) {
  ConfigIF::ConfigChangedNtfy notice;
  notice.set_callback_identity("PlatCfgSvc0-" + std::to_string(getpid()) + "-0");
  const std::list<std::string> value = {"thermostat"};
  *notice.mutable_value() =
      ProtobufMessageHelper::getWriteRequest("", CommonIF::SECURITY_ROLE_USER, var, value).value();
  return notice.SerializeAsString();
}

std::vector<std::string> pickedOf(std::int64_t registrations) {
  std::vector<std::string> picked;
  for (std::size_t i = 0; i < kPicked; ++i)
    picked.push_back(noticeOf(nthVar(static_cast<std::int64_t>(i) * 7919 % registrations)));
  return picked;
}

void dispatch(const std::string& payload, PlatformCfgService* link) {
  ConfigIF::ConfigChangedNtfy notice;
  if (notice.ParseFromString(payload))
    PlatformCfgService::configChangedHandler(notice, nullptr, link);
}

void BM_DispatchNotice(benchmark::State& state) {
  PlatformCfgService* const link = PlatformCfgService::getLocalCfgService();
  registerUpTo(*link, state.range(0));
  const std::vector<std::string> picked = pickedOf(state.range(0));
  const std::int64_t before = handler().calls;
  std::size_t next = 0;
  BatchTimes(state).measure([&] { dispatch(picked[next++ % kPicked], link); });
  if (handler().calls - before != static_cast<std::int64_t>(next))
    state.SkipWithError("a notice did not reach the handler");
}

}  // namespace

BENCHMARK(BM_DispatchNotice)
    ->ArgName("registrations")
    ->Arg(100)
    ->Arg(10000)
    ->Arg(100000)
    ->UseRealTime();
