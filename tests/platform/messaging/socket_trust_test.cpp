// Whose socket a client uses: real directories, and services and clients of several users.
#include "platform/messaging/client/internal/socket_trust.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "base/unique_fd.h"
#include "platform/messaging/endpoint.h"
#include "platform/schema/config_if.pb.h"
#include "tests/support/child.h"
#include "tests/support/serving.h"
#include "tests/support/temp_dir.h"

namespace PbUtility {
namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using TestSupport::Child;
using TestSupport::kOneUser;
using TestSupport::kOtherUser;
using TestSupport::Serving;

// A place for a socket, which each test gives an owner and a mode.
class SocketTrustTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!TestSupport::canBecomeOthers()) GTEST_SKIP() << "only root can give directories away";
    ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);
  }

  // A directory below the test's own, which is root's and nobody else may write.
  std::string make(const std::string& name, uid_t owner, mode_t mode) const {
    const std::string path = dir.path() + "/" + name;
    EXPECT_EQ(::mkdir(path.c_str(), 0700), 0);
    EXPECT_EQ(::chown(path.c_str(), owner, owner), 0);
    EXPECT_EQ(::chmod(path.c_str(), mode), 0);
    return path;
  }

  // What a read comes to: its status, and what the endpoint says.
  static std::string read(const std::string& runtimeDir) {
    EndpointOptions options;
    options.runtimeDir = runtimeDir;
    Endpoint endpoint("ui", options);
    ConfigIF::ReadReq request;
    request.set_client_name("ui");
    ConfigIF::ReadRsp response;
    const int status = endpoint.sendWaitResponse(request, &response, "ConfigSrvc");
    return std::to_string(status) + " " + endpoint.lastRefusal();
  }
  static std::string readAs(uid_t user, const std::string& runtimeDir) {
    const Child reader(user, [&](Child::Parent& test) { test.say(read(runtimeDir)); });
    return reader.hear();
  }

  TestSupport::TempDir dir;
};

// A service of some user; told to stop, it says how many clients it has heard of.
class ServiceOf {
 public:
  ServiceOf(uid_t user, const std::string& runtimeDir)
      : child_(user, [runtimeDir](Child::Parent& test) {
          Serving serving(runtimeDir);
          test.say("serves");
          test.hear();
          test.say(std::to_string(serving.requests().size()));
        }) {
    EXPECT_EQ(child_.hear(), "serves");
  }
  std::string requests() {
    child_.say("stop");
    return child_.hear();
  }

 private:
  Child child_;
};

const std::string kUsed = "0 ";

TEST_F(SocketTrustTest, TheServicesOwnDirectoryThatRootGaveItIsTrustedByEverybody) {
  const std::string runtimeDir = make("run", kOneUser, 0755);
  ServiceOf service(kOneUser, runtimeDir);
  EXPECT_EQ(read(runtimeDir), kUsed);
  EXPECT_EQ(readAs(kOneUser, runtimeDir), kUsed);
  EXPECT_EQ(readAs(kOtherUser, runtimeDir), kUsed);
  EXPECT_EQ(service.requests(), "3");
}

TEST_F(SocketTrustTest, RootsServiceIsTrustedByEverybody) {
  const Serving serving(dir.path());
  EXPECT_EQ(readAs(kOneUser, dir.path()), kUsed);
}

TEST_F(SocketTrustTest, AUserTrustsADirectoryOfTheirOwnAlsoWhereAnybodyMayMakeOne) {
  make("shared", 0, 01777);
  const std::string runtimeDir = make("shared/own", kOneUser, 0700);
  ServiceOf service(kOneUser, runtimeDir);
  EXPECT_EQ(readAs(kOneUser, runtimeDir), kUsed);
}

TEST_F(SocketTrustTest, ADirectoryThatSomebodyMadeWhereAnybodyMayIsNotUsed) {
  make("shared", 0, 01777);
  const std::string runtimeDir = make("shared/trap", kOneUser, 0755);
  ServiceOf service(kOneUser, runtimeDir);
  EXPECT_EQ(read(runtimeDir),
            "8 the directory " + runtimeDir + " belongs to user 61001, who is not root: not used");
  EXPECT_EQ(
      readAs(kOtherUser, runtimeDir),
      "8 the directory " + runtimeDir +
          " belongs to user 61001, who is neither root nor user 61002 (this process): not used");
  EXPECT_EQ(service.requests(), "0");
}

TEST_F(SocketTrustTest, InADirectoryLikeTmpASocketCountsByItsOwner) {
  const std::string shared = make("shared", 0, 01777);
  {
    ServiceOf service(kOneUser, shared);
    EXPECT_THAT(readAs(kOtherUser, shared),
                HasSubstr("the socket " + shared + "/ConfigSrvc belongs to user 61001"));
    EXPECT_EQ(readAs(kOneUser, shared), kUsed);
    EXPECT_EQ(service.requests(), "1");
  }
  ASSERT_EQ(::unlink((shared + "/ConfigSrvc.lock").c_str()), 0);
  const Serving serving(shared);
  EXPECT_EQ(readAs(kOtherUser, shared), kUsed);
}

