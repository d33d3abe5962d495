// A store that is not the one that clients were told of last: running programs are brought up to date,
// whatever its revisions are.
#include <atomic>
#include <filesystem>
#include <thread>

#include "tests/integration/application.h"
#include "tests/integration/fixture.h"

namespace TestSupport {
namespace {

using AppConfig::AppCfgManager;
using testing::ElementsAre;

class RestoredStoreTest : public IntegrationTest {
 protected:
  RestoredStoreTest() { config_->setPbInterface(&endpoint_); }

  std::string cached(const std::string& name) { return config_->getConfigVar("net", 0, name, 0); }
  bool comesToHave(const std::string& name, const std::string& value) {
    return eventually([&] { return cached(name) == value; });
  }
  void write(const std::string& key, const std::string& value) {
    ASSERT_TRUE(other_.write(key, value).ok()) << key;
  }
  // The whole store: after an orderly stop nothing is beside it that has not been copied into it.
  std::string stopAndCopy() {
    EXPECT_EQ(service_.terminate(), 0);
    return readFile(service_.storeFile());
  }
  void putBack(const std::string& copy) {
    writeFile(service_.storeFile(), copy);
    std::filesystem::remove(service_.storeFile() + "-wal");
    std::filesystem::remove(service_.storeFile() + ".snapshot");
  }
  std::string copyOfOld() {
    write("net.name", "old");
    std::string copy = stopAndCopy();
    service_.start();
    return copy;
  }

