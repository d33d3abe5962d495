#include "configsrv/service/internal/audit_upkeep.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "configsrv/model/model.h"
#include "tests/support/definition_builder.h"
#include "tests/support/temp_dir.h"

namespace ConfigSrv {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

// A store that keeps records, and work with it that is done when the test says so.
class AuditUpkeepTest : public testing::Test {
 protected:
  OpenedStore open() const {
    StoreOptions options;
    options.file = directory_.file("store.db");
    options.keepsRecords = true;
    return Store::open(options);
  }
  std::vector<StoredRecord> kept() {
    store_.reset();
    OpenedStore opened = open();
    store_ = std::move(opened.store);
    return opened.records;
  }
  // A change, committed with its record as the service does it.
  void change() {
    const ConfigVar key = TestSupport::keyOf("net.mtu");
    StoreChange change{key, StoreChange::SetValue{{std::to_string(++value_)}}};
    change.record = trail_.changeCommits({}, change, *model_.find(key));
    const std::string record = change.record;
    const CommitResult result = store_->commit({{change}});
    ASSERT_TRUE(result.status.ok()) << result.status.text;
    trail_.changeCommitted(record, result.revisions.at(0));
  }
  // Until it is worth a wait for the disk.
  void changeOften() {
    for (std::size_t i = 0; i < AuditTrail::kMaxUnsynced; ++i) change();
  }
  void workWithStore() {
    work_(*store_);
    done_();
  }
  std::string recorded() const {
    std::ostringstream text;
    text << std::ifstream(directory_.file("audit")).rdbuf();
    return text.str();
  }

  TestSupport::TempDir directory_;
  const Log log_{LogLevel::Info, [](LogLevel, const std::string&) {}};
  Model model_{Definitions({TestSupport::defined("net.mtu")})};
  AuditTrail trail_{directory_.file("audit"), log_};
  std::unique_ptr<Store> store_ = open().store;
  int value_ = 0;
  int works_ = 0;
  CommitQueue::Work work_;
  std::function<void()> done_;
  AuditUpkeep::WithStore withStore_ = [this](CommitQueue::Work work, std::function<void()> done) {
    ++works_;
    work_ = std::move(work);
    done_ = std::move(done);
  };
};

TEST_F(AuditUpkeepTest, FewRecordsAreNotWorthAWaitAndManyAreForgottenOnceTheyAreOnTheDisk) {
  AuditUpkeep upkeep(&trail_, *store_, log_, withStore_);
  change();
  upkeep.syncIfWorthIt();
  EXPECT_EQ(works_, 0);
  changeOften();
  upkeep.syncIfWorthIt();
  EXPECT_EQ(works_, 1);
  workWithStore();
  change();
  EXPECT_THAT(kept(), SizeIs(1));
}

TEST_F(AuditUpkeepTest, OnePartOfTheRecordIsOnItsWayToTheDiskAtATime) {
  AuditUpkeep upkeep(&trail_, *store_, log_, withStore_);
  changeOften();
  upkeep.syncIfWorthIt();
  changeOften();
  upkeep.syncIfWorthIt();
  EXPECT_EQ(works_, 1);
  workWithStore();
  upkeep.syncIfWorthIt();
  EXPECT_EQ(works_, 2);
}

TEST_F(AuditUpkeepTest, AnOrderlyEndLeavesTheStoreNothingToKeep) {
  change();
  AuditUpkeep(&trail_, *store_, log_, withStore_).end();
  EXPECT_THAT(kept(), IsEmpty());
}

TEST_F(AuditUpkeepTest, WhatTheStoreKeptAndTheFileLacksIsRepairedAndForgotten) {
  change();
  const std::vector<StoredRecord> records = kept();
  ASSERT_THAT(records, SizeIs(1));
  ASSERT_EQ(std::ofstream(directory_.file("audit")).good(), true);
  AuditTrail emptied(directory_.file("audit"), log_);
  AuditUpkeep(&emptied, *store_, log_, withStore_).repair(records);
  EXPECT_THAT(recorded(), HasSubstr("net.mtu"));
  change();
  EXPECT_THAT(kept(), SizeIs(1)) << "that of the second change alone";
}

TEST_F(AuditUpkeepTest, WithoutAnAuditNothingIsDone) {
  AuditUpkeep upkeep(nullptr, *store_, log_, withStore_);
  upkeep.repair({});
  upkeep.syncIfWorthIt();
  upkeep.end();
  EXPECT_EQ(works_, 0);
}

}  // namespace
}  // namespace ConfigSrv
