#include "configsrv/providers/provider_memory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <sstream>

#include "platform/schema/config_if.pb.h"
#include "tests/support/temp_dir.h"

namespace ConfigSrv {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

constexpr auto kValidate = ConfigIF::CALLBACK_DYNAMIC_VALIDATE;
constexpr auto kOnChange = ConfigIF::CALLBACK_ON_CHANGE;

class ProviderMemoryTest : public testing::Test {
 protected:
  // The service ends, however it does, and another begins.
  void restart() {
    memory_.reset();
    memory_ = std::make_unique<ProviderMemory>(path_, log_);
    memory_->open();
  }
  static Registration registration(const std::string& name,
                                   ConfigIF::CallbackType type = kValidate) {
    return {name, type, "link", "client", AppConfig::eRoleUser};
  }
  // As the service does it.
  bool registered(const PbUtility::Peer& peer, const Registration& registration) {
    EXPECT_TRUE(subscriptions_.add(peer.id, {peer.uid, peer.pid}, registration).ok());
    return memory_->registered(peer, registration);
  }
  bool expects(const std::string& name) const {
    return memory_->expects(name, [](const KnownProvider&) { return true; });
  }
  std::string contents() const {
    std::ostringstream text;
    text << std::ifstream(path_).rdbuf();
    return text.str();
  }

  TestSupport::TempDir directory_;
  const std::string path_ = directory_.file("ConfigSrvc.providers");
  std::vector<std::string> lines_;
  Log log_{LogLevel::Info, [this](LogLevel, const std::string& line) { lines_.push_back(line); }};
  Subscriptions subscriptions_;
  std::unique_ptr<ProviderMemory> memory_ = [this] {
    auto memory = std::make_unique<ProviderMemory>(path_, log_);
    memory->open();
    return memory;
  }();
  // The test itself stands in for the provider: it lives as long as is needed.
  PbUtility::Peer peer_{7, "gateway network%", getuid(), getgid(), getpid()};
};

TEST_F(ProviderMemoryTest, NobodyIsExpectedAtTheFirstStart) {
  EXPECT_FALSE(memory_->expectsAny());
  EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(ProviderMemoryTest, AProviderIsExpectedAfterARestartForWhatItCovers) {
  registered(peer_, registration("Net.Eth"));
  EXPECT_FALSE(expects("net.eth.mtu")) << "it is here";
  restart();
  EXPECT_TRUE(expects("net.eth"));
  EXPECT_TRUE(expects("net.eth.mtu"));
  EXPECT_FALSE(expects("net"));
  EXPECT_FALSE(expects("net.eth0"));
}

TEST_F(ProviderMemoryTest, AProviderOfEverythingIsExpectedForEverything) {
  registered(peer_, registration(""));
  restart();
  EXPECT_TRUE(expects("net.mtu"));
}

TEST_F(ProviderMemoryTest, WhoIsExpectedCountsOnlyWhenTheyMayBeAsked) {
  registered(peer_, registration("net"));
  restart();
  EXPECT_FALSE(memory_->expects("net.mtu", [&](const KnownProvider& provider) {
    return provider.uid != peer_.uid || provider.gid != peer_.gid ||
           provider.role != AppConfig::eRoleUser;
  }));
}

TEST_F(ProviderMemoryTest, ItIsExpectedUntilItHasMadeEachRegistrationAgain) {
  registered(peer_, registration("net", kValidate));
  registered(peer_, registration("net", kOnChange));
  restart();
  EXPECT_TRUE(registered(peer_, registration("net", kValidate)));
  EXPECT_TRUE(expects("net"));
  EXPECT_TRUE(registered(peer_, registration("net", kOnChange)));
  EXPECT_FALSE(memory_->expectsAny());
}

TEST_F(ProviderMemoryTest, OthersDoNotStandInForIt) {
  registered(peer_, registration("net"));
  restart();
  PbUtility::Peer other = peer_;
  other.id = 8;
  other.pid = getppid();
  EXPECT_FALSE(registered(other, registration("net")));
  other = peer_;
  other.name = "other";
  EXPECT_FALSE(registered(other, registration("net")));
  other = peer_;
  other.uid = peer_.uid + 1;
  EXPECT_FALSE(registered(other, registration("net")));
  EXPECT_FALSE(registered(peer_, registration("net", kOnChange)));
  EXPECT_FALSE(registered(peer_, registration("nets")));
  EXPECT_TRUE(expects("net"));
}

TEST_F(ProviderMemoryTest, OneThatIsRefusedNowIsNotExpectedAnyMore) {
  registered(peer_, registration("net"));
  restart();
  EXPECT_TRUE(memory_->refused(peer_, registration("net")));
  EXPECT_FALSE(memory_->expectsAny());
  restart();
  EXPECT_FALSE(memory_->expectsAny());
}

TEST_F(ProviderMemoryTest, OneThatWentBeforeTheEndIsNotExpected) {
  registered(peer_, registration("net"));
  memory_->gone(peer_.id);
  restart();
  EXPECT_FALSE(memory_->expectsAny());
}

TEST_F(ProviderMemoryTest, WhatWasWithdrawnIsNotExpectedAndTheRestIs) {
  registered(peer_, registration("net"));
  registered(peer_, registration("dev", kOnChange));
  EXPECT_TRUE(subscriptions_.remove(peer_.id, "net", kValidate, "link"));
  memory_->withdrawn(peer_.id, subscriptions_);
  restart();
  EXPECT_FALSE(expects("net"));
  EXPECT_TRUE(expects("dev"));
}

TEST_F(ProviderMemoryTest, ASecondRestartWhileItIsExpectedForgetsNothing) {
  registered(peer_, registration("net", kValidate));
  registered(peer_, registration("net", kOnChange));
  restart();
  registered(peer_, registration("net", kOnChange));
  restart();
  EXPECT_TRUE(registered(peer_, registration("net", kValidate)));
  EXPECT_TRUE(expects("net"));
  EXPECT_TRUE(registered(peer_, registration("net", kOnChange)));
  EXPECT_FALSE(expects("net"));
}

TEST_F(ProviderMemoryTest, OneWhoseProcessHasEndedIsNotExpectedOrNoLongerSo) {
  const pid_t pid = fork();
  if (pid == 0) {
    for (;;) pause();
  }
  peer_.pid = pid;
  registered(peer_, registration("net"));
  restart();
  EXPECT_TRUE(expects("net"));
  EXPECT_FALSE(memory_->forgetDead());
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  EXPECT_TRUE(memory_->forgetDead());
  EXPECT_FALSE(memory_->expectsAny());
}

TEST_F(ProviderMemoryTest, OneThatDiedTogetherWithTheServiceIsNotExpected) {
  const pid_t pid = fork();
  if (pid == 0) _exit(0);
  peer_.pid = pid;
  siginfo_t ended{};
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOWAIT), 0);
  registered(peer_, registration("net"));
  restart();
  EXPECT_FALSE(memory_->expectsAny());
  waitpid(pid, nullptr, 0);
}

