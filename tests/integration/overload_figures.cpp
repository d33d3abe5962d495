// Prints what many clients cost a service, and what a client that stands still costs the others.
// scripts/overload runs it.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "platform/schema/config_if.pb.h"
#include "tests/support/load.h"
#include "tests/support/service_process.h"

namespace {

using PbUtility::ConnectionUse;
using PbUtility::FrameHeader;
using TestSupport::Load;
using TestSupport::LoadConnection;
using TestSupport::loadVariable;
using TestSupport::residentBytes;
using TestSupport::ServiceProcess;
using Clock = std::chrono::steady_clock;
using Microseconds = std::chrono::duration<double, std::micro>;

constexpr std::size_t kClients = 64;
constexpr std::size_t kVariables = 10'000;
constexpr std::size_t kRegistrations = 100'000;
constexpr int kRounds = 5;
constexpr std::size_t kWriters = 2;

void endOnFailure() {
  if (testing::Test::HasFailure()) std::exit(1);
}

void fillKey(ConfigIF::Inst* inst, std::size_t variable) {
  const std::string key = loadVariable(variable);
  inst->add_path()->set_name(key.substr(0, key.rfind('.')));
  inst->add_path()->set_name(key.substr(key.rfind('.') + 1));
}

template <typename Response>
double exchange(LoadConnection& connection, const google::protobuf::MessageLite& request) {
  FrameHeader header;
  std::string payload;
  const Clock::time_point begin = Clock::now();
  connection.add(request);
  const bool answered = connection.send() && connection.receive(header, payload);
  const double took = Microseconds(Clock::now() - begin).count();
  Response response;
  if (!answered || !response.ParseFromString(payload) || response.result().has_error()) {
    std::fprintf(stderr, "a request failed\n");
    std::exit(1);
  }
  return took;
}

double read(LoadConnection& connection, std::size_t variable) {
  ConfigIF::ReadReq request;
  fillKey(request.mutable_inst(), variable);
  return exchange<ConfigIF::ReadRsp>(connection, request);
}

double write(LoadConnection& connection, std::size_t variable, const std::string& value) {
  ConfigIF::WriteReq request;
  request.set_role(CommonIF::SECURITY_ROLE_USER);
  fillKey(request.mutable_value()->mutable_inst(), variable);
  request.mutable_value()->add_values(value);
  return exchange<ConfigIF::WriteRsp>(connection, request);
}

double p99(std::vector<double> times) {
  if (times.empty()) return 0;
  const auto place = times.begin() + static_cast<std::ptrdiff_t>(times.size() * 99 / 100);
  std::nth_element(times.begin(), place, times.end());
  return *place;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

// --- What many clients cost ---

void printScale(std::size_t part) {
  const std::size_t variables = kVariables / part;
  const std::size_t registrations = kRegistrations / part;
  ServiceProcess service(TestSupport::loadDefinitions(variables));
  service.start();
  const std::size_t empty = residentBytes(service.pid());
  Load load(service.socket(), kClients / part);
  const Clock::time_point begin = Clock::now();
  load.registerFor(variables, registrations);
  const double took = Microseconds(Clock::now() - begin).count();
  endOnFailure();
  std::printf("%7zu %9zu %13zu %12.2f %16.2f %10zu %10zu\n", kClients / part, variables,
              registrations, took / 1e6, took / static_cast<double>(registrations), empty / 1024,
              residentBytes(service.pid()) / 1024);
}

// --- What a client that stands still costs the others ---

// A process that is told of everything and reads it.
pid_t startReader(const std::string& socket) {
  const pid_t child = fork();
  if (child != 0) return child;
  LoadConnection requests(socket, "stopped", 1000, ConnectionUse::Requests);
  LoadConnection delivery(socket, "stopped", 1000, ConnectionUse::Delivery);
  ConfigIF::RegisterClientCallbackReq request;
  request.set_type(ConfigIF::CALLBACK_VALUE_CHANGED);
  request.set_role(CommonIF::SECURITY_ROLE_USER);
  request.set_name("load");
  request.set_endpoint_name("PlatCfgSvc0-1-0");
  exchange<ConfigIF::RegisterClientCallbackRsp>(requests, request);
  char bytes[65536];
  while (recv(delivery.fd(), bytes, sizeof bytes, 0) != 0) continue;
  _exit(0);
}

struct Latencies {
  double read = 0;
  double write = 0;
};

Latencies measure(const std::string& socket, std::chrono::milliseconds time) {
  static int run = 0;
  ++run;
  const Clock::time_point end = Clock::now() + time;
  std::vector<std::vector<double>> writes(kWriters);
  std::vector<std::thread> writers;
  for (std::size_t w = 0; w < kWriters; ++w) {
    writers.emplace_back([&, w] {
      const auto token = static_cast<std::uint32_t>(2000 + w);
      LoadConnection connection(socket, "writer", token, ConnectionUse::Requests);
      for (std::size_t i = 0; Clock::now() < end; ++i) {
        const std::string value = std::to_string(run) + "." + std::to_string(i);
        writes[w].push_back(write(connection, (i * kWriters + w) % kVariables, value));
      }
    });
  }
  LoadConnection connection(socket, "reader", 3000, ConnectionUse::Requests);
  std::vector<double> reads;
  for (std::size_t i = 0; Clock::now() < end; ++i)
    reads.push_back(read(connection, i * 7 % kVariables));
  for (std::thread& writer : writers) writer.join();
  std::vector<double> allWrites;
  for (const auto& each : writes) allWrites.insert(allWrites.end(), each.begin(), each.end());
  return {p99(reads), p99(allWrites)};
}

void printStopped(std::chrono::milliseconds time) {
  ServiceProcess service(TestSupport::loadDefinitions(kVariables));
  service.start();
  const pid_t reader = startReader(service.socket());
  Load load(service.socket(), kClients);
  load.registerFor(kVariables, kRegistrations);
  endOnFailure();
  measure(service.socket(), time);
  const std::size_t before = residentBytes(service.pid());
  std::vector<double> readsBefore;
  std::vector<double> reads;
  std::vector<double> writesBefore;
  std::vector<double> writes;
  for (int round = 0; round < kRounds; ++round) {
    const Latencies running = measure(service.socket(), time);
    kill(reader, SIGSTOP);
    const Latencies stopped = measure(service.socket(), time);
    kill(reader, SIGCONT);
    readsBefore.push_back(running.read);
    reads.push_back(stopped.read);
    writesBefore.push_back(running.write);
    writes.push_back(stopped.write);
  }
  const std::size_t after = residentBytes(service.pid());
  kill(reader, SIGKILL);
  waitpid(reader, nullptr, 0);
  std::printf("read   %12.0f %12.0f %8.2f\n", median(readsBefore), median(reads),
              median(reads) / median(readsBefore));
  std::printf("write  %12.0f %12.0f %8.2f\n", median(writesBefore), median(writes),
              median(writes) / median(writesBefore));
  std::printf("memory of the service: %zu KiB before, %zu KiB after\n", before / 1024,
              after / 1024);
}

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  const int time = argc > 1 ? std::atoi(argv[1]) : 5000;
  if (time <= 0) return 2;
  std::printf(
      "clients variables registrations seconds_all microseconds_each empty_KiB    all_KiB\n");
  for (const std::size_t part : {4U, 2U, 1U}) printScale(part);
  std::printf("\np99, microseconds; %zu clients, %zu registrations, %zu writers, one more client\n",
              kClients, kRegistrations, kWriters);
  std::printf("        all reading  one stopped    ratio\n");
  printStopped(std::chrono::milliseconds(time));
  return testing::Test::HasFailure() ? 1 : 0;
}
