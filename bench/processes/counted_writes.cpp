// How many instructions does a durable write take, the writer, the service and all who are told
// together?
//
//   counted_durable_write     setConfigVar with a ConfigResult, of another number each time, of a
//                             variable that the writer has cached; the store is on a file system
//                             in memory
//   counted_durable_write_N   the same with N other processes that are told of it
//
// Floor: update_floor.h, then one message of the notice's size to each of the N.
//
// One write begins when all have been told of the one before it, the writer's cache too: so no thread
// finds several notices at once one time and one notice the next, and two runs count the same. The
// writer has a handler for that, as the others do, and its call is counted.
#include <list>

#include "appconfig/registry/registration.h"
#include "bench/processes/cases.h"
#include "bench/processes/client.h"
#include "bench/processes/counting.h"
#include "bench/processes/definitions.h"
#include "bench/processes/message_floor.h"
#include "bench/processes/processes.h"
#include "bench/processes/running_service.h"
#include "bench/processes/telling.h"
#include "bench/processes/update_floor.h"

namespace Bench {
namespace {

// All numbers have as many digits.
constexpr int kFirstNumber = 1'000'000;

struct Counted {
  Meeting meeting;
  Signal end;
};

// A process that was killed would leave no count.
template <typename Children>
Outcome finish(Outcome outcome, Counted& counted, Children& children) {
  counted.end.raise(static_cast<int>(children.size()));
  for (Child& child : children) {
    if (!child.join()) return failed("a consumer failed");
  }
  return outcome;
}

int consume(Counted& counted, const std::string& runtimeDir) {
  Client client(runtimeDir);
  Telling handler(counted.meeting);
  registerHandler(kGroup, writtenVar(0).name(), &handler);
  if (!client.waitUntilConnected()) return 1;
  counted.meeting.ready.raise();
  return counted.end.awaitForever() ? 0 : 1;
}

Outcome write(const Settings& settings, Counted& counted, int consumers,
              const std::string& runtimeDir) {
  if (!counted.meeting.ready.await(consumers)) return failed("a consumer did not get ready");
  Client writer(runtimeDir);
  Telling handler(counted.meeting);
  registerHandler(kGroup, writtenVar(0).name(), &handler);
  if (!writer.waitUntilConnected() || writer.config().getConfigVarInt(writtenVar(0)) != 0)
    return failed("the variable cannot be read");
  return repeat(settings, [&](int n) {
    counted.meeting.expect(kFirstNumber + n, consumers + 1);
    return writer.write(writtenVar(0), kFirstNumber + n) && counted.meeting.allTold.await();
  });
}

template <int consumers>
Outcome oursDurableWrite(const Settings& settings) {
  const RunningService service(settings, 1000, RunningService::StoreOn::Memory);
  if (!service.failure().empty()) return failed(service.failure());
  Counted counted;
  std::list<Child> children;
  for (int i = 0; i < consumers; ++i)
    children.emplace_back([&] { return consume(counted, service.runtimeDir()); });
  return finish(write(settings, counted, consumers, service.runtimeDir()), counted, children);
}

int receive(Counted& counted, int socket) {
  counted.meeting.ready.raise();
  const std::size_t bytes = noticeBytes();
  while (receiveBytes(socket, bytes)) counted.meeting.told();
  return 0;
}

Outcome tell(const Settings& settings, Counted& counted, const std::list<SocketPair>& pairs) {
  const int receivers = static_cast<int>(pairs.size());
  if (!counted.meeting.ready.await(receivers)) return failed("a receiver did not get ready");
  const TempDir dir(settings.memoryDir);
  UpdateFloor floor(dir.file("floor.db"));
  const std::size_t bytes = noticeBytes();
  return repeat(settings, [&](int n) {
    counted.meeting.expect(kFirstNumber + n, receivers);
    bool done = floor.update(std::to_string(kFirstNumber + n));
    for (const SocketPair& pair : pairs) done = done && sendBytes(pair.here(), bytes);
    return done && (receivers == 0 || counted.meeting.allTold.await());
  });
}

template <int consumers>
Outcome floorDurableWrite(const Settings& settings) {
  Counted counted;
  std::list<SocketPair> pairs;
  std::list<Child> children;
  for (int i = 0; i < consumers; ++i) {
    SocketPair& pair = pairs.emplace_back();
    children.emplace_back([&] {
      for (SocketPair& one : pairs) one.closeHere();
      return receive(counted, pair.there());
    });
  }
  Outcome outcome = tell(settings, counted, pairs);
  for (SocketPair& pair : pairs) pair.closeHere();
  return finish(outcome, counted, children);
}

}  // namespace

std::vector<Case> countedWriteCases() {
  return {
      {"counted_durable_write", oursDurableWrite<0>, floorDurableWrite<0>},
      {"counted_durable_write_1", oursDurableWrite<1>, floorDurableWrite<1>},
      {"counted_durable_write_10", oursDurableWrite<10>, floorDurableWrite<10>},
  };
}

}  // namespace Bench
