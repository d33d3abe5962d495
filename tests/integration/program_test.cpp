// configsrvd as a program: how it starts, ends, and what it says.
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>

#include "tests/integration/fixture.h"

namespace TestSupport {
namespace {

using testing::HasSubstr;

// The socket of a service manager.
class ManagerSocket {
 public:
  explicit ManagerSocket(const std::string& name) : fd_(socket(AF_UNIX, SOCK_DGRAM, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path, sizeof address.sun_path - 1);
    if (name[0] == '@') address.sun_path[0] = '\0';
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    EXPECT_EQ(bind(fd_, reinterpret_cast<const sockaddr*>(&address), size), 0);
    timeval patience{20, 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    setenv("NOTIFY_SOCKET", name.c_str(), 1);
  }
  ~ManagerSocket() {
    unsetenv("NOTIFY_SOCKET");
    close(fd_);
  }
  std::string next() const {
    char text[256];
    const ssize_t got = recv(fd_, text, sizeof text, 0);
    return got < 0 ? "" : std::string(text, static_cast<std::size_t>(got));
  }

 private:
  int fd_;
};

TEST(ProgramTest, MistakesInDefinitionsAreAllSaidWithFileAndLineAndEndTheStart) {
  ServiceProcess service(
      "[variable.\"net.mtu\"]\ntype = \"integer\"\n\n"
      "[variable.\"net.name\"]\ntype = \"string\"\ndefualt = \"x\"\n");
  EXPECT_EQ(service.startAndWait(), 3);
  EXPECT_THAT(service.log(), HasSubstr("definitions.d/test.toml:2:"));
  EXPECT_THAT(service.log(), HasSubstr("definitions.d/test.toml:6:"));
}

TEST(ProgramTest, ACheckSaysMistakesWithoutStarting) {
  ServiceProcess good(kDefinitions);
  ServiceProcess check(kDefinitions, {"--check", good.directory().file("definitions.d")});
  EXPECT_EQ(check.startAndWait(), 0);
  good.redefine("[variable.\"net.mtu\"]\ntype = \"integer\"\n");
  EXPECT_EQ(check.startAndWait(), 3);
  EXPECT_THAT(check.log(), HasSubstr("test.toml:2:"));
}

TEST(ProgramTest, MistakesInTheTableOfRolesEndTheStart) {
  TempDir directory;
  writeFile(directory.file("roles.toml"), "[users]\nroot = \"king\"\n");
  ServiceProcess service(kDefinitions, {"--roles", directory.file("roles.toml")});
  EXPECT_EQ(service.startAndWait(), 3);
  EXPECT_THAT(service.log(), HasSubstr("roles.toml:2:"));
}

TEST(ProgramTest, TheTableOfRolesDecidesWhatAUserMayClaim) {
  TempDir directory;
  writeFile(directory.file("roles.toml"), "[users]\n" + std::to_string(getuid()) + " = \"user\"\n");
  ServiceProcess service(kDefinitions, {"--roles", directory.file("roles.toml")});
  service.start();
  TestClient client("client", service.runtimeDir());
  EXPECT_TRUE(client.read("net.mtu").ok());
  client.actAs(CommonIF::SECURITY_ROLE_INSTALLER);
  const Outcome outcome = client.read("net.mtu");
  EXPECT_EQ(outcome.error, CommonIF::ERROR_DENIED);
  EXPECT_THAT(outcome.text, HasSubstr("user at most"));
  EXPECT_EQ(service.linesWith("client \"client\""), 1);
}

TEST(ProgramTest, AnUnknownOptionIsAUsageError) {
  EXPECT_EQ(ServiceProcess(kDefinitions, {"--verbose"}).startAndWait(), 2);
}

TEST(ProgramTest, ADeadlineThatIsNoneIsAUsageError) {
  for (const char* deadline : {"0", "-1", "soon", "99999999999999999999"})
    EXPECT_EQ(ServiceProcess(kDefinitions, {"--provider-deadline", deadline}).startAndWait(), 2)
        << deadline;
}

TEST(ProgramTest, HelpAndVersionEndWell) {
  EXPECT_EQ(ServiceProcess(kDefinitions, {"--help"}).startAndWait(), 0);
  EXPECT_EQ(ServiceProcess(kDefinitions, {"--version"}).startAndWait(), 0);
}

TEST(ProgramTest, AStoreThatAnotherServiceHasEndsTheStart) {
  ServiceProcess first(kDefinitions);
  first.start();
  ServiceProcess second(kDefinitions);
  second.useStore(first.storeFile());
  EXPECT_EQ(second.startAndWait(), 4);
  EXPECT_THAT(second.log(), HasSubstr(first.storeFile()));
}

TEST(ProgramTest, ASocketThatAnotherServiceHasEndsTheStart) {
  ServiceProcess first(kDefinitions);
  first.start();
  ServiceProcess second(kDefinitions);
  ASSERT_EQ(symlink(first.runtimeDir().c_str(), second.runtimeDir().c_str()), 0);
  EXPECT_EQ(second.startAndWait(), 5);
  EXPECT_THAT(second.log(), HasSubstr("another service"));
}

TEST(ProgramTest, APrefixMovesTheSocket) {
  ServiceProcess service(kDefinitions, {"--prefix", "engine"});
  service.start();
  EXPECT_EQ(access((service.runtimeDir() + "/engine/ConfigSrvc").c_str(), F_OK), 0);
}

TEST(ProgramTest, BothStopSignalsEndItWellAndTakeTheSocketAway) {
  ServiceProcess service(kDefinitions);
  service.start();
  EXPECT_EQ(service.terminate(), 0);
  EXPECT_NE(access(service.socket().c_str(), F_OK), 0);
  service.start();
  ::kill(service.pid(), SIGINT);
  EXPECT_TRUE(service.waitForLog("stopped"));
}

TEST(ProgramTest, ForeignSignalsDoNotDisturbIt) {
  ServiceProcess service(kDefinitions);
  service.start();
  for (int i = 0; i < 10; ++i) ::kill(service.pid(), SIGUSR1);
  TestClient client("client", service.runtimeDir());
  EXPECT_TRUE(client.read("net.mtu").ok());
  EXPECT_EQ(service.terminate(), 0);
}

TEST(ProgramTest, TheServiceManagerIsToldOfReadinessAndStop) {
  for (const bool isAbstract : {false, true}) {
    ServiceProcess service(kDefinitions);
    const ManagerSocket manager(isAbstract ? "@appconfig-test-" + std::to_string(getpid())
                                           : service.directory().file("notify"));
    service.start();
    EXPECT_EQ(manager.next(), "READY=1");
    EXPECT_EQ(service.terminate(), 0);
    EXPECT_EQ(manager.next(), "STOPPING=1");
  }
}

TEST(ProgramTest, ASocketThatTheServiceManagerHandsOverIsServedAndLeftInPlace) {
  ServiceProcess service(kDefinitions);
  ASSERT_EQ(mkdir(service.runtimeDir().c_str(), 0700), 0);
  const int listening = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  service.socket().copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(bind(listening, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(listening, 16), 0);
  service.handOver(listening);
  service.start();
  TestClient client("client", service.runtimeDir());
  EXPECT_TRUE(client.read("net.mtu").ok());
  EXPECT_EQ(service.terminate(), 0);
  EXPECT_EQ(access(service.socket().c_str(), F_OK), 0);
  close(listening);
}

TEST(ProgramTest, ValuesDoNotAppearInTheLogEvenInDetail) {
  ServiceProcess service(kDefinitions, {"--log-level", "debug"});
  service.start();
  TestClient client("client", service.runtimeDir());
  EXPECT_TRUE(client.write("net.name", "hunter2").ok());
  EXPECT_TRUE(service.waitForLog("committing -> ended"));
  EXPECT_EQ(service.linesWith("hunter2"), 0);
}

}  // namespace
}  // namespace TestSupport
