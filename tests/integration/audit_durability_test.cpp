// The audit record over kills, and over what a loss of power leaves of its file.
#include <algorithm>
#include <atomic>
#include <filesystem>
#include <map>
#include <regex>
#include <sstream>
#include <thread>

#include "configsrv/audit/audit_trail.h"
#include "configsrv/store/store.h"
#include "tests/integration/fixture.h"

namespace TestSupport {
namespace {

using testing::Each;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

class AuditDurabilityTest : public testing::Test {
 protected:
  AuditDurabilityTest() { service_.start(); }

  std::vector<std::string> lines() const {
    std::istringstream text(readFile(path_));
    std::vector<std::string> all;
    for (std::string line; std::getline(text, line);) all.push_back(line);
    return all;
  }
  // How many lines each revision has, and how many of them are repaired.
  std::map<std::uint64_t, int> linesByRevision() const {
    static const std::regex revision(R"re("revision":(\d+)(,"repaired":true)?\}$)re");
    std::map<std::uint64_t, int> all;
    std::smatch found;
    for (const std::string& line : lines()) {
      if (std::regex_search(line, found, revision)) ++all[std::stoull(found[1])];
    }
    return all;
  }
  int repaired() const {
    const std::vector<std::string> all = lines();
    return static_cast<int>(std::count_if(all.begin(), all.end(), [](const std::string& line) {
      return line.find("\"repaired\":true") != std::string::npos;
    }));
  }
  // What the store holds while no service has it.
  ConfigSrv::OpenedStore openStore() const {
    ConfigSrv::StoreOptions options{service_.storeFile()};
    options.keepsRecords = true;
    return ConfigSrv::Store::open(options);
  }
  void expectALineForEachRevision(std::uint64_t newest) const {
    const std::map<std::uint64_t, int> found = linesByRevision();
    for (std::uint64_t revision = 1; revision <= newest; ++revision) {
      const auto at = found.find(revision);
      ASSERT_TRUE(at != found.end()) << "revision " << revision << " has no line";
      ASSERT_EQ(at->second, 1) << "revision " << revision;
    }
    EXPECT_EQ(found.size(), newest);
  }

