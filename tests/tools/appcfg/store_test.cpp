// appcfg store copy and store restore, against the real service.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "tests/support/service_process.h"
#include "tests/support/test_client.h"
#include "tests/tools/appcfg/appcfg_run.h"
#include "tools/appcfg/exit_code.h"

namespace AppCfgTool {
namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using TestSupport::Appcfg;
using TestSupport::Ended;
using TestSupport::ServiceProcess;
using TestSupport::TestClient;
using TestSupport::Words;
using Json = nlohmann::ordered_json;

const char* const kStoreDefinitions = R"(
[variable."net.host"]
type = "string"
default = "gateway"
)";

class StoreVerbsTest : public testing::Test {
 protected:
  StoreVerbsTest() { service_.start(); }

  Ended run(const Words& words) { return Appcfg(service_.runtimeDir())(words); }
  Ended good(const Words& words) {
    Ended ended = run(words);
    EXPECT_EQ(ended.code, kExitOk) << ended.err;
    return ended;
  }
  void expectFails(const Words& words, int code, const std::string& text) {
    const Ended ended = run(words);
    EXPECT_EQ(ended.code, code) << ended.err;
    EXPECT_THAT(ended.err, HasSubstr(text));
    EXPECT_EQ(ended.out, "");
  }
  void set(const std::string& value) { good({"set", "net.host", value}); }
  std::string value() { return good({"get", "net.host"}).out; }
  std::string file(const std::string& name) const { return service_.directory().file(name); }
  // A copy of "old", behind which comes "new".
  std::string copyOfOld() {
    set("old");
    const std::string copy = file("copy.db");
    good({"store", "copy", copy});
    set("new");
    return copy;
  }
  std::vector<std::string> filesNamed(const std::string& text) const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(service_.directory().path())) {
      const std::string name = entry.path().filename().string();
      if (name.find(text) != std::string::npos) names.push_back(entry.path().string());
    }
    return names;
  }

  ServiceProcess service_{kStoreDefinitions};
};