  // Outlives the endpoint: nothing is dispatched once that is gone.
  NotingConsumer consumer_;
  PbUtility::Endpoint endpoint_{"application", inDirectory(service_.runtimeDir())};
  AppCfgManager* config_ = AppCfgManager::getInstance();
};

TEST_F(RestoredStoreTest, AnOlderCopyThatIsPutBackByHandReachesRunningPrograms) {
  const std::string copy = copyOfOld();
  write("net.name", "new1");
  write("net.mtu", "1400");
  write("net.name", "new2");
  registerHandler("net", "name", &consumer_);
  ASSERT_TRUE(comesToHave("name", "new2"));
  ASSERT_TRUE(comesToHave("mtu", "1400"));
  stopAndCopy();
  putBack(copy);
  service_.start();
  EXPECT_TRUE(comesToHave("name", "old")) << cached("name");
  EXPECT_TRUE(comesToHave("mtu", "1500")) << cached("mtu");
  EXPECT_TRUE(consumer_.waitFor("value net.name = old"));
  EXPECT_EQ(service_.linesWith("an older copy was put back"), 1) << service_.log();
}

// One commit older is the state that the last commit was made on.
TEST_F(RestoredStoreTest, SoDoesACopyOfTheLastStateButOne) {
  const std::string copy = copyOfOld();
  write("net.name", "new");
  ASSERT_TRUE(comesToHave("name", "new"));
  service_.kill();
  putBack(copy);
  service_.start();
  EXPECT_TRUE(comesToHave("name", "old")) << cached("name");
}

// Fewer, as many and more revisions than clients were told of.
TEST_F(RestoredStoreTest, SoDoesACopyThatWasWrittenOnElsewhere) {
  for (int more = 1; more <= 3; ++more) {
    const std::string copy = copyOfOld();
    write("net.name", "new");
    write("net.mtu", "1400");
    ASSERT_TRUE(comesToHave("name", "new"));
    ASSERT_TRUE(comesToHave("mtu", "1400"));
    stopAndCopy();
    putBack(copy);
    {
      ServiceProcess elsewhere(kDefinitions);
      elsewhere.useStore(service_.storeFile());
      elsewhere.start();
      TestClient writer("writer", elsewhere.runtimeDir());
      for (int i = 0; i < more; ++i)
        ASSERT_TRUE(writer.write("net.servers", std::to_string(more) + std::to_string(i)).ok());
      ASSERT_EQ(elsewhere.terminate(), 0);
    }
    service_.start();
    EXPECT_TRUE(comesToHave("name", "old")) << more << ": " << cached("name");
    EXPECT_TRUE(comesToHave("mtu", "1500")) << more << ": " << cached("mtu");
    write("net.name", "gateway");
  }
}

TEST_F(RestoredStoreTest, SoDoesALogThatIsCutAtItsEnd) {
  for (const char* value : {"1", "2", "3", "4", "5"}) write("net.name", value);
  ASSERT_TRUE(comesToHave("name", "5"));
  service_.kill();
  constexpr std::uintmax_t kThreeCommits = 32 + 3 * (4096 + 24);
  std::filesystem::resize_file(service_.storeFile() + "-wal", kThreeCommits);
  service_.start();
  EXPECT_TRUE(comesToHave("name", "3")) << cached("name");
  EXPECT_EQ(service_.linesWith("its end is lost"), 1) << service_.log();
}

// As `appcfg store restore` does it: the copy beside the store, and a request.
TEST_F(RestoredStoreTest, SoDoesACopyThatTheServiceIsAskedToTakeWhileItRuns) {
  write("net.name", "old");
  client_.actAs(CommonIF::SECURITY_ROLE_PUBLIC);
  ConfigIF::StoreSnapshotRsp made;
  ASSERT_TRUE(client_.request(ConfigIF::StoreSnapshotReq(), &made).ok());
  EXPECT_EQ(made.revision(), 1U);
  std::filesystem::copy_file(made.file(), service_.storeFile() + ".restore");
  write("net.name", "new");
  write("net.mtu", "1400");
  registerHandler("net", "name", &consumer_);
  ASSERT_TRUE(comesToHave("name", "new"));
  ASSERT_TRUE(comesToHave("mtu", "1400"));
  ConfigIF::StoreRestoreRsp taken;
  const Outcome outcome = client_.request(ConfigIF::StoreRestoreReq(), &taken);
  ASSERT_TRUE(outcome.ok()) << outcome.text;
  EXPECT_EQ(taken.revision(), 1U);
  EXPECT_EQ(taken.revision_before(), 3U);
  EXPECT_TRUE(comesToHave("name", "old")) << cached("name");
  EXPECT_TRUE(comesToHave("mtu", "1500")) << cached("mtu");
  EXPECT_TRUE(consumer_.waitFor("value net.name = old"));
}

TEST_F(RestoredStoreTest, AServiceThatHasNoCopyToTakeSaysSoAndGoesOn) {
  write("net.name", "new");
  ConfigIF::StoreRestoreRsp taken;
  const Outcome outcome = client_.request(ConfigIF::StoreRestoreReq(), &taken);
  EXPECT_EQ(outcome.error, CommonIF::ERROR_INVALID_VALUE);
  EXPECT_THAT(outcome.text, testing::HasSubstr(service_.storeFile() + ".restore"));
  EXPECT_EQ(cached("name"), "new");
}

// Whoever waits is answered, and finds the way back.
TEST_F(RestoredStoreTest, WritersGoOnWhileTheServiceTakesACopy) {
  std::atomic<bool> over{false};
  std::atomic<int> written{0};
  std::thread writer([&] {
    for (int i = 0; !over; ++i) written += other_.write("net.servers", std::to_string(i)).ok();
  });
  for (int i = 0; i < 3; ++i) {
    ConfigIF::StoreSnapshotRsp made;
    EXPECT_TRUE(
        eventually([&] { return client_.request(ConfigIF::StoreSnapshotReq(), &made).ok(); }));
    std::filesystem::copy_file(made.file(), service_.storeFile() + ".restore");
    ConfigIF::StoreRestoreRsp taken;
    EXPECT_TRUE(client_.request(ConfigIF::StoreRestoreReq(), &taken).ok());
    const int before = written;
    EXPECT_TRUE(eventually([&] { return written > before + 10; }));
  }
  over = true;
  writer.join();
  EXPECT_EQ(service_.terminate(), 0);
}

TEST_F(RestoredStoreTest, AServiceThatIsKilledAndStartedAgainHasNothingToSay) {
  for (int i = 0; i < 5; ++i) {
    write("net.name", std::to_string(i));
    service_.kill();
    service_.start();
  }
  EXPECT_EQ(service_.linesWith("clients read everything again"), 0) << service_.log();
}

}  // namespace
}  // namespace TestSupport