  TempDir directory_;
  const std::string path_ = directory_.file("audit.jsonl");
  ServiceProcess service_{kDefinitions, {"--audit", path_}};
};

// Each committed change, whether its writer heard of it or not.
TEST_F(AuditDurabilityTest, AServiceThatIsKilledUnderLoadLeavesALineForEachCommittedChange) {
  constexpr int kKills = 10;
  const std::vector<std::string> keys = {"net.name", "net.mtu", "test.marker", "3:engine.speed"};
  std::atomic<bool> over{false};
  std::atomic<int> acknowledged{0};
  std::vector<std::thread> writers;
  for (const std::string& key : keys) {
    writers.emplace_back([&, key] {
      TestClient client("writer " + key, service_.runtimeDir());
      for (int i = 100; !over; i = i < 8999 ? i + 1 : 100)
        acknowledged += client.write(key, std::to_string(i)).ok();
    });
  }
  for (int kill = 0; kill < kKills; ++kill) {
    const int before = acknowledged;
    ASSERT_TRUE(eventually([&] { return acknowledged >= before + 40; }));
    service_.kill();
    service_.start();
  }
  over = true;
  for (std::thread& writer : writers) writer.join();
  ASSERT_EQ(service_.terminate(), 0);
  const ConfigSrv::OpenedStore opened = openStore();
  EXPECT_GE(opened.store->revision(), static_cast<std::uint64_t>(acknowledged.load()));
  expectALineForEachRevision(opened.store->revision());
  EXPECT_THAT(opened.records, IsEmpty()) << "an orderly end has nothing left to be made up for";
}

// A loss of power takes what the system had not written to the disk yet.
TEST_F(AuditDurabilityTest, WhatALossOfPowerTakesOffTheEndOfTheFileIsMadeUpFor) {
  {
    TestClient client("client", service_.runtimeDir());
    for (int i = 1; i <= 20; ++i)
      ASSERT_TRUE(client.write("net.mtu", std::to_string(100 + i)).ok());
  }
  service_.kill();
  const std::vector<std::string> all = lines();
  ASSERT_THAT(all, SizeIs(20));
  std::string left;
  for (int i = 0; i < 7; ++i) left += all[static_cast<std::size_t>(i)] + '\n';
  writeFile(path_, left + all[7].substr(0, 30) + std::string(50, '\0'));
  service_.start();
  EXPECT_EQ(repaired(), 13);
  expectALineForEachRevision(20);
  EXPECT_EQ(service_.linesWith("13 records of changes that the last end of the service left out"),
            1)
      << service_.log();
  service_.kill();
  service_.start();
  expectALineForEachRevision(20);
}

TEST_F(AuditDurabilityTest, WithoutItsFileAllThatWasNotOnTheDiskIsThereAgain) {
  {
    TestClient client("client", service_.runtimeDir());
    ASSERT_TRUE(client.write("net.mtu", "1400").ok());
    EXPECT_EQ(client.write("net.mtu", "1").error, CommonIF::ERROR_INVALID_VALUE);
  }
  service_.kill();
  std::filesystem::remove(path_);
  service_.start();
  ASSERT_THAT(lines(), SizeIs(1)) << "what was refused is not kept twice";
  EXPECT_THAT(lines()[0],
              HasSubstr(R"("new":["1400"],"outcome":"changed","revision":1,"repaired":true})"));
}

// More are forced to the disk, and forgotten, in batches.
TEST_F(AuditDurabilityTest, TheStoreKeepsABatchOfRecordsAndNoMore) {
  constexpr std::uint64_t kBatches = 2;
  constexpr std::uint64_t kWrites = kBatches * ConfigSrv::AuditTrail::kMaxUnsynced;
  {
    TestClient client("client", service_.runtimeDir());
    for (std::uint64_t i = 0; i < kWrites; ++i)
      ASSERT_TRUE(client.write("net.mtu", std::to_string(100 + i)).ok());
  }
  service_.kill();
  const ConfigSrv::OpenedStore opened = openStore();
  EXPECT_EQ(opened.store->revision(), kWrites);
  EXPECT_GT(opened.records.size(), 0U);
  EXPECT_LE(opened.records.size(), ConfigSrv::AuditTrail::kMaxUnsynced + 1);
}

TEST_F(AuditDurabilityTest, ARecordThatIsTurnedOffAndOnAgainLosesNothing) {
  {
    TestClient client("client", service_.runtimeDir());
    ASSERT_TRUE(client.write("net.mtu", "1400").ok());
  }
  service_.kill();
  std::filesystem::remove(path_);
  {
    ServiceProcess without(kDefinitions);
    without.useStore(service_.storeFile());
    without.start();
    TestClient client("client", without.runtimeDir());
    ASSERT_TRUE(client.write("net.mtu", "1300").ok());
  }
  service_.start();
  ASSERT_THAT(lines(), SizeIs(1));
  EXPECT_THAT(lines()[0], HasSubstr("1400"));
}

// The copy is of another time; its changes have their lines where they were made.
TEST_F(AuditDurabilityTest, ARestoredCopyBringsNoRecordsAndLosesNoneOfThoseBefore) {
  TestClient client("client", service_.runtimeDir());
  ASSERT_TRUE(client.write("net.mtu", "1400").ok());
  ConfigIF::StoreSnapshotRsp made;
  ASSERT_TRUE(client.request(ConfigIF::StoreSnapshotReq(), &made).ok());
  std::filesystem::copy_file(made.file(), service_.storeFile() + ".restore");
  ASSERT_TRUE(client.write("net.mtu", "1300").ok());
  ConfigIF::StoreRestoreRsp taken;
  ASSERT_TRUE(client.request(ConfigIF::StoreRestoreReq(), &taken).ok());
  ASSERT_TRUE(eventually([&] { return client.write("net.mtu", "1200").ok(); }));
  service_.kill();
  service_.start();
  ASSERT_THAT(lines(), SizeIs(3));
  EXPECT_THAT(lines(), Each(Not(HasSubstr("repaired"))));
  EXPECT_THAT(lines()[2],
              HasSubstr(R"("old":["1400"],"new":["1200"],"outcome":"changed","revision":2})"));
}

}  // namespace
}  // namespace TestSupport
