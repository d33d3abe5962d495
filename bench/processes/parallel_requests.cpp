// How many reads does the service answer in a second, and does a writer hold them up?
//
//   requests_N             N threads of one client read at the service without pause, past the
//                          cache, over N connections: reads in a second, all together. Floor: the
//                          same bytes against a server that is epoll and nothing else.
//   read_while_writing     uncached_read while another client writes without pause. Floor: the same
//                          without the writer.
#include <atomic>
#include <list>
#include <thread>

#include "bench/processes/cases.h"
#include "bench/processes/client.h"
#include "bench/processes/definitions.h"
#include "bench/processes/measuring.h"
#include "bench/processes/message_floor.h"
#include "bench/processes/processes.h"
#include "bench/processes/running_service.h"

namespace Bench {
namespace {

// Runs ask(thread) without pause on so many threads; how often in a second, all together.
template <typename Ask>
Outcome countRequests(const Settings& settings, int threads, const Ask& ask) {
  std::atomic<bool> stop{false};
  std::atomic<bool> broken{false};
  std::atomic<long> answered{0};
  std::list<std::thread> running;
  const double begin = nowMicroseconds();
  for (int i = 0; i < threads; ++i) {
    running.emplace_back([&, i] {
      long own = 0;
      for (; !stop && !broken; ++own) broken = broken || !ask(i);
      answered += own;
    });
  }
  usleep(static_cast<useconds_t>(settings.duration.count() * 1000));
  stop = true;
  for (std::thread& thread : running) thread.join();
  if (broken) return failed("a request failed");
  Outcome outcome;
  outcome.samples = static_cast<std::size_t>(answered);
  outcome.p50 = static_cast<double>(answered) / ((nowMicroseconds() - begin) / 1e6);
  return outcome;
}

template <int threads>
Outcome oursRequests(const Settings& settings) {
  const RunningService service(settings);
  if (!service.failure().empty()) return failed(service.failure());
  Client client(service.runtimeDir(), threads);
  if (client.readAtService(textVar()) != kText) return failed("the variable cannot be read");
  return countRequests(settings, threads,
                       [&](int) { return client.readAtService(textVar()) == kText; });
}

template <int threads>
Outcome floorRequests(const Settings& settings) {
  const MessageBytes bytes = askForBytes(settings, &Client::readBytes);
  if (bytes.request == 0) return failed("the service did not answer");
  std::vector<SocketPair> pairs(threads);
  std::vector<int> there;
  for (const SocketPair& pair : pairs) there.push_back(pair.there());
  const Child server([&] { return echoMany(there, bytes); });
  return countRequests(settings, threads, [&](int thread) {
    const int socket = pairs[static_cast<std::size_t>(thread)].here();
    return sendBytes(socket, bytes.request) && receiveBytes(socket, bytes.response);
  });
}

int writeForever(Signal& writing, const std::string& runtimeDir) {
  Client client(runtimeDir);
  for (int number = 1; client.write(writtenVar(0), number); ++number) {
    if (number == kWarmUpCalls) writing.raise();
  }
  return 1;
}

Outcome oursReadWhileWriting(const Settings& settings) {
  const RunningService service(settings);
  if (!service.failure().empty()) return failed(service.failure());
  Signal writing;
  const Child writer([&] { return writeForever(writing, service.runtimeDir()); });
  if (!writing.await()) return failed("the writer does not write");
  Client client(service.runtimeDir());
  return measure(
      settings, {service.pid()}, [&] { client.config().removeVars(""); },
      [&] { return client.config().getConfigVar(textVar()) == kText; });
}

}  // namespace

std::vector<Case> parallelRequestCases() {
  return {
      {"requests_1", oursRequests<1>, floorRequests<1>},
      {"requests_4", oursRequests<4>, floorRequests<4>},
      {"requests_16", oursRequests<16>, floorRequests<16>},
      {"read_while_writing", oursReadWhileWriting, oursUncachedRead},
  };
}

}  // namespace Bench