TEST_F(ProviderMemoryTest, GivingUpSaysWhoHasNotComeBackAndDoesNotExpectThemAgain) {
  registered(peer_, registration("net"));
  restart();
  memory_->giveUp();
  EXPECT_FALSE(memory_->expectsAny());
  ASSERT_EQ(lines_.size(), 1u);
  EXPECT_THAT(lines_[0], HasSubstr("provider \"gateway network%\" (pid "));
  restart();
  EXPECT_FALSE(memory_->expectsAny());
}

TEST_F(ProviderMemoryTest, TheFileIsTheServicesAloneAndDoesNotGrowWithTime) {
  const mode_t old = umask(0);
  restart();
  umask(old);
  struct stat status {};
  ASSERT_EQ(stat(path_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
  for (int i = 0; i < 5000; ++i) {
    registered(peer_, registration("net"));
    memory_->gone(peer_.id);
    subscriptions_.forget(peer_.id);
  }
  EXPECT_LT(contents().size(), 100'000u);
}

TEST_F(ProviderMemoryTest, ALineThatWasCutShortIsLeftOut) {
  registered(peer_, registration("net"));
  registered(peer_, registration("dev"));
  ASSERT_EQ(truncate(path_.c_str(), static_cast<off_t>(contents().size() - 1)), 0);
  restart();
  EXPECT_TRUE(expects("net"));
  EXPECT_FALSE(expects("dev"));
}

TEST_F(ProviderMemoryTest, AnyOtherContentsDoNoHarm) {
  const std::string first = "appconfig providers 1\n";
  const std::string me = std::to_string(getpid());
  for (const std::string& text :
       {std::string("\xFF\0\n", 3), first + "+ \n", first + "? 1 2 3\n", first + "+ 1 2\n",
        first + "+ 1 " + me + " 0 0 0 9 2 :a :net\n", first + "+ 1 " + me + " 0 0 0 1 2 a net\n",
        first + "+ 1 " + me + " 0 0 0 1 2 :a :net%4\n",
        first + "+ 1 " + me + " 0 0 0 1 2 :a :%G0\n",
        std::string("appconfig providers 2\n+ 1 " + me + " 0 0 0 1 2 :a :net\n")}) {
    std::ofstream(path_) << text;
    restart();
    EXPECT_FALSE(memory_->expectsAny()) << text;
  }
  std::ofstream(path_) << first << "+ 1 " << me << " 0 0 0 1 2 :a :net\n";
  restart();
  EXPECT_TRUE(expects("net")) << "the same without a fault";
}

TEST_F(ProviderMemoryTest, AFileThatOthersCouldHaveWrittenIsNotReadNorALinkFollowed) {
  registered(peer_, registration("net"));
  ASSERT_EQ(chmod(path_.c_str(), 0622), 0);
  restart();
  EXPECT_FALSE(memory_->expectsAny());
  ASSERT_EQ(lines_.size(), 1u);
  EXPECT_THAT(lines_[0], HasSubstr("others than this service"));
  registered(peer_, registration("net.x"));
  ASSERT_EQ(rename(path_.c_str(), directory_.file("other").c_str()), 0);
  ASSERT_EQ(symlink("other", path_.c_str()), 0);
  restart();
  EXPECT_FALSE(memory_->expectsAny());
}

TEST_F(ProviderMemoryTest, WithoutAPlaceForTheFileTheServiceGoesOnAndSaysSoOnce) {
  memory_ = std::make_unique<ProviderMemory>(directory_.file("missing/file"), log_);
  memory_->open();
  EXPECT_FALSE(registered(peer_, registration("net")));
  EXPECT_FALSE(registered(peer_, registration("dev")));
  EXPECT_EQ(lines_.size(), 1u);
  memory_ = std::make_unique<ProviderMemory>("", log_);
  memory_->open();
  EXPECT_FALSE(registered(peer_, registration("net")));
  EXPECT_EQ(lines_.size(), 1u);
}

}  // namespace
}  // namespace ConfigSrv
