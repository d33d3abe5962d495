// What a store holds after its power, its process, its space or its disk was taken away, tried at
// every step that it takes on the disk.
//
// The cases try what fits into some seconds. With APPCONFIG_EXHAUSTIVE set they try every step of
// every recovery as well; docs/reliability.md has the command and the figures.
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "tests/configsrv/store/store_life.h"
#include "tests/support/stride.h"

namespace ConfigSrv {
namespace {

using Survivors = FaultyDisk::Survivors;
using TestSupport::kStride;

struct Outage {
  Survivors survivors;
  std::uint32_t seed;
};

bool isExhaustive() { return std::getenv("APPCONFIG_EXHAUSTIVE") != nullptr; }

std::vector<Outage> outages(std::uint32_t torn) {
  std::vector<Outage> all = {{Survivors::kNothing, 0},
                             {Survivors::kEverything, 0},
                             {Survivors::kNames, 0},
                             {Survivors::kBytes, 0}};
  for (std::uint32_t seed = 1; seed <= torn; ++seed) all.push_back({Survivors::kTorn, seed});
  return all;
}

std::string text(const Outage& outage) {
  static const char* const kNames[] = {"nothing", "everything", "names", "bytes", "some"};
  return std::string(kNames[static_cast<int>(outage.survivors)]) + " survived (seed " +
         std::to_string(outage.seed) + ")";
}

class StorePowerTest : public testing::Test {
 protected:
  static constexpr const char* kFile = "/var/appconfig/store.db";

  ~StorePowerTest() override {
    std::printf("%ld cuts or faults, %ld of them while recovering\n", cuts_, recoveryCuts_);
  }

  // Lives until the power fails at the step; false when it does not get that far. What the disk
  // holds then, synced or not, is kept for one outage after the other.
  bool liveUntilCut(StoreLife* life, long step) {
    disk_.restore({});
    disk_.cutAt(step);
    while (life->takeStep()) {
    }
    EXPECT_EQ(life->wrong(), "");
    life->end();
    atCut_ = disk_.contents();
    return disk_.isCut();
  }
  void restartAfterCut(const Outage& outage, long step) {
    disk_.restore(atCut_);
    disk_.restart(outage.survivors, outage.seed + static_cast<std::uint32_t>(step));
    ++cuts_;
  }

  // Opens and closes the store of this disk and judges what is in it.
  std::string reopen(const Ledger& ledger) {
    const OpenedStore opened = Store::open(disk_.options());
    return ledger.judge(opened);
  }

  // Cuts the power at every `stride`-th step that opening takes, and of one more commit and of
  // closing; the store has to be right after each.
  void cutRecovery(const Ledger& ledger, const Outage& second, long first, long stride) {
    const FaultyDisk::Contents before = disk_.contents();
    for (long step = first;; step += stride) {
      disk_.restore(before);
      disk_.cutAt(step);
      Ledger after = ledger;
      openAndCommit(&after);
      if (!disk_.isCut()) return;
      ++recoveryCuts_, ++cuts_;
      disk_.restart(second.survivors, second.seed + static_cast<std::uint32_t>(step));
      ASSERT_EQ(reopen(after), "") << "recovery cut at step " << step << ", " << text(second);
    }
  }

  void openAndCommit(Ledger* ledger) {
    const OpenedStore opened = Store::open(disk_.options());
    if (!opened.status.ok()) return;
    ASSERT_EQ(ledger->judge(opened), "");
    ledger->believe(opened);
    const std::vector<StoreTransaction> more = {{setting("a", "more"), setting("h", "more")}};
    ledger->tell(more);
    if (opened.store->commit(more).status.ok()) ledger->acknowledge();
  }

  void damageFile() { disk_.place(kFile, std::string(5000, 'x')); }

