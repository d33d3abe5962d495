// Device: a service, its disk, a provider and two clients, with what can happen to them by a seed.
//
// The service is killed, stopped and started again; the power of the whole device is cut, with what
// a disk makes of that (tests/configsrv/store/faulty_disk.h); connections are cut; threads are kept
// from running. From time to time nothing happens for a while, and everybody has to come to the
// same state. Throughout, an accepted write stays, and nobody meets anything older than what was
// met before (story.h).
//
// One for each process, on the first thread of the simulation.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "configsrv/log/log.h"
#include "configsrv/service/service.h"
#include "tests/configsrv/store/faulty_disk.h"
#include "tests/replay/module.h"
#include "tests/replay/scheduler.h"
#include "tests/replay/story.h"

namespace Replay {

struct DeviceOptions {
  // Of the device's life.
  std::uint64_t days = 1;
  // Between what one thread of a client does; the mean.
  std::uint64_t pauseSeconds = 30;
  // A cut of the power makes the disk what it was at the first start, whatever was synced: to see
  // that it is noticed.
  bool diskLies = false;
  // The service's log goes to standard error.
  bool isLogged = false;
  // Private to this device: runtime directory, definitions, processes.
  std::string directory;
  // The clients' modules, the provider's first.
  std::vector<std::string> modules;
};

struct Counts {
  std::uint64_t written = 0;
  std::uint64_t accepted = 0;
  std::uint64_t met = 0;
  std::uint64_t kills = 0;
  std::uint64_t stops = 0;
  std::uint64_t powerCuts = 0;
  std::uint64_t rests = 0;
};

class Device final : public Story {
 public:
  Device(Scheduler& scheduler, DeviceOptions options);

  // Lives. What went wrong first; empty when nothing did.
  std::string run();
  const Counts& counts() const { return counts_; }

 private:
  enum class Fault { None, Kill, Stop, PowerCut };

  static constexpr int kService = 1;
  static constexpr int kClients = kWriters + 1;
  static constexpr int programOf(int client) { return kService + 1 + client; }

  // Story
  std::uint64_t chance(std::uint64_t end) override { return scheduler_.chance(end); }
  bool isBusy() override { return isBusy_; }
  std::uint64_t rests() override { return counts_.rests; }
  void pause() override;
  int favourite() override { return favourite_; }
  void awaitService() override;
  std::int64_t nextOf(int variable) override;
  void accepted(int variable, std::int64_t number) override;
  std::int64_t floorOf(int variable) override {
    return floors_[static_cast<std::size_t>(variable)];
  }
  std::int64_t toldOf(int variable) override;
  std::uint64_t calm() override;
  void met(const char* how, int client, int variable, std::int64_t number,
           std::int64_t least) override;
  void fail(const char* what, int client, int variable, std::int64_t number,
            std::int64_t expected) override;
  void ready(int client) override { isReady_[static_cast<std::size_t>(client)] = true; }
  void settled(int client) override { isSettled_[static_cast<std::size_t>(client)] = true; }

  void writeDefinitions() const;
  void emptyRuntimeDirectory() const;
  void boot();
  void startService();
  void serve();
  void endService();
  void startClient(int client);
  void waitUntil(const char* what, const bool& done);
  // By chance.
  Time upTo(Time most);
  void raiseFloor(int variable, std::int64_t number);
  void hurry();
  void happen();
  Fault nextFault();
  void killService();
  void stopService();
  void cutPower();
  void changeChances();
  void rest();
  std::string place(const char* name) const { return options_.directory + "/" + name; }

  Scheduler& scheduler_;
  const DeviceOptions options_;
  const ConfigSrv::Log log_;
  ConfigSrv::FaultyDisk disk_;
  ConfigSrv::FaultyDisk::Contents firstDisk_;
  std::vector<std::unique_ptr<Module>> modules_;
  ConfigSrv::Service* service_ = nullptr;
  bool isServing_ = false;
  bool hasEnded_ = false;
  bool isBusy_ = true;
  std::array<bool, kClients> isReady_{};
  std::array<bool, kClients> isSettled_{};
  std::array<std::int64_t, kVariables> issued_{};
  // What was accepted or met.
  std::array<std::int64_t, kVariables> floors_{};
  // The floors of the last while, the oldest first.
  struct Floor {
    Time since;
    std::int64_t number;
  };
  std::array<std::deque<Floor>, kVariables> pastFloors_;
  Time calmSince_ = 0;
  Time uncutSince_ = 0;
  // How often something happened to the service.
  std::uint64_t unrests_ = 1;
  // Until then much is done in a short time, most of it to one variable.
  Time hurriesUntil_ = 0;
  int favourite_ = 0;
  std::vector<Fault> faults_;
  Counts counts_;
  std::string problem_;
};

}  // namespace Replay
