// The witness beside the socket, and what a store makes of it when it is opened.
#include "configsrv/store/witness.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <random>

#include "tests/configsrv/store/store_fixture.h"

namespace ConfigSrv {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::uint64_t kDefinitions = 77;

class WitnessTest : public StoreFixture {
 protected:
  // What a service does between two starts, but for the clients.
  void start(std::uint64_t definitions = kDefinitions) {
    end();
    witness_ = std::make_unique<Witness>(
        path_, [this](const std::string& line) { warnings_.push_back(line); });
    witness_->read();
    StoreOptions options{file_};
    options.witness = witness_.get();
    opened_ = Store::open(options);
    ASSERT_TRUE(opened_.status.ok()) << opened_.status.text;
    epoch_ = witness_->epochFor(store().storeId(), definitions);
    witness_->begin({epoch_, definitions, store().storeId()}, store().mark());
  }
  void end() {
    close();
    witness_.reset();
  }
  // With all of its log in it.
  std::string copyOfStore() {
    end();
    std::string copy = readFile(file_);
    start();
    return copy;
  }
  void putBack(const std::string& copy) {
    end();
    writeFile(file_, copy);
    std::filesystem::remove(file_ + "-wal");
    std::filesystem::remove(file_ + ".snapshot");
  }

  const std::string path_ = directory_.path() + "/witness";
  std::unique_ptr<Witness> witness_;
  std::vector<std::string> warnings_;
  std::uint64_t epoch_ = 0;
};

TEST_F(WitnessTest, AStoreThatContinuesKeepsItsIdAndTheEpoch) {
  start();
  set("a", "1");
  const std::uint64_t epoch = epoch_;
  const std::uint64_t id = store().storeId();
  start();
  EXPECT_EQ(epoch_, epoch);
  EXPECT_EQ(store().storeId(), id);
  EXPECT_THAT(notice(), IsEmpty());
  EXPECT_THAT(warnings_, IsEmpty());
}

TEST_F(WitnessTest, AnOlderCopyThatWasPutBackHasANewIdAndALaterEpoch) {
  start();
  set("a", "old");
  const std::string copy = copyOfStore();
  set("a", "new");
  const std::uint64_t epoch = epoch_;
  const std::uint64_t id = store().storeId();
  putBack(copy);
  start();
  EXPECT_EQ(value("a"), "old");
  EXPECT_NE(store().storeId(), id);
  EXPECT_GT(epoch_, epoch);
  EXPECT_THAT(notice(), HasSubstr("has revision 1 and is not the one of revision 2 that clients "
                                  "were told of last"));
  EXPECT_THAT(notice(), HasSubstr(file_));
  start();
  EXPECT_THAT(notice(), IsEmpty()) << "it is said once";
}

TEST_F(WitnessTest, ACopyThatWasWrittenOnElsewhereIsNoticedWhateverItsRevisionIs) {
  for (const int more : {1, 2, 3}) {
    SCOPED_TRACE(more);
    start();
    set("a", "old");
    const std::string copy = copyOfStore();
    set("a", "new");
    set("b", "new");
    const std::uint64_t id = store().storeId();
    const std::uint64_t epoch = epoch_;
    putBack(copy);
    open();
    for (int i = 0; i < more; ++i) set("a", "elsewhere");
    ASSERT_EQ(store().storeId(), id);
    start();
    EXPECT_NE(store().storeId(), id);
    EXPECT_GT(epoch_, epoch);
  }
}

// Nothing but the witness can tell: the log is whole as far as it goes.
TEST_F(WitnessTest, ALogThatIsCutAtItsEndIsNoticed) {
  start();
  for (int i = 0; i < 5; ++i) set("a", std::to_string(i));
  const std::string main = readFile(file_);
  const std::string log = readFile(file_ + "-wal");
  const std::uint64_t id = store().storeId();
  end();
  writeFile(file_, main);
  writeFile(file_ + "-wal", log.substr(0, 32 + std::size_t{3} * (4096 + 24)));
  start();
  EXPECT_EQ(store().revision(), 3U);
  EXPECT_NE(store().storeId(), id);
}

// Whichever the store holds after a kill: the state before the commit or the one behind it.
TEST_F(WitnessTest, AProcessThatIsKilledAroundACommitLeavesAStoreThatContinues) {
  start();
  std::vector<std::string> copies;
  std::vector<StoreMark> marks;
  for (const char* value : {"0", "1", "2", "3"}) {
    set("a", value);
    marks.push_back(store().mark());
    copies.push_back(copyOfStore());
  }
  const std::uint64_t id = store().storeId();
  witness_->expect(marks[1], marks[2]);
  const std::string duringTheCommit = readFile(path_);
  for (std::size_t i = 0; i < copies.size(); ++i) {
    putBack(copies[i]);
    writeFile(path_, duringTheCommit);
    start();
    EXPECT_EQ(store().storeId() == id, i == 1 || i == 2) << i;
  }
}

TEST_F(WitnessTest, AFailedCommitIsNoReasonForANewEpoch) {
  start();
  set("a", "1");
  const std::uint64_t epoch = epoch_;
  {
    const FileSizeLimit full(8192);
    EXPECT_FALSE(store().commit({{setting("b", std::string(20000, 'x'))}}).status.ok());
  }
  start();
  EXPECT_EQ(epoch_, epoch);
  set("c", "3");
  start();
  EXPECT_EQ(epoch_, epoch);
}

TEST_F(WitnessTest, OtherDefinitionsBeginALaterEpochAndTheStoreKeepsItsId) {
  start();
  const std::uint64_t epoch = epoch_;
  const std::uint64_t id = store().storeId();
  start(kDefinitions + 1);
  EXPECT_GT(epoch_, epoch);
  EXPECT_EQ(store().storeId(), id);
  const std::uint64_t second = epoch_;
  start(kDefinitions);
  EXPECT_GT(epoch_, second) << "the same definitions again are a later state all the same";
}

TEST_F(WitnessTest, AnotherStoreBeginsALaterEpochAndIsNotTouched) {
  start();
  set("a", "1");
  const std::uint64_t epoch = epoch_;
  end();
  file_ = directory_.path() + "/other.db";
  start();
  EXPECT_GT(epoch_, epoch);
  EXPECT_THAT(notice(), IsEmpty());
}

TEST_F(WitnessTest, WithoutARecordNothingIsProvedAndTheEpochIsTheTimeSinceTheDevicesStart) {
  start();
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  EXPECT_GT(epoch_, 0U);
  EXPECT_LE(epoch_, static_cast<std::uint64_t>(now.tv_sec + 1) * 1000);
  EXPECT_GT(epoch_ + 60'000, static_cast<std::uint64_t>(now.tv_sec) * 1000);
  EXPECT_THAT(notice(), IsEmpty());
}

TEST_F(WitnessTest, AnEpochThatCannotGrowIsNeverZero) {
  Witness witness(path_, [](const std::string&) {});
  witness.begin({std::numeric_limits<std::uint64_t>::max(), 1, 1}, {});
  Witness next(path_, [](const std::string&) {});
  next.read();
  EXPECT_GT(next.epochFor(2, 1), 0U);
}

TEST_F(WitnessTest, IsTheServicesAlone) {
  start();
  EXPECT_EQ(modeOf(path_), 0600U);
  EXPECT_THAT(filesNamed(".new"), IsEmpty());
}

class UnusableWitnessTest : public WitnessTest {
 protected:
  // A store that was told of, and a witness of which nothing may be believed.
  void expectNewEpoch(const std::string& why) {
    start();
    const std::uint64_t epoch = lastEpoch_;
    EXPECT_GE(epoch_, epoch);
    EXPECT_NE(store().storeId(), lastId_);
    EXPECT_THAT(notice(), HasSubstr(path_ + " cannot be used: " + why));
    const std::uint64_t id = store().storeId();
    start();
    EXPECT_EQ(store().storeId(), id) << "it was replaced";
    EXPECT_THAT(notice(), IsEmpty());
  }
  void begin() {
    start();
    set("a", "1");
    lastEpoch_ = epoch_;
    lastId_ = store().storeId();
    end();
  }
  std::uint64_t lastEpoch_ = 0;
  std::uint64_t lastId_ = 0;
};

TEST_F(UnusableWitnessTest, AnyFlippedBitMakesItDamaged) {
  for (std::size_t byte = 0; byte < sizeof(std::uint64_t) * 9; byte += 5) {
    begin();
    std::string record = readFile(path_);
    ASSERT_EQ(record.size(), sizeof(std::uint64_t) * 9);
    record[byte] = static_cast<char>(record[byte] ^ 4);
    writeFile(path_, record);
    expectNewEpoch("it is damaged");
  }
}

TEST_F(UnusableWitnessTest, OneOfAnotherSizeIsNoRecord) {
  begin();
  writeFile(path_, readFile(path_).substr(0, 40));
  expectNewEpoch("it has another size");
}

TEST_F(UnusableWitnessTest, ASymbolicLinkIsReplacedAndNotFollowed) {
  begin();
  const std::string elsewhere = directory_.path() + "/elsewhere";
  std::filesystem::rename(path_, elsewhere);
  const std::string before = readFile(elsewhere);
  std::filesystem::create_symlink(elsewhere, path_);
  expectNewEpoch("it is a symbolic link");
  EXPECT_EQ(readFile(elsewhere), before);
}

TEST_F(UnusableWitnessTest, OneThatOthersMayWriteProvesNothing) {
  begin();
  ASSERT_EQ(::chmod(path_.c_str(), 0666), 0);
  expectNewEpoch("others may write it");
}

TEST_F(UnusableWitnessTest, OneOfAnotherUserProvesNothing) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give a file away";
  begin();
  ASSERT_EQ(::chown(path_.c_str(), 65534, 65534), 0);
  expectNewEpoch("it belongs to user 65534");
}

TEST_F(UnusableWitnessTest, ADirectoryInItsPlaceIsSaidAndStopsNobody) {
  ASSERT_EQ(::mkdir(path_.c_str(), 0700), 0);
  start();
  ASSERT_EQ(warnings_.size(), 1U);
  EXPECT_THAT(warnings_[0], HasSubstr(path_ + ": cannot be written: "));
  EXPECT_EQ(set("a", "1"), 1U);
  EXPECT_EQ(warnings_.size(), 1U);
}

// Its last word must not be taken for the truth afterwards.
TEST_F(UnusableWitnessTest, OneThatCannotBeWrittenAnyMoreFailsNoCommitAndIsGone) {
  begin();
  start();
  {
    const FileSizeLimit none(0);
    witness_->expect({1, 1}, {2, 2});
  }
  ASSERT_EQ(warnings_.size(), 1U);
  EXPECT_FALSE(std::filesystem::exists(path_));
  EXPECT_GT(set("a", "2"), 0U);
  EXPECT_EQ(warnings_.size(), 1U) << "said once";
}

class StoreDigestTest : public StoreFixture {};

// Whatever is committed, what is kept current says the same as what is read anew.
TEST_F(StoreDigestTest, EqualsThatOfAFreshReadAfterAnyCommits) {
  std::mt19937 random(7);
  const auto name = [&] { return std::string(1, static_cast<char>('a' + random() % 12)); };
  const auto anyChange = [&]() -> StoreChange {
    switch (random() % 5) {
      case 0:
        return {keyOf(name()), StoreChange::ResetValue{}};
      case 1:
        return {keyOf(name()), StoreChange::SetOptions{{{"x", name()}}, random() % 2}};
      case 2:
        return {keyOf(name()), StoreChange::SetAccess{20, std::nullopt}};
      case 3:
        return {keyOf(name()), StoreChange::ResetAttributes{}};
      default:
        return setting(name(), name());
    }
  };
  open();
  for (int round = 0; round < 30; ++round) {
    std::vector<StoreTransaction> group(1 + random() % 3);
    for (StoreTransaction& transaction : group) {
      for (std::size_t i = random() % 4; i > 0; --i) transaction.push_back(anyChange());
    }
    ASSERT_TRUE(store().commit(group).status.ok());
    if (round % 7 == 3) {
      ASSERT_TRUE(store().snapshot().ok());
    }
    const StoreMark kept = store().mark();
    ASSERT_EQ(open().mark(), kept) << "round " << round;
  }
}

TEST_F(StoreDigestTest, AFailedCommitLeavesItAsItWas) {
  open();
  set("a", "1");
  const StoreMark before = store().mark();
  {
    const FileSizeLimit full(8192);
    EXPECT_FALSE(store().commit({{setting("b", std::string(20000, 'x'))}}).status.ok());
  }
  EXPECT_EQ(store().mark(), before);
  set("b", "2");
  const StoreMark after = store().mark();
  EXPECT_EQ(open().mark(), after);
}

TEST_F(StoreDigestTest, ToldApartAreStatesOfOneRevisionWithOtherContents) {
  std::vector<std::uint64_t> digests;
  for (const char* last : {"x", "y"}) {
    file_ = directory_.path() + "/" + last;
    open();
    set("a", "1");
    set("a", last);
    digests.push_back(store().mark().digest);
  }
  file_ = directory_.path() + "/order";
  open();
  set("a", "x");
  set("a", "1");
  digests.push_back(store().mark().digest);
  file_ = directory_.path() + "/key";
  open();
  set("a", "1");
  set("b", "x");
  digests.push_back(store().mark().digest);
  for (std::size_t i = 0; i < digests.size(); ++i) {
    EXPECT_EQ(std::count(digests.begin(), digests.end(), digests[i]), 1) << i;
  }
}

}  // namespace
}  // namespace ConfigSrv
