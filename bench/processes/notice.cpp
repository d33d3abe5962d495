// How long after a writer's call does a handler in another process run?
//
//   notice               from calling setConfigVar to the handler, one consumer, store on the disk
//   notice_in_memory_N   the same with N consumers, until the last one's handler runs, store on a
//                        file system in memory
//   Floor of both: one commit of one row on the same file system, then one message of the notice's
//   size to each consumer, until the last one has it.
//
//   notice_after_commit  from the end of the service's commit to the handler, one consumer, store
//                        on the disk. Floor: from the end of a bare commit to one message's arrival.
#include <functional>
#include <list>

#include "appconfig/registry/registration.h"
#include "bench/processes/cases.h"
#include "bench/processes/client.h"
#include "bench/processes/commit_clock.h"
#include "bench/processes/commit_floor.h"
#include "bench/processes/definitions.h"
#include "bench/processes/measuring.h"
#include "bench/processes/processes.h"
#include "bench/processes/running_service.h"
#include "bench/processes/telling.h"

namespace Bench {
namespace {

using StoreOn = RunningService::StoreOn;

int consume(Meeting& meeting, const std::string& runtimeDir) {
  Client client(runtimeDir);
  Telling handler(meeting);
  registerHandler(kGroup, writtenVar(0).name(), &handler);
  if (!client.waitUntilConnected()) return 1;
  meeting.ready.raise();
  while (true) pause();  // until the parent ends this process
}

// Tells, after a round, when its time began. Without one a round begins with the call.
using BeginOfRound = std::function<double()>;

// Calls tell(number) over and over, each time until all receivers have been told. Times are those
// of the last receiver.
template <typename Tell>
Outcome tellAll(const Settings& settings, Meeting& meeting, int receivers, const Tell& tell,
                const BeginOfRound& beginOfRound) {
  if (!meeting.ready.await(receivers)) return failed("a receiver did not get ready");
  std::vector<double> samples;
  const double begin = nowMicroseconds();
  const double end = begin + static_cast<double>(settings.duration.count()) * 1000;
  for (int number = 1; nowMicroseconds() < end || number <= kWarmUpCalls + 1; ++number) {
    meeting.expect(number, receivers);
    const double before = nowMicroseconds();
    if (!tell(number)) return failed("telling failed");
    if (!meeting.allTold.await()) return failed("a receiver was not told");
    const double since = beginOfRound ? beginOfRound() : before;
    if (number > kWarmUpCalls) samples.push_back(meeting.round->lastAt - since);
  }
  return summarize(std::move(samples));
}

Outcome oursNotice(const Settings& settings, StoreOn storeOn, int consumers,
                   const BeginOfRound& beginOfRound = nullptr) {
  const RunningService service(settings, 1000, storeOn);
  if (!service.failure().empty()) return failed(service.failure());
  Meeting meeting;
  std::list<Child> children;
  for (int i = 0; i < consumers; ++i)
    children.emplace_back([&] { return consume(meeting, service.runtimeDir()); });
  Client writer(service.runtimeDir());
  return tellAll(
      settings, meeting, consumers, [&](int number) { return writer.write(writtenVar(0), number); },
      beginOfRound);
}

int receive(Meeting& meeting, int socket) {
  meeting.ready.raise();
  while (receiveBytes(socket, noticeBytes())) meeting.told();
  return 0;
}

// Commits, then sends each receiver its message, round by round.
Outcome floorNotice(const Settings& settings, const std::string& parentDir, int receivers,
                    bool sinceCommit = false) {
  const TempDir dir(parentDir);
  Meeting meeting;
  std::list<SocketPair> pairs;
  std::list<Child> children;
  for (int i = 0; i < receivers; ++i) {
    SocketPair& pair = pairs.emplace_back();
    children.emplace_back([&] { return receive(meeting, pair.there()); });
  }
  CommitFloor floor(dir.file("floor.db"));
  const std::size_t bytes = noticeBytes();
  double committedAt = 0;
  const auto tell = [&](int) {
    bool done = floor.commit();
    committedAt = nowMicroseconds();
    for (const SocketPair& pair : pairs) done = done && sendBytes(pair.here(), bytes);
    return done;
  };
  if (!sinceCommit) return tellAll(settings, meeting, receivers, tell, nullptr);
  return tellAll(settings, meeting, receivers, tell, [&] { return committedAt; });
}

Outcome oursAfterCommit(const Settings& settings) {
  const CommitClock clock(settings);
  return oursNotice(settings, StoreOn::Disk, 1, [&] { return clock.lastCommitAt(); });
}

Outcome floorAfterCommit(const Settings& settings) {
  return floorNotice(settings, settings.diskDir, 1, true);
}

Outcome oursOnDisk(const Settings& settings) { return oursNotice(settings, StoreOn::Disk, 1); }
Outcome floorOnDisk(const Settings& settings) { return floorNotice(settings, settings.diskDir, 1); }

template <int consumers>
Outcome oursInMemory(const Settings& settings) {
  return oursNotice(settings, StoreOn::Memory, consumers);
}
template <int consumers>
Outcome floorInMemory(const Settings& settings) {
  return floorNotice(settings, settings.memoryDir, consumers);
}

}  // namespace

std::vector<Case> noticeCases() {
  return {
      {"notice", oursOnDisk, floorOnDisk},
      {"notice_after_commit", oursAfterCommit, floorAfterCommit},
      {"notice_in_memory_1", oursInMemory<1>, floorInMemory<1>},
      {"notice_in_memory_10", oursInMemory<10>, floorInMemory<10>},
      {"notice_in_memory_64", oursInMemory<64>, floorInMemory<64>},
  };
}

}  // namespace Bench