  FaultyDisk disk_;
  FaultyDisk::Contents atCut_;
  long cuts_ = 0;
  long recoveryCuts_ = 0;
};

TEST_F(StorePowerTest, TheLifeThatIsCutHasEveryKindOfStep) {
  StoreLife life(disk_);
  while (life.takeStep()) {
  }
  EXPECT_EQ(life.wrong(), "");
  EXPECT_TRUE(life.isOver()) << life.status().text;
  for (int kind = 0; kind < FaultyDisk::kStepKinds; ++kind) {
    EXPECT_GT(disk_.count(static_cast<FaultyDisk::Step>(kind)), 0) << kind;
  }
  std::printf("%ld steps, %ld reads\n", disk_.steps(), disk_.reads());
}

TEST_F(StorePowerTest, ACutAtAnyStepLosesNothingAcknowledgedAndMixesNothing) {
  for (long step = 1;; step += kStride) {
    StoreLife life(disk_);
    if (!liveUntilCut(&life, step)) return;
    for (const Outage& outage : outages(isExhaustive() ? 30 : 3)) {
      restartAfterCut(outage, step);
      ASSERT_EQ(reopen(life.ledger()), "") << "cut at step " << step << ", " << text(outage);
    }
  }
}

TEST_F(StorePowerTest, ACutAtAnyStepOfTheRecoveryFromACutLosesNothingEither) {
  const long stride = isExhaustive() ? 1 : 7;
  const std::vector<Outage> all = outages(2);
  for (long step = 1;; step += kStride) {
    StoreLife life(disk_);
    if (!liveUntilCut(&life, step)) return;
    for (std::size_t i = 0; i < all.size(); ++i) {
      if (!isExhaustive() && (static_cast<std::size_t>(step) + i) % 3 != 0) continue;
      restartAfterCut(all[i], step);
      cutRecovery(life.ledger(), all[(i + static_cast<std::size_t>(step)) % all.size()],
                  1 + step % stride, stride);
      ASSERT_FALSE(HasFatalFailure()) << "first cut at step " << step << ", " << text(all[i]);
    }
  }
}

// A killed process leaves what it wrote to the system; the next one reads it and answers with it,
// so it must be on the disk before.
TEST_F(StorePowerTest, WhatWasReadAfterTheProcessDiedSurvivesALossOfPower) {
  for (long step = 1;; step += kStride) {
    StoreLife life(disk_);
    if (!liveUntilCut(&life, step)) return;
    disk_.restartProcess();
    {
      const OpenedStore opened = Store::open(disk_.options());
      ASSERT_EQ(life.ledger().judge(opened), "") << "killed at step " << step;
      life.ledger().believe(opened);
      disk_.cutAt(1);
    }
    atCut_ = disk_.contents();
    for (const Outage& outage : outages(isExhaustive() ? 30 : 3)) {
      restartAfterCut(outage, step);
      ASSERT_EQ(reopen(life.ledger()), "") << "killed at step " << step << ", " << text(outage);
    }
  }
}

TEST_F(StorePowerTest, ACutAtAnyStepLeavesAGoodSnapshotOnceThereWasOne) {
  for (long step = 1;; step += kStride) {
    StoreLife life(disk_);
    if (!liveUntilCut(&life, step)) return;
    for (const Outage& outage : outages(isExhaustive() ? 20 : 1)) {
      restartAfterCut(outage, step);
      damageFile();
      const OpenedStore opened = Store::open(disk_.options());
      ASSERT_EQ(life.ledger().judgeRestored(opened), "")
          << "cut at step " << step << ", " << text(outage);
    }
  }
}

TEST_F(StorePowerTest, ACutWhileADamagedFileIsReplacedLeavesTheSnapshotToTheNextStart) {
  StoreLife life(disk_);
  while (life.takeStep()) {
  }
  const std::uint64_t id = life.opened().store->storeId();
  life.end();
  damageFile();
  const FaultyDisk::Contents damaged = disk_.contents();
  for (const Outage& outage : outages(isExhaustive() ? 200 : 10)) {
    for (long step = 1;; step += kStride) {
      disk_.restore(damaged);
      disk_.cutAt(step);
      { const OpenedStore cut = Store::open(disk_.options()); }
      if (!disk_.isCut()) break;
      ++cuts_, ++recoveryCuts_;
      disk_.restart(outage.survivors, outage.seed + static_cast<std::uint32_t>(step));
      const OpenedStore opened = Store::open(disk_.options());
      ASSERT_TRUE(opened.status.ok()) << opened.status.text;
      EXPECT_NE(opened.store->storeId(), id);
      EXPECT_EQ(valueIn(opened.variables, "b"), "8") << "cut at step " << step << text(outage);
    }
  }
}

TEST_F(StorePowerTest, ACutWhileDamageInTheLogIsDealtWithNeverBringsTheOldIdBack) {
  std::uint64_t id = 0;
  {
    const OpenedStore opened = Store::open(disk_.options());
    id = opened.store->storeId();
    for (int i = 0; i < 20; ++i) {
      ASSERT_TRUE(opened.store->commit({{setting("a", std::to_string(i))}}).status.ok());
    }
    disk_.cutAt(1);
  }
  disk_.restart(Survivors::kEverything, 0);
  std::string log = disk_.bytesOf(std::string(kFile) + "-wal");
  log[log.size() / 2] = static_cast<char>(log[log.size() / 2] ^ 1);
  disk_.place(std::string(kFile) + "-wal", log);
  const FaultyDisk::Contents damaged = disk_.contents();
  for (const Outage& outage : outages(isExhaustive() ? 200 : 10)) {
    for (long step = 1;; step += kStride) {
      disk_.restore(damaged);
      disk_.cutAt(step);
      { const OpenedStore cut = Store::open(disk_.options()); }
      if (!disk_.isCut()) break;
      ++cuts_, ++recoveryCuts_;
      disk_.restart(outage.survivors, outage.seed + static_cast<std::uint32_t>(step));
      const OpenedStore opened = Store::open(disk_.options());
      ASSERT_TRUE(opened.status.ok()) << opened.status.text;
      ASSERT_NE(opened.store->storeId(), id) << "cut at step " << step << ", " << text(outage);
      ASSERT_EQ(valueIn(opened.variables, "a"), std::to_string(opened.store->revision() - 1));
    }
  }
}

// From the first step on, the copy is what is to be found: it was durable before.
TEST_F(StorePowerTest, ACutAtAnyStepOfARestoreLeavesTheCopyAndTheStoreThatItReplaced) {
  StoreLife life(disk_);
  while (life.takeStep()) {
  }
  const std::uint64_t id = life.opened().store->storeId();
  const std::string copy = disk_.bytesOf(std::string(kFile) + ".snapshot");
  ASSERT_TRUE(life.opened().store->commit({{setting("b", "replaced")}}).status.ok());
  life.end();
  disk_.place(std::string(kFile) + ".restore", copy);
  const FaultyDisk::Contents placed = disk_.contents();
  for (const Outage& outage : outages(isExhaustive() ? 200 : 3)) {
    for (long step = 1;; step += kStride) {
      SCOPED_TRACE("cut at step " + std::to_string(step) + ", " + text(outage));
      disk_.restore(placed);
      disk_.cutAt(step);
      bool acknowledged = false;
      {
        const OpenedStore cut = Store::open(disk_.options());
        if (cut.status.ok())
          acknowledged = cut.store->commit({{setting("a", "behind")}}).status.ok();
      }
      if (!disk_.isCut()) break;
      ++cuts_, ++recoveryCuts_;
      disk_.restart(outage.survivors, outage.seed + static_cast<std::uint32_t>(step));
      const OpenedStore opened = Store::open(disk_.options());
      ASSERT_TRUE(opened.status.ok()) << opened.status.text;
      ASSERT_NE(opened.store->storeId(), id);
      ASSERT_EQ(valueIn(opened.variables, "b"), "8") << opened.notice;
      if (acknowledged) {
        ASSERT_EQ(valueIn(opened.variables, "a"), "behind");
      }
      bool kept = false;
      for (const std::string& name : disk_.names()) {
        if (name.find(".replaced-") == std::string::npos || name.find("-wal") != std::string::npos)
          continue;
        StoreOptions options = disk_.options();
        options.file = name;
        kept |= valueIn(Store::open(options).variables, "b") == "replaced";
      }
      ASSERT_TRUE(kept) << opened.notice;
    }
  }
}

// A record is there exactly as long as its change is and nobody has asked to forget it.
TEST_F(StorePowerTest, ACutAtAnyStepLeavesTheRecordOfEachChangeThatItLeaves) {
  constexpr std::uint64_t kChanges = 12;
  constexpr std::uint64_t kForgotten = 4;
  StoreOptions options = disk_.options();
  options.keepsRecords = true;
  for (const Outage& outage : outages(isExhaustive() ? 30 : 2)) {
    for (long step = 1;; step += kStride) {
      SCOPED_TRACE("cut at step " + std::to_string(step) + ", " + text(outage));
      disk_.restore({});
      disk_.cutAt(step);
      {
        const OpenedStore opened = Store::open(options);
        for (std::uint64_t i = 1; opened.status.ok() && i <= kChanges; ++i) {
          StoreChange change = setting("a", std::to_string(i));
          change.record = "record " + std::to_string(i);
          if (!opened.store->commit({{change}}).status.ok()) break;
          if (i == 2 * kForgotten) opened.store->forgetRecords(kForgotten);
        }
      }
      if (!disk_.isCut()) break;
      ++cuts_;
      disk_.restart(outage.survivors, outage.seed + static_cast<std::uint32_t>(step));
      const OpenedStore opened = Store::open(options);
      ASSERT_TRUE(opened.status.ok()) << opened.status.text;
      const std::uint64_t newest = opened.store->revision();
      const std::uint64_t forgotten = newest > 2 * kForgotten ? kForgotten : 0;
      ASSERT_EQ(opened.records.size(), newest - forgotten);
      for (const StoredRecord& record : opened.records) {
        ASSERT_GT(record.revision, forgotten);
        ASSERT_EQ(record.text, "record " + std::to_string(record.revision));
      }
    }
  }
}

struct Fault {
  const char* name;
  int error;
  bool lasting;
  bool forgets;
  bool everywhere;  // Not at some steps only when time is short.
};

const Fault kFaults[] = {
    {"no space, once", ENOSPC, false, false, false},
    {"no space until some is freed", ENOSPC, true, false, true},
    {"an I/O error, once", EIO, false, false, false},
    {"an I/O error, once, and the system forgets what it did not write", EIO, false, true, true},
    {"I/O errors until the disk is well", EIO, true, true, false},
};

class StoreDiskFaultTest : public StorePowerTest {
 protected:
  static void expectClear(const StoreStatus& status, const Fault& fault) {
    EXPECT_NE(status.text.find(" /"), std::string::npos) << status.text;
    EXPECT_NE(status.text.find("; "), std::string::npos) << "no advice: " << status.text;
    EXPECT_EQ(status.code, fault.error == ENOSPC ? StoreCode::kDiskFull : StoreCode::kIo)
        << status.text;
  }
  // Lives through one fault, repairing what failed. False when the fault did not come.
  bool liveThrough(StoreLife* life, const Fault& fault) {
    bool failed = false;
    while (!life->isOver() && life->wrong().empty()) {
      if (life->takeStep()) continue;
      expectClear(life->status(), fault);
      failed |= disk_.repair();
      ++repairs_;
      if (!failed || testing::Test::HasFailure()) return false;
    }
    EXPECT_EQ(life->wrong(), "");
    return failed | disk_.repair();
  }
  int repairs_ = 0;
};

TEST_F(StoreDiskFaultTest, AFaultAtAnyStepFailsClearlyLosesNothingAndIsOverWhenTheDiskIsWell) {
  StoreLife untouched(disk_);
  while (untouched.takeStep()) {
  }
  const long steps = disk_.steps();
  untouched.end();
  for (const Fault& fault : kFaults) {
    const long stride = isExhaustive() || fault.everywhere ? 1 : 4;
    for (long step = 1; step <= steps; step += stride * kStride) {
      SCOPED_TRACE(std::string(fault.name) + " at step " + std::to_string(step));
      StoreLife life(disk_);
      disk_.restore({});
      disk_.failAt(step, fault.lasting, fault.error);
      disk_.forgetAfterFailedSync(fault.forgets);
      if (liveThrough(&life, fault)) ++cuts_;
      ASSERT_FALSE(HasFailure());
      // Without closing: what was acknowledged has to be on the disk already.
      disk_.cutAt(1);
      life.end();
      disk_.restart(Survivors::kNothing, 0);
      ASSERT_EQ(reopen(life.ledger()), "");
    }
  }
  EXPECT_GT(repairs_, 0);
}

TEST_F(StoreDiskFaultTest, AReadThatFailsOnceCostsNothing) {
  StoreLife untouched(disk_);
  while (untouched.takeStep()) {
  }
  const long reads = disk_.reads();
  untouched.end();
  const Fault fault{"a read", EIO, false, false, false};
  for (long read = 1; read <= reads; read += kStride) {
    SCOPED_TRACE("read " + std::to_string(read));
    StoreLife life(disk_);
    disk_.restore({});
    disk_.failReadAt(read, false);
    if (liveThrough(&life, fault)) ++cuts_;
    ASSERT_FALSE(HasFailure());
    life.end();
    ASSERT_EQ(reopen(life.ledger()), "");
  }
}

TEST_F(StoreDiskFaultTest, AFileThatCannotBeReadAtAllIsKeptAsideAsItWas) {
  StoreLife life(disk_);
  while (life.takeStep()) {
  }
  life.end();
  const std::string bytes = disk_.bytesOf(kFile);
  disk_.failReadAt(1, true);
  const OpenedStore unread = Store::open(disk_.options());
  disk_.repair();
  EXPECT_FALSE(unread.status.ok() && unread.notice.empty());
  bool kept = false;
  for (const std::string& name : disk_.names()) kept |= disk_.bytesOf(name) == bytes;
  EXPECT_TRUE(kept);
}

// The last thing that a snapshot does is to make its name last.
TEST_F(StorePowerTest, ADirectoryThatCannotBeSyncedIsNamed) {
  const std::string file = disk_.options().file;
  const OpenedStore opened = Store::open(disk_.options());
  ASSERT_TRUE(opened.status.ok());
  ASSERT_TRUE(opened.store->snapshot().ok());
  const long before = disk_.steps();
  ASSERT_TRUE(opened.store->snapshot().ok());
  disk_.failAt(disk_.steps() - before, false, EIO);
  const StoreStatus status = opened.store->snapshot();
  EXPECT_EQ(status.code, StoreCode::kIo);
  EXPECT_EQ(status.text, "cannot sync " + file.substr(0, file.rfind('/')) +
                             ": Input/output error; check the disk");
}

}  // namespace
}  // namespace ConfigSrv