TEST_F(SocketTrustTest, ADirectoryThatOthersMayWriteIsNotUsedWhoeverServesThere) {
  for (const mode_t mode : {0775U, 0777U, 0757U}) {
    const std::string open = make("open" + std::to_string(mode), 0, mode);
    const std::string below = open + "/below";
    ASSERT_EQ(::mkdir(below.c_str(), 0755), 0);
    for (const std::string& runtimeDir : {open, below}) {
      const Serving serving(runtimeDir);
      const std::string whom = (mode & 02) != 0 ? "everybody" : "its group";
      EXPECT_EQ(read(runtimeDir), "8 the directory " + open + " can be written by " + whom +
                                      ", so that the socket " + runtimeDir +
                                      "/ConfigSrvc could be anybody's: not used");
      EXPECT_TRUE(serving.requests().empty());
    }
  }
}

TEST_F(SocketTrustTest, ASymbolicLinkCountsAsWhatItLeadsTo) {
  make("shared", 0, 01777);
  const std::string trap = make("shared/trap", kOneUser, 0755);
  const std::string link = dir.path() + "/run";
  ASSERT_EQ(::symlink(trap.c_str(), link.c_str()), 0);
  ServiceOf service(kOneUser, trap);
  EXPECT_THAT(read(link), HasSubstr(trap + " belongs to user 61001"));
  EXPECT_EQ(service.requests(), "0");
}

// The file is root's, as one that was checked a moment before it was replaced.
TEST_F(SocketTrustTest, WhoListensCountsToo) {
  Base::UniqueFd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = dir.path() + "/ConfigSrvc";
  std::memcpy(address.sun_path, path.data(), path.size());
  ASSERT_EQ(::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  const Child stranger(kOneUser, [&](Child::Parent& test) {
    test.say(::listen(listener.get(), 4) == 0 ? "listens" : "does not");
    test.hear();
    const int connection = ::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC);
    char byte = 0;
    test.say(::recv(connection, &byte, 1, 0) == 0 ? "heard nothing" : "heard something");
  });
  ASSERT_EQ(stranger.hear(), "listens");
  EXPECT_EQ(read(dir.path()), "8 who listens at " + path +
                                  " is user 61001, who is not root nor an owner of its directory: "
                                  "not used");
  stranger.say("accept");
  EXPECT_EQ(stranger.hear(), "heard nothing");
}

// Notices hold values as well, and a registration tells what interests.
TEST_F(SocketTrustTest, TheConnectionForNoticesIsNotMadeEither) {
  make("shared", 0, 01777);
  const std::string trap = make("shared/trap", kOneUser, 0755);
  ServiceOf service(kOneUser, trap);
  EndpointOptions options;
  options.runtimeDir = trap;
  Endpoint endpoint("ui", options);
  ConfigIF::RegisterClientCallbackRsp response;
  EXPECT_EQ(
      endpoint.sendWaitResponse(ConfigIF::RegisterClientCallbackReq(), &response, "ConfigSrvc"),
      kCallUntrusted);
  EXPECT_EQ(service.requests(), "0");
  // Once the place is in good hands, the next call finds it.
  ASSERT_EQ(::chown(trap.c_str(), 0, 0), 0);
  ASSERT_EQ(::unlink((trap + "/ConfigSrvc.lock").c_str()), 0);
  const Serving serving(trap);
  EXPECT_EQ(
      endpoint.sendWaitResponse(ConfigIF::RegisterClientCallbackReq(), &response, "ConfigSrvc"),
      kCallOk);
}

// Not "no such service": it may run, and nobody looks for it twice.
TEST_F(SocketTrustTest, ASocketThatThisUserMayNotOpenIsSaidToBeThat) {
  const std::string closed = make("closed", 0, 0700);
  const Serving serving(closed);
  EXPECT_EQ(readAs(kOneUser, closed), "9 " + closed + "/ConfigSrvc: Permission denied");
  EXPECT_EQ(::chmod(closed.c_str(), 0755), 0);
  EXPECT_EQ(readAs(kOneUser, closed), kUsed);
  EXPECT_EQ(::chmod((closed + "/ConfigSrvc").c_str(), 0600), 0);
  EXPECT_EQ(readAs(kOneUser, closed), "9 " + closed + "/ConfigSrvc: Permission denied");
  EXPECT_EQ(serving.requests().size(), 1U);
}

TEST_F(SocketTrustTest, WhatIsNotThereIsLeftToConnect) {
  EXPECT_EQ(SocketTrust(0).whyNot(dir.path() + "/none/ConfigSrvc"), "");
  EXPECT_THAT(read(dir.path() + "/none"),
              AllOf(HasSubstr("1 "), EndsWith("No such file or directory")));
}

}  // namespace
}  // namespace PbUtility
