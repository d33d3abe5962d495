// Where appcfg finds a service when nobody says where: real services, an ordinary user, and a /run of the
// test's own, which a mount namespace gives it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <filesystem>

#include "tests/support/child.h"
#include "tests/support/service_process.h"
#include "tests/tools/appcfg/appcfg_run.h"
#include "tools/appcfg/exit_code.h"

namespace AppCfgTool {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

std::string definitionOf(const std::string& host) {
  return "[variable.\"net.host\"]\ntype = \"string\"\ndefault = \"" + host + "\"\n";
}

struct Ran {
  int code = -1;
  std::string out;
};

Ran shell(const std::string& command) {
  FILE* const pipe = ::popen((command + " 2>&1").c_str(), "r");
  Ran ran;
  char buffer[4096];
  for (std::size_t got; (got = fread(buffer, 1, sizeof buffer, pipe)) > 0;)
    ran.out.append(buffer, got);
  const int status = ::pclose(pipe);
  ran.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return ran;
}

// The device's service and one of the user's own; a test lets either be there.
class FindServiceTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!TestSupport::canBecomeOthers()) GTEST_SKIP() << "only root can become somebody else";
    if (shell("unshare -m true && command -v setpriv").code != 0)
      GTEST_SKIP() << "no mount namespaces, or no setpriv, here";
    if (shell(asUser() + Appcfg::program() + " --version").code != 0)
      GTEST_SKIP() << "an ordinary user may not run what was built here";
    for (TestSupport::ServiceProcess* service : {&device_, &own_}) {
      service->start();
      ASSERT_EQ(::chmod(service->directory().path().c_str(), 0755), 0);
    }
  }

  using Appcfg = TestSupport::Appcfg;

  static std::string asUser() {
    return "setpriv --reuid 61001 --regid 61001 --clear-groups env -u APPCONFIG_RUNTIME_DIR "
           "XDG_RUNTIME_DIR=/run/user/61001 ";
  }
  // Lines of a script: a service becomes visible at its place.
  std::string deviceIsThere() const {
    return "mount --bind " + device_.runtimeDir() + " /run/appconfig\n";
  }
  std::string ownIsThere() const {
    return "mount --bind " + own_.runtimeDir() + " /run/user/61001/appconfig\n";
  }
  static std::string appcfg(const std::string& words) {
    return asUser() + Appcfg::program() + ' ' + words + '\n';
  }

  // Runs a script with a /run that is empty but for both directories.
  Ran inOwnRun(const std::string& script) const {
    const std::string file = device_.directory().file("script");
    TestSupport::writeFile(file,
                           "mount -t tmpfs -o mode=755 none /run\n"
                           "mkdir -p /run/appconfig /run/user/61001/appconfig\n" +
                               script);
    return shell("unshare -m sh " + file);
  }

  TestSupport::ServiceProcess device_{definitionOf("device")};
  TestSupport::ServiceProcess own_{definitionOf("own")};
};

TEST_F(FindServiceTest, AnOrdinaryUserFindsTheDevicesService) {
  const Ran ran = inOwnRun(deviceIsThere() + appcfg("get net.host"));
  EXPECT_EQ(ran.out, "device\n");
  EXPECT_EQ(ran.code, 0);
}

TEST_F(FindServiceTest, AServiceOfTheirOwnComesFirst) {
  EXPECT_EQ(inOwnRun(deviceIsThere() + ownIsThere() + appcfg("get net.host")).out, "own\n");
}

TEST_F(FindServiceTest, ADeadServiceOfTheirOwnIsNotReplacedByTheDevices) {
  own_.kill();
  const Ran ran = inOwnRun(deviceIsThere() + ownIsThere() + appcfg("set net.host changed"));
  EXPECT_EQ(ran.code, kExitUnreachable);
  EXPECT_THAT(ran.out, HasSubstr("/run/user/61001/appconfig/ConfigSrvc: Connection refused"));
  EXPECT_THAT(ran.out, HasSubstr("not asked: /run/appconfig/ConfigSrvc"));
  EXPECT_EQ(inOwnRun(deviceIsThere() + appcfg("get net.host")).out, "device\n");
}

TEST_F(FindServiceTest, WhenNeitherIsThereItSaysWhereItLooked) {
  const Ran ran = inOwnRun(appcfg("get net.host"));
  EXPECT_EQ(ran.code, kExitUnreachable);
  EXPECT_THAT(ran.out, HasSubstr("/run/appconfig/ConfigSrvc: No such file or directory; not there "
                                 "either: /run/user/61001/appconfig/ConfigSrvc"));
}

TEST_F(FindServiceTest, WhoWaitsFindsWhicheverComes) {
  for (const bool own : {true, false}) {
    const std::string host = own ? "own" : "device";
    const Ran ran = inOwnRun(asUser() + Appcfg::program() + " wait net.host " + host +
                             " --timeout 30 2>/run/err &\n"
                             "until grep -qs 'waiting for it' /run/err; do sleep 0.02; done\n" +
                             (own ? ownIsThere() : deviceIsThere()) + "wait $!\n");
    EXPECT_EQ(ran.out, host + '\n');
    EXPECT_EQ(ran.code, 0);
  }
}

TEST_F(FindServiceTest, ADirectoryThatTheUserMayNotOpenIsNotCalledAServiceThatDoesNotRun) {
  const Ran ran = inOwnRun(deviceIsThere() + "chmod 700 /run/appconfig\n" + appcfg("get net.host"));
  EXPECT_EQ(ran.code, kExitDenied);
  EXPECT_THAT(ran.out,
              StartsWith("appcfg: cannot read net.host: this user may not open the "
                         "service's socket: /run/appconfig/ConfigSrvc: Permission denied"));
}

}  // namespace
}  // namespace AppCfgTool