TEST_F(StoreVerbsTest, ACopyIsTheCallersAloneAndSaysWhatItIs) {
  set("old");
  const std::string copy = file("copy.db");
  const Ended said = good({"store", "copy", copy});
  struct stat status {};
  ASSERT_EQ(stat(copy.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
  EXPECT_GT(status.st_size, 0);
  EXPECT_EQ(said.out, copy + ": revision 1, " + std::to_string(status.st_size) + " bytes\n");
  const Json json = Json::parse(good({"--json", "store", "copy", "--force", copy}).out);
  EXPECT_EQ(json["revision"], 1);
  EXPECT_EQ(json["file"], copy);
  EXPECT_EQ(json["bytes"], status.st_size);
}

TEST_F(StoreVerbsTest, ACopyReplacesAFileOnlyWhenToldTo) {
  set("old");
  TestSupport::writeFile(file("mine"), "precious");
  expectFails({"store", "copy", file("mine")}, kExitFailed, "replace it with --force");
  EXPECT_EQ(TestSupport::readFile(file("mine")), "precious");
  good({"store", "copy", "--force", file("mine")});
  EXPECT_NE(TestSupport::readFile(file("mine")), "precious");
  EXPECT_THAT(filesNamed("mine"), ElementsAre(file("mine")));
}

TEST_F(StoreVerbsTest, ACopyThatDoesNotComeLeavesNoFile) {
  expectFails({"store", "copy", file("no/such/copy")}, kExitFailed, "no/such/copy");
  service_.kill();
  expectFails({"store", "copy", file("copy.db")}, kExitUnreachable, "start configsrvd");
  EXPECT_FALSE(fs::exists(file("copy.db")));
}

TEST_F(StoreVerbsTest, ARestoreOfARunningServiceTakesEffectAndTellsWhereTheOldStoreIs) {
  const std::string copy = copyOfOld();
  set("newer");
  const pid_t pid = service_.pid();
  const Ended said = good({"store", "restore", copy});
  EXPECT_EQ(value(), "old\n");
  ASSERT_EQ(filesNamed(".replaced-").size(), 1U);
  EXPECT_EQ(said.out, service_.storeFile() + ": revision 1 takes the place of 3\n" +
                          "the store so far is kept as " + filesNamed(".replaced-")[0] + "\n");
  EXPECT_THAT(filesNamed(".restore"), ElementsAre());
  ConfigIF::StatusRsp status;
  TestClient client("client", service_.runtimeDir());
  ASSERT_TRUE(client.request(ConfigIF::StatusReq(), &status).ok());
  EXPECT_EQ(status.pid(), static_cast<std::uint64_t>(pid)) << "in the same process";
  set("behind");
  EXPECT_EQ(service_.terminate(), 0) << "a signal ends it as before";
}

TEST_F(StoreVerbsTest, WhatWasReplacedCanBePutBack) {
  const std::string copy = copyOfOld();
  const Json said = Json::parse(good({"--json", "store", "restore", copy}).out);
  EXPECT_EQ(said["revision"], 1);
  EXPECT_EQ(said["revision_before"], 2);
  good({"store", "restore", said["kept"].get<std::string>()});
  EXPECT_EQ(value(), "new\n");
}

TEST_F(StoreVerbsTest, ACopyThatIsNoGoodIsRefusedAndNothingChanges) {
  const std::string copy = copyOfOld();
  std::string bytes = TestSupport::readFile(copy);
  bytes[bytes.find("old")] = 'O';
  TestSupport::writeFile(copy, bytes);
  TestSupport::writeFile(file("text"), "no store");
  TestSupport::writeFile(file("empty"), "");
  expectFails({"store", "restore", copy}, kExitInvalidValue, "does not match its checksum");
  expectFails({"store", "restore", file("text")}, kExitInvalidValue, "no copy of a store");
  expectFails({"store", "restore", file("empty")}, kExitInvalidValue, "it is empty");
  expectFails({"store", "restore", file("absent")}, kExitFailed, "No such file");
  expectFails({"store", "restore", file("definitions.d")}, kExitInvalidValue, "not a regular file");
  EXPECT_EQ(value(), "new\n");
  EXPECT_THAT(filesNamed(".restore"), ElementsAre());
  EXPECT_THAT(filesNamed(".replaced-"), ElementsAre());
}

// What was copied by hand from under a running service lacks what is in the log.
TEST_F(StoreVerbsTest, ACopyWithALogBesideItIsRefused) {
  set("old");
  expectFails({"store", "restore", service_.storeFile()}, kExitInvalidValue,
              "the newest changes are not in it");
  EXPECT_EQ(value(), "old\n");
}

TEST_F(StoreVerbsTest, WithoutAServiceTheNextStartTakesTheCopy) {
  const std::string copy = copyOfOld();
  expectFails({"store", "restore", "--store", service_.storeFile(), copy}, kExitConflict,
              "a service has it open");
  ASSERT_EQ(service_.terminate(), 0);
  expectFails({"store", "restore", copy}, kExitUnreachable, "start configsrvd");
  EXPECT_THAT(good({"store", "restore", "--store", service_.storeFile(), copy}).out,
              HasSubstr("the next start of the service takes " + service_.storeFile()));
  service_.start();
  EXPECT_EQ(value(), "old\n");
  EXPECT_EQ(service_.linesWith("is now the copy of revision 1"), 1) << service_.log();
}

TEST_F(StoreVerbsTest, ACopyGoesToAnotherDevice) {
  const std::string copy = copyOfOld();
  ServiceProcess other(kStoreDefinitions);
  other.start();
  const Appcfg appcfg(other.runtimeDir());
  EXPECT_EQ(appcfg({"store", "restore", copy}).code, kExitOk);
  EXPECT_EQ(appcfg({"get", "net.host"}).out, "old\n");
}

TEST_F(StoreVerbsTest, ARestoreAgainAndAgainLeavesNothingBehind) {
  const std::string copy = copyOfOld();
  for (int i = 0; i < 5; ++i) {
    set(std::to_string(i));
    good({"store", "restore", copy});
    EXPECT_EQ(value(), "old\n");
  }
  EXPECT_EQ(filesNamed(".replaced-").size(), 3U);
}

// The socket that a service manager handed over is used again.
TEST(StoreVerbsSocketTest, ARestoreKeepsTheSocketThatWasHandedOver) {
  ServiceProcess service(kStoreDefinitions);
  fs::create_directory(service.runtimeDir());
  const int listening = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  ASSERT_LT(service.socket().size(), sizeof address.sun_path);
  service.socket().copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(bind(listening, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(listening, 16), 0);
  service.handOver(listening);
  service.start();
  const Appcfg appcfg(service.runtimeDir());
  const std::string copy = service.directory().file("copy.db");
  ASSERT_EQ(appcfg({"set", "net.host", "old"}).code, kExitOk);
  ASSERT_EQ(appcfg({"store", "copy", copy}).code, kExitOk);
  ASSERT_EQ(appcfg({"set", "net.host", "new"}).code, kExitOk);
  for (int i = 0; i < 2; ++i) {
    const Ended restored = appcfg({"store", "restore", copy});
    EXPECT_EQ(restored.code, kExitOk) << restored.err;
    EXPECT_EQ(appcfg({"get", "net.host"}).out, "old\n");
  }
  EXPECT_EQ(service.terminate(), 0);
  close(listening);
}

}  // namespace
}  // namespace AppCfgTool
