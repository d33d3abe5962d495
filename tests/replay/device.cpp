// The device's own thread sleeps until something is to happen to the others, and lets it happen.
// What they tell is judged at once, in their threads.
//
// What is alike on every life stays in this process: definitions, the disk, the clients' modules. A
// service is an object that is never destroyed when it is killed, just as its threads are not
// asked.
#include "tests/replay/device.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <utility>

#include "tests/replay/libc_files.h"
#include "tests/replay/shared_memory.h"

namespace Replay {
namespace {

constexpr Time kHour = 3600 * kSecond;
constexpr Time kDay = 24 * kHour;
// The mean.
constexpr Time kBetweenFaults = 4 * kHour;

// How long clients hurry at most, and how much.
constexpr Time kHurry = 2 * kSecond;
constexpr Time kHurriedPause = 40 * kMillisecond;

// After a change, or after the service is there again. Connections that are cut are to be made anew
// meanwhile.
constexpr Time kToldWithin = 30 * kSecond;

ConfigSrv::FaultyDisk* theDisk = nullptr;

ConfigSrv::Log::Sink logSink(bool isLogged) {
  if (!isLogged) return [](ConfigSrv::LogLevel, const std::string&) {};
  return [](ConfigSrv::LogLevel, const std::string& line) {
    std::fprintf(stderr, "service: %s\n", line.c_str());
  };
}

}  // namespace

Device::Device(Scheduler& scheduler, DeviceOptions options)
    : scheduler_(scheduler),
      options_(std::move(options)),
      log_(ConfigSrv::LogLevel::Debug, logSink(options_.isLogged)) {
  theDisk = &disk_;
  ::sqlite3_vfs_register(::sqlite3_vfs_find(disk_.options().vfs.c_str()), 1);
  std::filesystem::create_directories(place("definitions.d"));
  std::filesystem::create_directories(place("processes"));
  writeDefinitions();
  keepProcessesIn(place("processes"));
  // What comes between the cut of its connection and its return, it is not asked about.
  spare(programOf(0));
  noteSharedMemory();
  for (const std::string& file : options_.modules)
    modules_.push_back(std::make_unique<Module>(file));
}

void Device::writeDefinitions() const {
  std::ofstream file(place("definitions.d") + "/10-numbers.toml");
  for (int variable = 0; variable < kVariables; ++variable)
    file << "[variable.\"v.n" << variable << "\"]\ntype = \"int\"\ndefault = 0\n\n";
}

void Device::emptyRuntimeDirectory() const {
  std::filesystem::remove_all(place("run"));
  std::filesystem::create_directories(place("run"));
}

std::string Device::run() {
  beginProcess(0);
  boot();
  firstDisk_ = disk_.contents();
  const Time end = scheduler_.now() + static_cast<Time>(options_.days) * kDay;
  while (scheduler_.now() < end && problem_.empty()) {
    scheduler_.sleepUntil(scheduler_.now() + upTo(2 * kBetweenFaults));
    happen();
  }
  if (problem_.empty()) rest();
  return problem_;
}

void Device::happen() {
  changeChances();
  hurry();
  scheduler_.sleepUntil(scheduler_.now() + upTo(kHurry));
  switch (nextFault()) {
    case Fault::PowerCut:
      return cutPower();
    case Fault::Stop:
      return stopService();
    case Fault::Kill:
      return killService();
    case Fault::None:
      return rest();
  }
}

// As from a deck of cards, so that each comes in good time.
Device::Fault Device::nextFault() {
  if (faults_.empty())
    faults_ = {Fault::PowerCut, Fault::Stop, Fault::None, Fault::Kill,
               Fault::Kill,     Fault::Kill, Fault::Kill, Fault::Kill};
  const auto next =
      faults_.begin() + static_cast<std::ptrdiff_t>(scheduler_.chance(faults_.size()));
  const Fault fault = *next;
  faults_.erase(next);
  return fault;
}

Time Device::upTo(Time most) {
  return static_cast<Time>(scheduler_.chance(static_cast<std::uint64_t>(most)));
}

// --- Starting ---

void Device::boot() {
  emptyRuntimeDirectory();
  startService();
  // The provider first: what is written before it is there is not its business.
  for (int client = 0; client < kClients; ++client) {
    startClient(client);
    waitUntil("a client is ready", isReady_[static_cast<std::size_t>(client)]);
  }
}

void Device::startService() {
  beginProcess(kService);
  isServing_ = hasEnded_ = false;
  scheduler_.start(kService, [this] { serve(); });
  waitUntil("the service serves", isServing_);
  hurry();
  calmSince_ = scheduler_.now();
}

void Device::serve() {
  ConfigSrv::ServiceOptions options;
  options.definitionsDirs = {place("definitions.d")};
  options.storeFile = disk_.options().file;
  options.runtimeDir = place("run");
  options.providerGrace = std::chrono::seconds(60);
  options.providerDeadline = std::chrono::seconds(60);
  ConfigSrv::StartedService started = ConfigSrv::Service::start(options, log_);
  for (const std::string& line : started.lines) log_.error(line);
  if (started.status != ConfigSrv::StartStatus::Ok)
    return fail("the service does not start", 0, 0, 0, 0);
  service_ = started.service.get();
  isServing_ = true;
  scheduler_.wake(&isServing_, true);
  static_cast<void>(started.service->run());
  service_ = nullptr;
  started.service.reset();
  hasEnded_ = true;
}

void Device::startClient(int client) {
  const int program = programOf(client);
  const auto index = static_cast<std::size_t>(client);
  beginProcess(program);
  isReady_[index] = isSettled_[index] = false;
  modules_[index]->renew();
  scheduler_.start(program, [this, client, index] {
    modules_[index]->client()(*this, client, place("run").c_str());
  });
}

// Long enough for everything that takes its time.
void Device::waitUntil(const char* what, const bool& done) {
  const Time deadline = scheduler_.now() + kHour;
  while (!done && problem_.empty()) {
    scheduler_.sleepUntil(scheduler_.now() + 10 * kMillisecond);
    if (scheduler_.now() > deadline) fail(what, 0, 0, 0, 1);
  }
}

// --- What happens ---

void Device::killService() {
  ++counts_.kills;
  scheduler_.kill(kService);
  endService();
  disk_.restartProcess();
  scheduler_.sleepUntil(scheduler_.now() + upTo(20 * kSecond));
  startService();
}

void Device::endService() {
  isServing_ = false;
  endProcess(kService);
  calmSince_ = kNever;
  ++unrests_;
  service_ = nullptr;
}

void Device::stopService() {
  ++counts_.stops;
  ++unrests_;
  calmSince_ = kNever;
  service_->stop();
  waitUntil("the service ends", hasEnded_);
  endService();
  startService();
}

void Device::cutPower() {
  using Survivors = ConfigSrv::FaultyDisk::Survivors;
  ++counts_.powerCuts;
  for (int client = 0; client < kClients; ++client) {
    scheduler_.kill(programOf(client));
    endProcess(programOf(client));
  }
  scheduler_.kill(kService);
  endService();
  disk_.restart(static_cast<Survivors>(scheduler_.chance(5)),
                static_cast<std::uint32_t>(scheduler_.chance(1'000'000)));
  if (options_.diskLies) disk_.restore(firstDisk_);
  boot();
}

// Of each kind of fault now none, now many.
void Device::changeChances() {
  Chances& chances = scheduler_.chances;
  constexpr unsigned kOf = Chances::kOf;
  const auto one = [&](std::initializer_list<unsigned> of) {
    return *(of.begin() + scheduler_.chance(of.size()));
  };
  chances.switches = one({kOf / 64, kOf / 16, kOf / 8});
  chances.delays = one({0, 0, kOf / 4096, kOf / 512});
  chances.cuts = one({0, 0, kOf / 1024});
  if (chances.cuts > 0) uncutSince_ = kNever;
  if (chances.cuts == 0 && uncutSince_ == kNever) uncutSince_ = scheduler_.now();
  chances.pieces = one({0, kOf / 32});
}

void Device::rest() {
  ++counts_.rests;
  const Chances busy = std::exchange(scheduler_.chances, {});
  isSettled_ = {};
  isBusy_ = false;
  for (const bool& settled : isSettled_) waitUntil("all come to rest", settled);
  isBusy_ = true;
  scheduler_.chances = busy;
}

// The worst comes together: before the service goes, and when it comes.
void Device::hurry() {
  favourite_ = static_cast<int>(scheduler_.chance(kVariables));
  hurriesUntil_ = scheduler_.now() + upTo(kHurry);
  scheduler_.wake(&hurriesUntil_, true);
}

void Device::pause() {
  if (scheduler_.now() < hurriesUntil_)
    return scheduler_.sleepUntil(scheduler_.now() + upTo(2 * kHurriedPause));
  const Time mean = static_cast<Time>(options_.pauseSeconds) * kSecond;
  scheduler_.waitFor(&hurriesUntil_, scheduler_.now() + upTo(2 * mean));
}

void Device::awaitService() {
  while (!isServing_) scheduler_.waitFor(&isServing_, kNever);
}

// --- What is judged ---

std::int64_t Device::nextOf(int variable) {
  ++counts_.written;
  return ++issued_[static_cast<std::size_t>(variable)];
}

void Device::accepted(int variable, std::int64_t number) {
  ++counts_.accepted;
  scheduler_.note("accepted", static_cast<std::uint64_t>(number));
  if (isRefused(variable, number))
    fail("accepted what the provider refuses", 0, variable, number, 0);
  raiseFloor(variable, number);
}

void Device::raiseFloor(int variable, std::int64_t number) {
  const auto index = static_cast<std::size_t>(variable);
  if (number <= floors_[index]) return;
  floors_[index] = number;
  pastFloors_[index].push_back({scheduler_.now(), number});
}

std::int64_t Device::toldOf(int variable) {
  std::deque<Floor>& past = pastFloors_[static_cast<std::size_t>(variable)];
  const Time before = scheduler_.now() - kToldWithin;
  while (past.size() > 1 && past[1].since <= before) past.pop_front();
  const bool isKnown = calmSince_ < before && !past.empty() && past.front().since <= before;
  return isKnown ? past.front().number : 0;
}

std::uint64_t Device::calm() {
  return std::max(calmSince_, uncutSince_) < scheduler_.now() - kToldWithin ? unrests_ : 0;
}

void Device::met(const char* how, int client, int variable, std::int64_t number,
                 std::int64_t least) {
  ++counts_.met;
  scheduler_.note(how, static_cast<std::uint64_t>(number));
  const auto index = static_cast<std::size_t>(variable);
  if (number < least) fail(how, client, variable, number, least);
  if (number > issued_[index] || (number != 0 && isRefused(variable, number)))
    fail(how, client, variable, number, floors_[index]);
  raiseFloor(variable, number);
}

void Device::fail(const char* what, int client, int variable, std::int64_t number,
                  std::int64_t expected) {
  if (!problem_.empty()) return;
  problem_ = "at " + std::to_string(scheduler_.now() / kSecond) + " s: " + what + ": client " +
             std::to_string(client) + ", variable " + std::to_string(variable) + ": " +
             std::to_string(number) + ", expected " + std::to_string(expected);
}

}  // namespace Replay

// The store's files are on the simulated disk: what is linked with --wrap has this name.
ConfigSrv::FileSystem& simulatedFileSystem() __asm__("__wrap__ZN9ConfigSrv15posixFileSystemEv");
ConfigSrv::FileSystem& simulatedFileSystem() { return *Replay::theDisk; }
