// Every operation is entered in the journal with the time before the library was called and the
// time after it returned; a change already before, so that it is there when the process is killed
// in between. What a handler is told is entered before the handler does anything else.
//
// Values are written once: "w2x1-57" is the 57th of the second process's second life. Options are written
// as a list whose last element is such a value. Half of the operations go to the first few variables, so
// that processes meet there.
#include "tests/history/worker.h"

#include <sys/socket.h>

#include <chrono>
#include <cstdlib>

#include "appconfig/manager/fresh_read.h"
#include "appconfig/registry/registration.h"
#include "appconfig/wire/protobuf_message_helper.h"
#include "platform/schema/config_if.pb.h"
#include "tests/support/cut_connections.h"

namespace History {
namespace {

using AppConfig::ProtobufMessageHelper;

constexpr const char* kService = "ConfigSrvc";
constexpr const char* kProvided = "h.provided";
constexpr const char* kChoice = "h.choice";
constexpr std::chrono::seconds kPatience(100);
constexpr std::size_t kLong = 4000;
constexpr std::size_t kMet = 6;  // variables that half of the operations go to

PbUtility::EndpointOptions endpointOptions(const WorkerOptions& options) {
  PbUtility::EndpointOptions result;
  result.runtimeDir = options.runtimeDir;
  result.deadline = std::chrono::seconds(20);
  return result;
}

void rest(std::chrono::microseconds time) { std::this_thread::sleep_for(time); }

// Of a value that somebody wrote; 0 of a default.
std::uint64_t numberIn(const std::string& value) {
  if (value.rfind("default-", 0) == 0) return 0;
  const std::size_t dash = value.find('-');
  return dash == std::string::npos ? 0 : std::strtoull(value.c_str() + dash + 1, nullptr, 10);
}

// What a provider refuses; another one's veto does not stand in for it.
bool isValidatedAway(const std::string& value, int provider) {
  return numberIn(value) % 7 == (provider % 2 == 0 ? 3 : 5);
}
bool isChangedAway(const std::string& value, int provider) {
  return numberIn(value) % 11 == (provider % 2 == 0 ? 5 : 7);
}

// Some values are long, so that what a slow process is to be told has to wait at the service, where newer
// notices take the place of older ones. The record has them without what makes them long, unless that is
// not as it was written.
std::string lengthened(const std::string& value) {
  return numberIn(value) % 8 == 1 ? value + std::string(kLong, '.') : value;
}

std::string shortened(const std::string& value) {
  const std::string start = value.substr(0, value.find('.'));
  return lengthened(start) == value ? start : value;
}

std::string recorded(const std::string& group, const std::string& name) {
  return group + "." + name;
}

std::string last(const std::list<std::string>& options) {
  return options.empty() ? std::string() : options.back();
}

}  // namespace

Worker::Worker(const WorkerOptions& options)
    : options_(options),
      name_("w" + std::to_string(options.number) + "x" + std::to_string(options.life)),
      variables_(makeVariables(options.variables)),
      journal_(options.journal, name_),
      config_(AppConfig::AppCfgManager::getInstance()),
      endpoint_(name_, endpointOptions(options),
                [this](std::int64_t began, const std::string& name) {
                  journal_.registered(began, name);
                }) {
  config_->setPbInterface(&endpoint_);
  start();
}

Worker::~Worker() {
  gate_.end();
  for (std::thread& thread : threads_) thread.join();
}

ConfigVar Worker::marker() { return ConfigVar("h.marker", 0, "mark", 0); }

// Half of them plain, a third of providers, the rest with options.
std::vector<Worker::Variable> Worker::makeVariables(int variables) {
  std::vector<Variable> made;
  for (int i = 0; i < variables; ++i) {
    const int kind = i % 6;
    const std::string group = kind < 3 ? "h.plain" : kind < 5 ? kProvided : kChoice;
    const std::string name = "v" + std::to_string(i);
    const bool hasOptions = kind == 5;
    made.push_back({ConfigVar(group, 0, name, 0),
                    recorded(group, name) + (hasOptions ? "#options" : ""), hasOptions});
  }
  return made;
}

std::string Worker::definitions(int variables, int generation) {
  const std::string isDefault = "default-" + std::to_string(generation);
  std::string text;
  for (const Variable& variable : makeVariables(variables)) {
    text += "[variable.\"" + variable.key.dottedName() + "\"]\n";
    text += variable.hasOptions
                ? "type = \"enumeration\"\ndefault = \"base\"\noptions = [\"base\", \"" +
                      isDefault + "\"]\n"
                : "type = \"string\"\ndefault = \"" + isDefault + "\"\n";
  }
  return text + "[variable.\"" + marker().dottedName() + "\"]\ntype = \"string\"\ndefault = \"" +
         isDefault + "\"\n";
}

// Handlers first, so that what is read afterwards is kept up to date by their notices.
void Worker::start() {
  registerHandler("h", static_cast<ConsumerConfigHandler*>(this));
  if (options_.provides) registerHandler(kProvided, static_cast<ProviderConfigHandler*>(this));
  for (int i = 1; i <= options_.threads; ++i) startThread(static_cast<unsigned>(i));
}

void Worker::startThread(unsigned number) {
  gate_.expect();
  threads_.emplace_back([this, number] {
    std::seed_seq seed{options_.seed, static_cast<unsigned>(options_.number),
                       static_cast<unsigned>(options_.life), number};
    Random random(seed);
    while (gate_.pass()) step(number, random);
  });
}

void Worker::step(unsigned thread, Random& random) {
  const std::size_t some = random() % 2 == 0 ? variables_.size() : kMet;
  const Variable& variable = variables_[random() % std::min(some, variables_.size())];
  const auto what = static_cast<unsigned>(random() % 100);
  if (what < 40) {
    readCached(What::Cached, thread, variable);
  } else if (what < 60) {
    readFresh(What::Fresh, thread, variable);
  } else if (what < 88) {
    write(thread, variable);
  } else if (what < 92) {
    send(thread, variable);
  } else if (what < 98) {
    reset(thread, variable);
  } else {
    config_->removeVars(variable.key.group());
  }
  rest(options_.rest);
}

// --- Reads ---

std::string Worker::cachedValue(const Variable& variable) const {
  if (!variable.hasOptions) return shortened(config_->getConfigVar(variable.key));
  std::vector<std::string> options;
  config_->getConfigOptions(variable.key.group(), 0, variable.key.name(), 0, options);
  return options.empty() ? std::string() : options.back();
}

// Nothing is read while the service is away and nothing is cached.
void Worker::readCached(What what, unsigned thread, const Variable& variable) {
  const std::int64_t began = now();
  const std::string value = cachedValue(variable);
  if (!value.empty()) journal_.cached(what, thread, began, variable.name, value);
}

bool Worker::readFresh(What what, unsigned thread, const Variable& variable) {
  const std::int64_t began = now();
  StampedEndpoint::forgetAnswer();
  std::string value;
  if (variable.hasOptions) {
    if (!freshOptions(variable, value)) return false;
  } else {
    std::list<std::string> values;
    if (!AppConfig::readFresh(variable.key, values, config_)) return false;
    value = shortened(values.front());
  }
  Stamped stamped = StampedEndpoint::lastAnswer().stamped;
  if (variable.hasOptions) stamped.isDefault = value.rfind("default-", 0) == 0;
  journal_.fresh(what, thread, began, variable.name, stamped, value);
  return true;
}

bool Worker::freshOptions(const Variable& variable, std::string& value) {
  const auto request = ProtobufMessageHelper::getGetOptionsRequest(
      name_, CommonIF::SECURITY_ROLE_USER, variable.key);
  ConfigIF::GetAttributeOptionsRsp response;
  if (endpoint_.sendWaitResponse(request, &response, kService) != PbUtility::kCallOk) return false;
  if (response.options_size() == 0) return false;
  value = response.options(response.options_size() - 1);
  return true;
}

// --- Changes ---

std::string Worker::nextValue(unsigned thread) {
  return name_ + "t" + std::to_string(thread) + "-" + std::to_string(++lastValue_);
}

Outcome Worker::outcome(bool done) const {
  if (done) return Outcome::Ok;
  const Answer& answer = StampedEndpoint::lastAnswer();
  return answer.came && answer.refused ? Outcome::Refused : Outcome::Unknown;
}

Outcome Worker::write(unsigned thread, const Variable& variable) {
  const ConfigVar& key = variable.key;
  const std::string value = nextValue(thread);
  const std::uint64_t id = journal_.begin(thread, false, variable.name, value);
  StampedEndpoint::forgetAnswer();
  ConfigResult result;
  const bool done = variable.hasOptions
                        ? config_->setConfigOptions(key.group(), 0, key.name(), 0, {"base", value})
                        : config_->setConfigVar(key, lengthened(value), &result);
  const Outcome became = outcome(done);
  journal_.end(id, became, StampedEndpoint::lastAnswer().stamped);
  return became;
}

// Nobody waits for what becomes of it.
void Worker::send(unsigned thread, const Variable& variable) {
  if (variable.hasOptions) return;
  const std::string value = nextValue(thread);
  journal_.begin(thread, false, variable.name, value);
  if (!config_->setConfigVar(variable.key, lengthened(value))) rest(std::chrono::milliseconds(1));
}

void Worker::reset(unsigned thread, const Variable& variable) {
  const ConfigVar& key = variable.key;
  const std::uint64_t id = journal_.begin(thread, true, variable.name, "-");
  StampedEndpoint::forgetAnswer();
  const bool done = variable.hasOptions ? resetOptions(variable)
                                        : config_->resetValue(key.group(), 0, key.name(), 0);
  journal_.end(id, outcome(done), StampedEndpoint::lastAnswer().stamped);
}

bool Worker::resetOptions(const Variable& variable) {
  const auto request = ProtobufMessageHelper::getResetAttributeRequest(
      name_, CommonIF::SECURITY_ROLE_USER, variable.key.dottedName());
  ConfigIF::ResetAttributeRsp response;
  const int status = endpoint_.sendWaitResponse(request, &response, kService);
  return status == PbUtility::kCallOk && response.result().error() == CommonIF::ERROR_NONE;
}

// --- At rest ---

bool Worker::connect() { return endpoint_.waitUntilConnected(kPatience); }

// The first process is a provider whenever there is one.
bool Worker::flush() {
  bool all = true;
  for (const Variable& variable : variables_) {
    if (variable.key.group() != kProvided) continue;
    while (!isValidatedAway("-" + std::to_string(lastValue_ + 1), 0)) ++lastValue_;
    all = write(0, variable) != Outcome::Unknown && all;
  }
  return all;
}

std::string Worker::mark(Stamped& stamped) {
  const std::string name = marker().dottedName();
  const auto until = std::chrono::steady_clock::now() + kPatience;
  while (std::chrono::steady_clock::now() < until) {
    const std::string value = nextValue(0);
    const std::uint64_t id = journal_.begin(0, false, name, value);
    StampedEndpoint::forgetAnswer();
    ConfigResult result;
    const bool done = config_->setConfigVar(marker(), value, &result);
    stamped = StampedEndpoint::lastAnswer().stamped;
    journal_.end(id, outcome(done), stamped);
    if (done) return value;
    rest(std::chrono::milliseconds(2));
  }
  return {};
}

bool Worker::awaitMark(const std::string& value) {
  std::unique_lock<std::mutex> lock(markMutex_);
  const bool was = marked_.wait_for(lock, kPatience, [&] { return mark_ == value; });
  if (was) journal_.delivered();
  return was;
}

void Worker::look() {
  for (const Variable& variable : variables_) readCached(What::Look, 0, variable);
}

bool Worker::readTruth() {
  bool all = true;
  for (const Variable& variable : variables_) all = readFresh(What::Truth, 0, variable) && all;
  return all;
}

int Worker::cut(bool all) {
  static std::atomic<unsigned> turn{0};
  if (all) return TestSupport::cutConnectionsToServices();
  const std::vector<int> connections = TestSupport::connectionsToServices();
  if (connections.empty()) return 0;
  shutdown(connections[turn++ % connections.size()], SHUT_RDWR);
  return 1;
}

// --- Handlers ---

void Worker::configChanged(const std::string& group, int, const std::string& name, int,
                           const std::list<std::string>& value, const std::string&) {
  const Incoming& incoming = StampedEndpoint::incoming();
  if (group == kChoice) return;  // their values never change; options have a record of their own
  journal_.told(incoming.sender, incoming.stamped, recorded(group, name), shortened(last(value)));
  if (group != marker().group()) return;
  const std::lock_guard<std::mutex> guard(markMutex_);
  mark_ = last(value);
  marked_.notify_all();
}

void Worker::optionsChanged(const std::string& group, int, const std::string& name, int,
                            const std::list<std::string>& options, std::string) {
  if (group != kChoice) return;
  Incoming incoming = StampedEndpoint::incoming();
  incoming.stamped.isDefault = last(options).rfind("default-", 0) == 0;
  journal_.told(incoming.sender, incoming.stamped, recorded(group, name) + "#options",
                last(options));
}

bool Worker::answer(What what, const std::string& group, const std::string& name,
                    const std::list<std::string>& value, bool accepts, ConfigResult* result) {
  journal_.asked(what, StampedEndpoint::incoming().sender, accepts, recorded(group, name),
                 shortened(last(value)));
  if (accepts) return true;
  result->addResultMessage("numbers of this kind are refused");
  return result->fillConfigResult(false, eErrVetoed, false);
}

bool Worker::dynamicValidate(const std::string& group, int, const std::string& name, int,
                             const std::list<std::string>& value, AppConfig::SecurityRole,
                             ConfigResult* result) {
  return answer(What::Validated, group, name, value, !isValidatedAway(last(value), options_.number),
                result);
}

bool Worker::onChange(const std::string& group, int, const std::string& name, int,
                      const std::list<std::string>& value, AppConfig::SecurityRole,
                      ConfigResult* result) {
  return answer(What::Changed, group, name, value, !isChangedAway(last(value), options_.number),
                result);
}

}  // namespace History
