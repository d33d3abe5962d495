// What the service keeps, over a full disk, other definitions and other versions of itself.
#include <sys/resource.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "configsrv/store/internal/store_format.h"
#include "configsrv/store/store.h"
#include "tests/integration/fixture.h"

namespace TestSupport {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class DurabilityTest : public IntegrationTest {
 protected:
  ConfigIF::StatusRsp status() {
    ConfigIF::StatusRsp status;
    EXPECT_TRUE(client_.request(ConfigIF::StatusReq(), &status).ok());
    return status;
  }
  // No file of the service may grow beyond this: what a full disk looks like to a program.
  void limitFiles(rlim_t bytes) const {
    const rlimit limit{bytes, RLIM_INFINITY};
    ASSERT_EQ(prlimit(service_.pid(), RLIMIT_FSIZE, &limit, nullptr), 0);
  }
  std::uintmax_t logBytes() const {
    return std::filesystem::file_size(service_.storeFile() + "-wal");
  }
  // Sets the options of net.mode.
  Outcome setMode(const std::vector<std::string>& options, std::optional<unsigned> index = {}) {
    auto request = aboutMode<ConfigIF::SetAttributeOptionsReq>();
    for (const std::string& option : options) request.add_options(option);
    if (index) request.set_default_index(*index);
    ConfigIF::SetAttributeOptionsRsp response;
    return client_.request(request, &response);
  }
  std::vector<std::string> mode() {
    ConfigIF::GetAttributeOptionsRsp response;
    const auto request = aboutMode<ConfigIF::GetAttributeOptionsReq>();
    EXPECT_TRUE(client_.request(request, &response).ok());
    return {response.options().begin(), response.options().end()};
  }
  static std::string modeDefined(const std::string& options, const std::string& value) {
    return "[variable.\"net.mode\"]\ntype = \"enumeration\"\noptions = " + options +
           "\ndefault = \"" + value + "\"\n";
  }
  void restartWith(const std::string& definitions) {
    ASSERT_EQ(service_.terminate(), 0);
    service_.redefine(definitions);
    service_.start();
  }

