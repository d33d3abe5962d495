// How much does an acknowledged write cost beyond making it durable, and do writers share commits?
//
//   durable_write   setConfigVar with a ConfigResult, of another value each time; floor: one commit
//                   of one row with SQLite alone
//   store_commit    the service's store without the service; the same floor
//   writers_N       N processes that each write a variable of their own without pause: writes that
//                   were acknowledged in a second, all together. Floor of writers_1: commits that
//                   SQLite alone makes in a second. Floor of the others: one writer.
#include <array>
#include <atomic>
#include <list>

#include "bench/processes/cases.h"
#include "bench/processes/client.h"
#include "bench/processes/commit_floor.h"
#include "bench/processes/definitions.h"
#include "bench/processes/measuring.h"
#include "bench/processes/processes.h"
#include "bench/processes/running_service.h"
#include "configsrv/store/store.h"

namespace Bench {
namespace {

const auto kNothing = [] {};

double seconds(const Settings& settings) {
  return static_cast<double>(settings.duration.count()) / 1000;
}

Outcome oursDurableWrite(const Settings& settings) {
  const RunningService service(settings);
  if (!service.failure().empty()) return failed(service.failure());
  Client client(service.runtimeDir());
  int number = 0;
  return measure(settings, {service.pid()}, kNothing,
                 [&] { return client.write(writtenVar(0), ++number); });
}

Outcome oursStoreCommit(const Settings& settings) {
  const TempDir dir(settings.diskDir);
  const ConfigSrv::OpenedStore opened = ConfigSrv::Store::open({dir.file("store.db")});
  if (!opened.status.ok()) return failed(opened.status.text);
  int number = 0;
  return measure(settings, {}, kNothing, [&] {
    const ConfigSrv::StoreChange change{
        writtenVar(0), ConfigSrv::StoreChange::SetValue{{std::to_string(++number)}}};
    return opened.store->commit({{change}}).status.ok();
  });
}

Outcome rateOf(double count, double duration) {
  Outcome outcome;
  outcome.p50 = count / duration;
  outcome.samples = static_cast<std::size_t>(count);
  return outcome;
}

Outcome floorCommitRate(const Settings& settings) {
  const Outcome commits = floorOneCommit(settings);
  if (!commits.failure.empty()) return commits;
  return rateOf(static_cast<double>(commits.samples), seconds(settings));
}

struct Writers {
  Signal ready;
  Signal go;
  Shared<std::atomic<bool>> stop;
  Shared<std::atomic<long>> acknowledged;
};

int writeUntilStopped(Writers& writers, const std::string& runtimeDir, int instance) {
  Client client(runtimeDir);
  const ConfigVar var = writtenVar(instance);
  int number = 1;
  // The first write is followed by the registration for changes; both are over when counting
  // begins.
  if (!client.write(var, number) || !client.waitUntilConnected()) return 1;
  writers.ready.raise();
  if (!writers.go.await()) return 1;
  while (!*writers.stop) {
    if (!client.write(var, ++number)) return 1;
    ++*writers.acknowledged;
  }
  return 0;
}

Outcome countWrites(const Settings& settings, Writers& writers, int count) {
  if (!writers.ready.await(count)) return failed("a writer did not get ready");
  writers.go.raise(count);
  const double begin = nowMicroseconds();
  usleep(static_cast<useconds_t>(settings.duration.count() * 1000));
  const long acknowledged = *writers.acknowledged;
  const double duration = (nowMicroseconds() - begin) / 1e6;
  *writers.stop = true;
  return rateOf(static_cast<double>(acknowledged), duration);
}

template <int count>
Outcome oursWriters(const Settings& settings) {
  const RunningService service(settings);
  if (!service.failure().empty()) return failed(service.failure());
  Writers writers;
  std::list<Child> children;
  for (int i = 0; i < count; ++i)
    children.emplace_back([&, i] { return writeUntilStopped(writers, service.runtimeDir(), i); });
  const Outcome outcome = countWrites(settings, writers, count);
  for (Child& child : children) {
    if (outcome.failure.empty() && !child.join()) return failed("a writer failed");
  }
  return outcome;
}

}  // namespace

Outcome floorOneCommit(const Settings& settings) {
  const TempDir dir(settings.diskDir);
  CommitFloor floor(dir.file("floor.db"));
  return measure(settings, {}, kNothing, [&] { return floor.commit(); });
}

std::vector<Case> durableWriteCases() {
  return {
      {"durable_write", oursDurableWrite, floorOneCommit},
      {"store_commit", oursStoreCommit, floorOneCommit},
      {"writers_1", oursWriters<1>, floorCommitRate},
      {"writers_4", oursWriters<4>, oursWriters<1>},
      {"writers_16", oursWriters<16>, oursWriters<1>},
  };
}

}  // namespace Bench
