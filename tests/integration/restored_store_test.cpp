// A store that is not the one that clients were told of last: running programs are brought up to date,
// whatever its revisions are.
#include <filesystem>

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

  PbUtility::Endpoint endpoint_{"application", inDirectory(service_.runtimeDir())};
  NotingConsumer consumer_;
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