 private:
  template <typename Request>
  static Request aboutMode() {
    Request request;
    request.mutable_inst()->add_path()->set_name("net");
    request.mutable_inst()->add_path()->set_name("mode");
    return request;
  }
};

TEST_F(DurabilityTest, AFullDiskFailsTheWriteAndReadsGoOnUntilThereIsSpaceAgain) {
  ASSERT_TRUE(client_.write("net.name", "before").ok());
  // Not the log's length: some of that is reserved, and would take a few commits more.
  limitFiles(4096);
  for (int i = 0; i < 3; ++i) {
    const Outcome full = client_.write("net.name", "during");
    EXPECT_FALSE(full.ok());
    EXPECT_THAT(full.text, HasSubstr("free some space"));
    EXPECT_THAT(client_.read("net.name").values, ElementsAre("before"));
  }
  limitFiles(RLIM_INFINITY);
  EXPECT_TRUE(client_.write("net.name", "after").ok());
  service_.kill();
  service_.start();
  EXPECT_THAT(client_.read("net.name").values, ElementsAre("after"));
}

TEST_F(DurabilityTest, WritesThatChangeNothingWriteNothing) {
  ASSERT_TRUE(client_.write("net.name", "same").ok());
  const ConfigIF::StatusRsp before = status();
  const std::uintmax_t log = logBytes();
  EXPECT_EQ(before.store_writes(), 1u);
  EXPECT_GE(before.store_bytes(), 4096u);
  for (int i = 0; i < 50; ++i) ASSERT_TRUE(client_.write("net.name", "same").ok());
  ASSERT_TRUE(client_.reset("net.mtu").ok());
  const ConfigIF::StatusRsp after = status();
  EXPECT_EQ(after.store_writes(), before.store_writes());
  EXPECT_EQ(after.store_bytes(), before.store_bytes());
  EXPECT_EQ(after.unchanged_writes(), before.unchanged_writes() + 51);
  EXPECT_EQ(logBytes(), log);
}

TEST_F(DurabilityTest, AVariableThatIsDroppedAndComesBackHasItsValue) {
  ASSERT_TRUE(client_.write("net.name", "kept").ok());
  restartWith("[variable.\"net.mtu\"]\ntype = \"int\"\ndefault = 1500\n");
  EXPECT_EQ(client_.read("net.name").error, CommonIF::ERROR_NOT_FOUND);
  EXPECT_THAT(service_.log(), HasSubstr("1 stored variable has no definition"));
  EXPECT_THAT(service_.log(), HasSubstr("comes back: net.name"));
  ASSERT_TRUE(client_.write("net.mtu", "1400").ok());
  restartWith(kDefinitions);
  EXPECT_THAT(client_.read("net.name").values, ElementsAre("kept"));
  EXPECT_THAT(client_.read("net.mtu").values, ElementsAre("1400"));
}

TEST_F(DurabilityTest, AVariableOfAnotherTypeKeepsItsValueForTheDayItsTypeComesBack) {
  ASSERT_TRUE(client_.write("net.name", "kept").ok());
  restartWith("[variable.\"net.name\"]\ntype = \"int\"\ndefault = 7\n");
  EXPECT_THAT(client_.read("net.name").values, ElementsAre("7"));
  EXPECT_THAT(service_.log(), HasSubstr("net.name: the stored value is not used"));
  restartWith(kDefinitions);
  EXPECT_THAT(client_.read("net.name").values, ElementsAre("kept"));
}

TEST_F(DurabilityTest, AVariableWhoseDefaultMovedOutOfItsOptionsHasTheNewDefaultAndItsOptions) {
  ASSERT_TRUE(setMode({"auto", "eco"}).ok());
  restartWith(modeDefined(R"(["off", "on"])", "off"));
  EXPECT_THAT(client_.read("net.mode").values, ElementsAre("off"));
  EXPECT_THAT(mode(), ElementsAre("off", "on"));
  EXPECT_THAT(service_.log(), HasSubstr("net.mode: the stored option list is not used"));
  EXPECT_EQ(client_.write("net.mode", "eco").error, CommonIF::ERROR_INVALID_VALUE);
  restartWith(kDefinitions);
  EXPECT_THAT(mode(), ElementsAre("auto", "eco"));
}

TEST_F(DurabilityTest, OptionsThatAreSetUnderNewDefinitionsAreThereAfterTheNextStart) {
  ASSERT_TRUE(setMode({"auto", "eco", "boost"}, 2).ok());
  restartWith(modeDefined(R"(["off", "on"])", "off"));
  ASSERT_TRUE(setMode({"off", "dim"}).ok());
  service_.kill();
  service_.start();
  EXPECT_THAT(mode(), ElementsAre("off", "dim"));
}

TEST_F(DurabilityTest, AValueThatWasNotUsedDoesNotReturnOnceTheDefaultWasWrittenOverIt) {
  ASSERT_TRUE(client_.write("net.mode", "manual").ok());
  restartWith(modeDefined(R"(["auto", "on"])", "auto"));
  ASSERT_TRUE(client_.write("net.mode", "auto").ok());
  restartWith(kDefinitions);
  EXPECT_THAT(client_.read("net.mode").values, ElementsAre("auto"));
}

TEST(UpgradeTest, AStoreOfFormat1IsServed) {
  const std::string fixtures = STORE_FIXTURES;
  ServiceProcess service(readFile(fixtures + "/store_format_1.toml"));
  std::filesystem::copy_file(fixtures + "/store_format_1.db", service.storeFile());
  service.start();
  EXPECT_EQ(service.linesWith("warning"), 0) << service.log();
  TestClient client("client", service.runtimeDir());
  client.actAs(CommonIF::SECURITY_ROLE_FACTORY);
  EXPECT_THAT(client.read("net.mtu").values, ElementsAre("1400"));
  EXPECT_THAT(client.read("net.name").values, ElementsAre("caf\xC3\xA9 1"));
  EXPECT_THAT(client.read("net.servers[1]").values, ElementsAre("one", "", "three"));
  EXPECT_TRUE(client.read("net.servers").isDefault);
  EXPECT_THAT(client.read("net.mode").values, ElementsAre("none"));
  EXPECT_THAT(client.read("3:engine.speed").values, ElementsAre("-7"));
  EXPECT_TRUE(client.read("net.note").isDefault);
  ConfigIF::StatusRsp status;
  ASSERT_TRUE(client.request(ConfigIF::StatusReq(), &status).ok());
  EXPECT_EQ(status.revision(), 9u);
  client.actAs(CommonIF::SECURITY_ROLE_USER);
  EXPECT_EQ(client.write("net.name", "x").error, CommonIF::ERROR_DENIED);
}

TEST(UpgradeTest, AStoreOfALaterVersionEndsTheStartAndIsLeftAlone) {
  ServiceProcess service(kDefinitions);
  service.start();
  EXPECT_TRUE(TestClient("client", service.runtimeDir()).write("net.mtu", "1400").ok());
  ASSERT_EQ(service.terminate(), 0);
  ConfigSrv::StoreFormats later = ConfigSrv::presentFormats();
  ++later.newest;
  later.steps.emplace_back(
      [](ConfigSrv::Database& database) { return database.run("CREATE TABLE later (x)"); });
  ConfigSrv::StoreOptions options{service.storeFile()};
  options.formats = &later;
  { ASSERT_TRUE(ConfigSrv::Store::open(options).status.ok()); }
  const std::string before = readFile(service.storeFile());
  EXPECT_EQ(service.startAndWait(), 4);
  EXPECT_THAT(service.log(), HasSubstr("install the newer version again"));
  EXPECT_TRUE(readFile(service.storeFile()) == before);
  const ConfigSrv::OpenedStore opened = ConfigSrv::Store::open(options);
  EXPECT_EQ(opened.variables.size(), 1U) << opened.notice;
}

}  // namespace
}  // namespace TestSupport
