// What a service does with more than it can take: it grows no faster than what is asked of it, slows
// down whoever asks too much, and lets nobody wait for a client that stands still.
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <thread>

#include "tests/integration/fixture.h"
#include "tests/support/load.h"

namespace TestSupport {
namespace {

using PbUtility::ConnectionUse;
using PbUtility::FrameHeader;
using PbUtility::FrameKind;
using testing::HasSubstr;

#if defined(APPCONFIG_SANITIZE_ADDRESS) || defined(APPCONFIG_SANITIZE_THREAD)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
// Under a sanitizer everything is this much less, and memory is the sanitizer's own.
constexpr std::size_t kLess = kSanitized ? 10 : 1;
constexpr std::size_t kMiB = std::size_t{1} << 20;

ConfigIF::WriteReq writeOf(const std::string& group, const std::string& name,
                           const std::string& value) {
  ConfigIF::WriteReq request;
  request.set_client_name("writer");
  request.set_role(CommonIF::SECURITY_ROLE_USER);
  request.mutable_value()->mutable_inst()->add_path()->set_name(group);
  request.mutable_value()->mutable_inst()->add_path()->set_name(name);
  request.mutable_value()->add_values(value);
  return request;
}

ConfigIF::WriteReq writeOf(std::size_t variable, const std::string& value) {
  const std::string key = loadVariable(variable);
  const std::size_t dot = key.rfind('.');
  return writeOf(key.substr(0, dot), key.substr(dot + 1), value);
}

// Writes all at once and waits for all to be answered.
void writeAll(LoadConnection& writer, std::size_t variables, const std::string& value) {
  for (std::size_t i = 0; i < variables; ++i) writer.add(writeOf(i, value));
  ASSERT_TRUE(writer.send());
  FrameHeader header;
  std::string payload;
  for (std::size_t i = 0; i < variables; ++i) {
    ASSERT_TRUE(writer.receive(header, payload));
    ConfigIF::WriteRsp response;
    ASSERT_TRUE(response.ParseFromString(payload));
    ASSERT_EQ(response.result().error(), CommonIF::ERROR_NONE) << response.result().messages(0);
  }
}

// --- How much it takes ---

// Memory that a service of its own takes for a part of 64 clients, 10,000 variables and 100,000
// registrations.
std::size_t memoryOfPart(std::size_t part) {
  const std::size_t variables = 10'000 / part / kLess;
  ServiceProcess service(loadDefinitions(variables));
  service.start();
  Load load(service.socket(), 64 / part);
  load.registerFor(variables, 100'000 / part / kLess);
  const std::size_t bytes = residentBytes(service.pid());
  std::printf("%zu clients, %zu variables, %zu registrations: %zu KiB\n", 64 / part, variables,
              100'000 / part / kLess, bytes / 1024);
  return bytes;
}

TEST(ScaleTest, MemoryGrowsWithClientsVariablesAndRegistrationsAndNoFaster) {
  const std::size_t quarter = memoryOfPart(4);
  const std::size_t half = memoryOfPart(2);
  const std::size_t full = memoryOfPart(1);
  EXPECT_GT(full, half);
  if (kSanitized) GTEST_SKIP() << "a tenth of the load was served; memory is the sanitizer's";
  // Twice as much more takes twice as much more: a half's worth on either side is allocators and
  // tables, which grow in steps.
  EXPECT_LT(full - half, 3 * (half - quarter));
  EXPECT_GT(full - half, half - quarter);
  EXPECT_LT(full, 48 * kMiB);
}

// --- Clients that stand still ---

class StoppedApplication {
 public:
  StoppedApplication(const std::string& runtimeDir, std::size_t variables) {
    int in[2];
    int out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) abort();
    std::vector<std::string> line = {STOPPED_APPLICATION, runtimeDir};
    for (std::size_t i = 0; i < variables; ++i) line.push_back(loadVariable(i));
    std::vector<char*> argv;
    for (std::string& word : line) argv.push_back(word.data());
    argv.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
      dup2(in[0], STDIN_FILENO);
      dup2(out[1], STDOUT_FILENO);
      execv(argv[0], argv.data());
      _exit(127);
    }
    close(in[0]);
    close(out[1]);
    toIt_ = fdopen(in[1], "w");
    fromIt_ = fdopen(out[0], "r");
    EXPECT_EQ(line_(), "ready");
  }
  ~StoppedApplication() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    fclose(toIt_);
    fclose(fromIt_);
  }
  StoppedApplication(const StoppedApplication&) = delete;
  StoppedApplication& operator=(const StoppedApplication&) = delete;

  void stop() const {
    kill(pid_, SIGSTOP);
    int status = 0;
    waitpid(pid_, &status, WUNTRACED);
    EXPECT_TRUE(WIFSTOPPED(status));
  }
  void goOn() const { kill(pid_, SIGCONT); }
  std::string cached(std::size_t variable) {
    std::fprintf(toIt_, "%zu\n", variable);
    std::fflush(toIt_);
    return line_();
  }

 private:
  std::string line_() {
    std::string line;
    for (int c = std::fgetc(fromIt_); c != EOF && c != '\n'; c = std::fgetc(fromIt_))
      line.push_back(static_cast<char>(c));
    return line;
  }

  pid_t pid_ = -1;
  FILE* toIt_ = nullptr;
  FILE* fromIt_ = nullptr;
};

TEST(StoppedClientTest, HoldsUpNobodyCostsANoticeForEachVariableAndIsBroughtUpToDate) {
  constexpr std::size_t kVariables = 20;
  ServiceProcess service(loadDefinitions(kVariables));
  service.start();
  StoppedApplication stopped(service.runtimeDir(), kVariables);
  TestClient reader("reader", service.runtimeDir());
  ASSERT_TRUE(reader.registerFor(ConfigIF::CALLBACK_VALUE_CHANGED, "load").ok());
  LoadConnection writer(service.socket(), "writer", 1, ConnectionUse::Requests);
  writeAll(writer, kVariables, std::string(10'000, 'x'));
  const std::size_t before = residentBytes(service.pid());
  stopped.stop();
  const std::size_t rounds = 200 / kLess;
  std::string value;
  for (std::size_t round = 0; round < rounds; ++round) {
    value = std::to_string(round) + std::string(10'000, 'x');
    writeAll(writer, kVariables, value);
  }
  // 40 MB of notices were due to it; who goes on is told all.
  const std::size_t after = residentBytes(service.pid());
  EXPECT_TRUE(reader.waitForNotice("value " + loadVariable(kVariables - 1) + " = " + value));
  if (!kSanitized) {
    EXPECT_LT(after, before + 8 * kMiB);
  }
  stopped.goOn();
  for (std::size_t i = 0; i < kVariables; ++i)
    EXPECT_TRUE(eventually([&] { return stopped.cached(i) == value; })) << i;
}

TEST(StoppedClientTest, AMonitorThatDoesNotReadIsClosedAtTheLimit) {
  ServiceProcess service(loadDefinitions(1));
  service.start();
  LoadConnection monitor(service.socket(), "monitor", 1, ConnectionUse::Delivery);
  ConfigIF::MonitorReq watch;
  watch.set_role(CommonIF::SECURITY_ROLE_USER);
  monitor.add(watch);
  ASSERT_TRUE(monitor.send());
  TestClient writer("writer", service.runtimeDir());
  ASSERT_TRUE(writer.write(loadVariable(0), std::string(kMiB, 'x')).ok());
  for (int i = 0; i < 50; ++i) ASSERT_TRUE(writer.read(loadVariable(0)).ok());
  EXPECT_EQ(service.linesWith("\"monitor\""), 1) << service.log();
  EXPECT_THAT(service.log(), HasSubstr("does not read what is for it"));
  if (!kSanitized) {
    EXPECT_TRUE(eventually([&] { return residentBytes(service.pid()) < 80 * kMiB; }));
  }
}

// --- Catching up ---

// Registers over the delivery connection as who knows nothing, as an endpoint does after the
// service was replaced.
void repeatRegistration(std::string& frames, const std::string& name, const std::string& identity,
                        std::uint32_t sequence) {
  ConfigIF::RegisterClientCallbackReq request;
  request.set_type(ConfigIF::CALLBACK_VALUE_CHANGED);
  request.set_role(CommonIF::SECURITY_ROLE_USER);
  request.set_name(name);
  request.set_endpoint_name(identity);
  FrameHeader header;
  header.kind = FrameKind::Request;
  header.messageId = 0x1A0210;
  header.sequence = sequence;
  header.revision = PbUtility::kRevisionNone;
  const std::string payload = request.SerializeAsString();
  header.payloadBytes = static_cast<std::uint32_t>(payload.size());
  std::string bytes(PbUtility::kFrameHeaderBytes, '\0');
  encodeHeader(header, reinterpret_cast<unsigned char*>(bytes.data()));
  frames += bytes + payload;
}

struct Told {
  std::size_t notices = 0;
  std::size_t responses = 0;
  std::uint32_t lastSequence = 0;
};

// Reads until so much has come, or nothing more does.
Told readUntil(LoadConnection& delivery, std::size_t responses, std::size_t notices) {
  Told told;
  FrameHeader header;
  std::string payload;
  while ((told.responses < responses || told.notices < notices) &&
         delivery.receive(header, payload)) {
    if (header.kind == FrameKind::Notice) ++told.notices;
    if (header.kind == FrameKind::Response) {
      ++told.responses;
      told.lastSequence = header.sequence;
    }
  }
  return told;
}

TEST(CatchUpTest, AClientThatIsOwedMoreThanMayWaitForItIsToldAllOfIt) {
  constexpr std::size_t kVariables = 15;
  constexpr std::uint32_t kIdentities = 4;
  ServiceProcess service(loadDefinitions(kVariables));
  service.start();
  LoadConnection writer(service.socket(), "writer", 1, ConnectionUse::Requests);
  const std::string megabyte(kMiB - 1024, 'x');
  writeAll(writer, kVariables, megabyte);
  const std::size_t before = residentBytes(service.pid());
  LoadConnection delivery(service.socket(), "behind", 2, ConnectionUse::Delivery);
  std::string frames;
  for (std::uint32_t i = 1; i <= kIdentities; ++i)
    repeatRegistration(frames, "load", "link " + std::to_string(i), i);
  ASSERT_EQ(send(delivery.fd(), frames.data(), frames.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(frames.size()));
  const Told told = readUntil(delivery, kIdentities, kIdentities * kVariables);
  EXPECT_EQ(told.responses, kIdentities) << service.log();
  EXPECT_EQ(told.notices, kIdentities * kVariables);
  EXPECT_EQ(service.linesWith("closed the connection"), 0) << service.log();
  if (!kSanitized) {
    EXPECT_LT(residentBytes(service.pid()), before + 16 * kMiB);
  }
}

TEST(CatchUpTest, AHundredThousandRegistrationsAreRepeatedOverOneConnection) {
  const std::size_t variables = 10'000 / kLess;
  constexpr std::size_t kIdentities = 10;
  const std::size_t registrations = variables * kIdentities;
  ServiceProcess service(loadDefinitions(variables));
  service.start();
  LoadConnection delivery(service.socket(), "behind", 1, ConnectionUse::Delivery);
  std::string frames;
  std::uint32_t sequence = 0;
  for (std::size_t i = 0; i < variables; ++i) {
    for (std::size_t identity = 0; identity < kIdentities; ++identity) {
      repeatRegistration(frames, loadVariable(i), "link " + std::to_string(identity), ++sequence);
    }
  }
  std::thread sender([&] {
    std::size_t sent = 0;
    while (sent < frames.size()) {
      const ssize_t now =
          send(delivery.fd(), frames.data() + sent, frames.size() - sent, MSG_NOSIGNAL);
      if (now <= 0) return;
      sent += static_cast<std::size_t>(now);
    }
  });
  const Told told = readUntil(delivery, registrations, registrations);
  sender.join();
  EXPECT_EQ(told.responses, registrations) << service.log();
  EXPECT_EQ(told.notices, registrations);
  EXPECT_EQ(told.lastSequence, sequence);
  std::printf("%zu registrations repeated\n", registrations);
}

// --- Limits, at the service itself ---

TEST(LimitTest, AFloodOfOneWayWritesIsSlowedDownAndNotLost) {
  const std::size_t writes = 2'000 / kLess;
  ServiceProcess service(loadDefinitions(1));
  service.start();
  LoadConnection writer(service.socket(), "writer", 1, ConnectionUse::Requests);
  for (std::size_t i = 0; i < writes; ++i)
    writer.add(writeOf(0, std::to_string(i)), FrameKind::OneWay);
  ASSERT_TRUE(writer.send());
  TestClient reader("reader", service.runtimeDir());
  const std::vector<std::string> last = {std::to_string(writes - 1)};
  EXPECT_TRUE(eventually([&] { return reader.read(loadVariable(0)).values == last; }));
  EXPECT_EQ(service.linesWith("failed with error"), 0) << service.log();
}

TEST(LimitTest, AListingThatIsTooLongIsRefusedWithTheWayToGetIt) {
  constexpr std::size_t kVariables = 13;
  std::string definitions = loadDefinitions(kVariables);
  definitions += "[variable.\"small.one\"]\ntype = \"string\"\ndefault = \"-\"\n";
  ServiceProcess service(definitions);
  service.start();
  LoadConnection writer(service.socket(), "writer", 1, ConnectionUse::Requests);
  writeAll(writer, kVariables, std::string(kMiB, 'x'));
  TestClient client("client", service.runtimeDir());
  ConfigIF::ListRsp response;
  const Outcome all = client.request(ConfigIF::ListReq(), &response);
  EXPECT_EQ(all.error, CommonIF::ERROR_LIMIT);
  EXPECT_EQ(all.text,
            "the listing would be longer than 4194304 bytes, or take more than 15728640 bytes of "
            "memory: list in pages, or group by group\n");
  EXPECT_EQ(response.records_size(), 0);
  ConfigIF::ListReq group;
  group.set_prefix("small");
  EXPECT_TRUE(client.request(group, &response).ok());
  EXPECT_EQ(response.records_size(), 1);
  ConfigIF::ListReq pages;
  pages.set_at_most(1000);
  std::vector<int> records;
  do {
    ASSERT_TRUE(client.request(pages, &response).ok());
    records.push_back(response.records_size());
    *pages.mutable_after() = response.next();
  } while (response.has_next());
  EXPECT_THAT(records, testing::ElementsAre(3, 3, 3, 3, 2));
}

TEST(LimitTest, AClientNameThatIsTooLongIsCutInTheLog) {
  ServiceProcess service(loadDefinitions(1));
  service.start();
  LoadConnection writer(service.socket(), "writer", 1, ConnectionUse::Requests);
  ConfigIF::WriteReq request = writeOf("load", "missing", "x");
  request.set_client_name(std::string(300, 'n'));
  writer.add(request, FrameKind::OneWay);
  ASSERT_TRUE(writer.send());
  EXPECT_TRUE(service.waitForLog("a one-way write by " + std::string(256, 'n') + " failed"));
}

TEST(LimitTest, AMonitorsNameThatIsTooLongIsRefused) {
  ServiceProcess service(loadDefinitions(1));
  service.start();
  TestClient client("client", service.runtimeDir());
  ConfigIF::MonitorReq request;
  ConfigIF::MonitorRsp response;
  request.set_prefix(std::string(1024, 'n'));
  EXPECT_TRUE(client.request(request, &response).ok());
  request.set_prefix(std::string(1025, 'n'));
  const Outcome tooLong = client.request(request, &response);
  EXPECT_EQ(tooLong.error, CommonIF::ERROR_LIMIT);
  EXPECT_EQ(tooLong.text, "a name of 1025 bytes is longer than the limit of 1024\n");
}

TEST(LimitTest, OfAGroupWhoseResetIsRefusedTheFirstReasonsAreTold) {
  constexpr std::size_t kVariables = 70;
  ServiceProcess service(loadDefinitions(kVariables));
  service.start();
  LoadConnection writer(service.socket(), "writer", 1, ConnectionUse::Requests);
  writeAll(writer, kVariables, "changed");
  TestClient provider("provider", service.runtimeDir());
  provider.provide("load", [](const ProviderQuestion& question) {
    return question.values.front() == "-" ? veto("no") : consent();
  });
  TestClient client("client", service.runtimeDir());
  ConfigIF::ResetNodeValueReq request;
  request.set_name("load");
  ConfigIF::ResetNodeValueRsp response;
  EXPECT_EQ(client.request(request, &response).error, CommonIF::ERROR_VETOED);
  EXPECT_EQ(response.result().messages_size(), 20);
  EXPECT_EQ(response.changed(), 0U);
}

bool anotherProcessIsServed(const ServiceProcess& service) {
  const pid_t child = fork();
  if (child == 0) {
    const LoadConnection connection(service.socket(), "other", 99'999, ConnectionUse::Requests);
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST(LimitTest, AProcessThatTakesAllConnectionsItCanLeavesSomeForOthers) {
  constexpr std::uint32_t kPerProcess = 256;
  ServiceProcess service(loadDefinitions(1));
  service.start();
  std::vector<LoadConnection> taken;
  for (std::uint32_t i = 0; i < kPerProcess; ++i)
    taken.emplace_back(service.socket(), "greedy", i + 1, ConnectionUse::Requests);
  TestClient refused("refused", service.runtimeDir());
  const Outcome outcome = refused.read(loadVariable(0));
  EXPECT_EQ(outcome.call, PbUtility::kCallRefused);
  EXPECT_EQ(outcome.text, "no more than 256 connections for one process, and process " +
                              std::to_string(getpid()) + " has its share");
  EXPECT_TRUE(anotherProcessIsServed(service));
  EXPECT_EQ(service.linesWith("refused a connection of pid"), 1);
}

TEST(LimitTest, AFloodOfBadClientsIsAFewLinesAndOneThatCountsTheRest) {
  ServiceProcess service(loadDefinitions(1));
  service.start();
  for (int i = 0; i < 50; ++i) {
    LoadConnection bad(service.socket(), "bad", 1, ConnectionUse::Requests);
    const std::string garbage(100, '\xEE');
    ASSERT_EQ(send(bad.fd(), garbage.data(), garbage.size(), MSG_NOSIGNAL), 100);
    FrameHeader header;
    std::string payload;
    EXPECT_FALSE(bad.receive(header, payload));
    EXPECT_TRUE(bad.isClosed());
  }
  EXPECT_EQ(service.terminate(), 0);
  const int written = service.linesWith("frame version 238");
  EXPECT_LT(written, 25) << service.log();
  EXPECT_THAT(service.log(), HasSubstr(" more like it, the last: closed the connection of client"));
}

}  // namespace
}  // namespace TestSupport
