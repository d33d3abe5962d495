#include <array>
#include <ctime>
#include <random>

#include "tests/configsrv/store/store_fixture.h"

namespace ConfigSrv {
namespace {

std::string fastDirectory() {
  return ::access("/dev/shm", W_OK) == 0 ? "/dev/shm" : testing::TempDir();
}

// Hundreds of files are opened here, and each one that is begun anew is synced.
class StoreDamageTest : public StoreFixture {
 protected:
  static constexpr int kRevisions = 40;

  StoreDamageTest() : StoreFixture(fastDirectory()) {}

  // Revision n sets v<n> to n: which of them are there shows which commits survived.
  void fill() {
    open();
    for (int i = 1; i <= kRevisions; ++i) {
      set("v" + std::to_string(i), std::string(100, 'x') + std::to_string(i));
    }
  }

  // What a loss of power leaves: everything still in the log.
  void fillAndLosePower() {
    fill();
    const std::string main = readFile(file_);
    log_ = readFile(file_ + "-wal");
    close();
    main_ = main;
  }
  void fillAndClose() {
    fill();
    close();
    main_ = readFile(file_);
  }

  void reopenWith(const std::string& main, const std::string& log) {
    close();
    for (const auto& entry : std::filesystem::directory_iterator(directory_.path())) {
      std::filesystem::remove(entry.path());
    }
    writeFile(file_, main);
    if (!log.empty()) writeFile(file_ + "-wal", log);
    open();
  }

  // Either what is served is what was committed, up to some revision, or the file was set aside
  // and nothing is served.
  void expectNothingWrong(const std::string& what) {
    SCOPED_TRACE(what + ": " + notice());
    EXPECT_EQ(notice().empty(), filesNamed("store.db.damaged-").empty());
    if (!notice().empty() && !saysThatTheLogIsDamaged()) {
      EXPECT_TRUE(variables().empty());
      EXPECT_EQ(store().revision(), 0U);
    } else {
      EXPECT_EQ(variables().size(), store().revision());
      for (const StoredVariable& variable : variables()) {
        const std::string number = std::to_string(variable.valueChangedAt);
        EXPECT_EQ(variable.key.name(), "v" + number);
        EXPECT_EQ(variable.value, std::list<std::string>{std::string(100, 'x') + number});
      }
    }
    EXPECT_TRUE(store().commit({{setting("after", "x")}}).status.ok());
  }

  bool saysThatTheLogIsDamaged() const {
    return notice().find("what was committed after revision") != std::string::npos;
  }

  std::string main_;
  std::string log_;
};

TEST_F(StoreDamageTest, WhatIsNoDatabaseIsSetAsideAndAnEmptyStoreBegun) {
  fillAndClose();
  const std::uint64_t id = open().storeId();
  reopenWith(std::string(10000, 'x'), "");
  EXPECT_NE(notice().find(file_), std::string::npos);
  EXPECT_NE(notice().find("not a database"), std::string::npos) << notice();
  EXPECT_EQ(notice().find('\n'), std::string::npos);
  EXPECT_TRUE(variables().empty());
  EXPECT_NE(store().storeId(), id);
  const std::vector<std::string> aside = filesNamed("store.db.damaged-");
  ASSERT_FALSE(aside.empty());
  EXPECT_TRUE(readFile(directory_.path() + "/" + aside.front()) == std::string(10000, 'x'));
  EXPECT_NE(notice().find(directory_.path() + "/" + aside.front().substr(0, 33)),
            std::string::npos);
  EXPECT_EQ(open().revision(), 0U);
  EXPECT_EQ(notice(), "");
}

TEST_F(StoreDamageTest, WhatIsSetAsideSaysWhen) {
  const auto name = [] {
    const std::time_t now = std::time(nullptr);
    std::array<char, 64> text{};
    std::strftime(text.data(), text.size(), "store.db.damaged-%Y%m%dT%H%M%SZ", std::gmtime(&now));
    return std::string(text.data());
  };
  fillAndClose();
  const std::string before = name();
  reopenWith(std::string(10000, 'x'), "");
  const std::vector<std::string> aside = filesNamed("store.db.damaged-");
  ASSERT_FALSE(aside.empty());
  EXPECT_GE(aside.front(), before);
  EXPECT_LE(aside.front().substr(0, before.size()), name());
}

TEST_F(StoreDamageTest, AnotherDatabaseIsSetAside) {
  runSql(file_, "CREATE TABLE meta(format); CREATE TABLE other(x); INSERT INTO other VALUES (1)");
  open();
  EXPECT_NE(notice().find("not a configuration store"), std::string::npos) << notice();
}

TEST_F(StoreDamageTest, ARowThatDoesNotMatchItsChecksumIsDamage) {
  const char* const kEdits[] = {
      "UPDATE variable SET value=X'0100000041' WHERE name=X'7637'",
      "UPDATE variable SET value=NULL WHERE name=X'7637'",
      "UPDATE variable SET value='text' WHERE name=X'7637'",
      "UPDATE variable SET read_role=4 WHERE name=X'7637'",
      "UPDATE variable SET default_index=-1 WHERE name=X'7637'",
      "UPDATE variable SET value_at=-1 WHERE name=X'7637'",
      "UPDATE variable SET value_at=4611686018427387904 WHERE name=X'7637'",
      "UPDATE variable SET namespace=99999999999 WHERE name=X'7637'",
      "UPDATE variable SET name=X'5637' WHERE name=X'7637'",
      "UPDATE variable SET group_name='test' WHERE name=X'7637'",
      "UPDATE variable SET checksum=0 WHERE name=X'7637'",
      "UPDATE meta SET store_id=5",
      "DELETE FROM meta",
      "DROP TABLE meta",
      "DROP TABLE variable",
      "ALTER TABLE variable ADD COLUMN extra",
  };
  fillAndClose();
  for (const char* edit : kEdits) {
    close();
    writeFile(file_, main_);
    runSql(file_, edit);
    open();
    EXPECT_NE(notice(), "") << edit;
    EXPECT_TRUE(variables().empty()) << edit;
  }
}

TEST_F(StoreDamageTest, AFileCutAnywhereIsSetAside) {
  fillAndClose();
  for (std::size_t length = 1; length < main_.size(); length += 509) {
    reopenWith(main_.substr(0, length), "");
    EXPECT_NE(notice(), "") << length;
    expectNothingWrong("cut at " + std::to_string(length));
  }
}

TEST_F(StoreDamageTest, AFlippedByteInTheFileNeverBecomesAValue) {
  fillAndClose();
  std::mt19937 random(2);
  std::vector<std::size_t> places;
  for (std::size_t i = 0; i < 100; ++i) places.push_back(i);  // All of the header.
  for (int i = 0; i < 300; ++i) places.push_back(random() % main_.size());
  for (const std::size_t place : places) {
    std::string bytes = main_;
    bytes[place] = static_cast<char>(bytes[place] ^ (1 << (random() % 8)));
    reopenWith(bytes, "");
    expectNothingWrong("byte " + std::to_string(place));
    if (notice().empty()) {
      EXPECT_EQ(variables().size(), std::size_t{kRevisions}) << place;
    }
  }
}

TEST_F(StoreDamageTest, APageOfNoiseInTheFileNeverBecomesAValue) {
  fillAndClose();
  std::mt19937 random(3);
  for (std::size_t page = 0; page < main_.size(); page += 4096) {
    for (int round = 0; round < 8; ++round) {
      std::string bytes = main_;
      const std::size_t length = std::min<std::size_t>(4096, bytes.size() - page);
      for (std::size_t i = 0; i < length; ++i) {
        bytes[page + i] = round == 0 ? '\0' : static_cast<char>(random());
      }
      reopenWith(bytes, "");
      expectNothingWrong("page at " + std::to_string(page));
    }
  }
}

TEST_F(StoreDamageTest, ACutLogGivesTheCommitsBeforeTheCut) {
  fillAndLosePower();
  reopenWith(main_, log_);
  EXPECT_EQ(store().revision(), std::uint64_t{kRevisions});
  EXPECT_EQ(notice(), "");
  std::uint64_t last = 0;
  for (std::size_t length = 0; length < log_.size(); length += 1013) {
    reopenWith(main_, log_.substr(0, length));
    EXPECT_EQ(notice(), "") << length;
    EXPECT_GE(store().revision(), last);
    last = store().revision();
    expectNothingWrong("log cut at " + std::to_string(length));
  }
  EXPECT_GT(last, 30U);
}

TEST_F(StoreDamageTest, AFlippedByteInTheLogGivesTheCommitsBeforeItAndIsSaid) {
  fillAndLosePower();
  std::mt19937 random(4);
  for (int i = 0; i < 200; ++i) {
    std::string bytes = log_;
    const std::size_t place = i < 32 ? static_cast<std::size_t>(i) : random() % bytes.size();
    bytes[place] = static_cast<char>(bytes[place] ^ (1 << (random() % 8)));
    reopenWith(main_, bytes);
    const std::uint64_t lost = std::uint64_t{kRevisions} - store().revision();
    // The last two commits of a log look like one that was cut short; a third is needed as well when
    // what the next frame is checked with is hit.
    EXPECT_TRUE(lost == 3 || saysThatTheLogIsDamaged() == (lost > 3)) << place << ", lost " << lost;
    expectNothingWrong("log byte " + std::to_string(place));
  }
}

TEST_F(StoreDamageTest, DamageInTheLogIsSaidOnceAndTheStoreGetsANewId) {
  fillAndLosePower();
  reopenWith(main_, log_);
  const std::uint64_t id = store().storeId();
  std::string bytes = log_;
  bytes[bytes.size() / 2] ^= 1;
  reopenWith(main_, bytes);
  EXPECT_TRUE(saysThatTheLogIsDamaged());
  EXPECT_NE(notice().find(std::to_string(store().revision())), std::string::npos) << notice();
  const std::uint64_t restarted = store().storeId();
  EXPECT_NE(restarted, id);
  const std::vector<std::string> kept = filesNamed("store.db.damaged-");
  ASSERT_EQ(kept.size(), 1U);
  EXPECT_TRUE(readFile(directory_.path() + "/" + kept.front()) == bytes);
  set("later", "1");
  const std::string main = readFile(file_);
  const std::string log = readFile(file_ + "-wal");
  reopenWith(main, log);
  EXPECT_EQ(notice(), "");
  EXPECT_EQ(store().storeId(), restarted);
  EXPECT_EQ(value("later"), "1");
}

// It is read in pieces of 64 pages.
TEST_F(StoreDamageTest, DamageFarBehindInALongLogIsSaidToo) {
  open();
  for (int i = 0; i < 200; ++i) set("a", std::to_string(i));
  const std::string main = readFile(file_);
  std::string log = readFile(file_ + "-wal");
  constexpr std::size_t kHeaderBytes = 32;
  constexpr std::size_t kFrameBytes = 24 + 4096;
  log[kHeaderBytes + 100 * kFrameBytes + 200] ^= 1;
  reopenWith(main, log);
  EXPECT_TRUE(saysThatTheLogIsDamaged()) << notice();
  EXPECT_LT(store().revision(), 101U);
}

TEST_F(StoreDamageTest, AStoreThatIsOlderThanItsSnapshotIsReplacedByIt) {
  fillAndLosePower();
  reopenWith(main_, log_);
  const std::uint64_t id = store().storeId();
  ASSERT_TRUE(store().snapshot().ok());
  const std::string snapshot = readFile(file_ + ".snapshot");
  reopenWith(main_, log_.substr(0, log_.size() / 2));
  const std::uint64_t found = store().revision();
  close();
  writeFile(file_, main_);
  writeFile(file_ + "-wal", log_.substr(0, log_.size() / 2));
  writeFile(file_ + ".snapshot", snapshot);
  open();
  EXPECT_LT(found, std::uint64_t{kRevisions});
  EXPECT_EQ(store().revision(), std::uint64_t{kRevisions}) << notice();
  EXPECT_NE(notice().find("its log is lost"), std::string::npos) << notice();
  EXPECT_NE(store().storeId(), id);
  EXPECT_FALSE(filesNamed("store.db.damaged-").empty());
}

TEST_F(StoreDamageTest, ANewerSnapshotOfAnotherStoreIsNotUsed) {
  fillAndClose();
  open();
  ASSERT_TRUE(store().snapshot().ok());
  const std::string strange = readFile(file_ + ".snapshot");
  close();
  file_ = directory_.path() + "/other.db";
  open();
  set("mine", "1");
  close();
  writeFile(file_ + ".snapshot", strange);
  open();
  EXPECT_EQ(notice(), "");
  EXPECT_EQ(value("mine"), "1");
}

TEST_F(StoreDamageTest, SwappedFilesOfOneStoreNeverBecomeAMixture) {
  fillAndLosePower();
  // The log of another store, of the same kind, beside this one's file.
  file_ = directory_.path() + "/other.db";
  open();
  for (int i = 1; i <= 20; ++i) set("other" + std::to_string(i), "x");
  const std::string strangeLog = readFile(file_ + "-wal");
  close();
  file_ = directory_.path() + "/store.db";
  reopenWith(main_, strangeLog);
  for (const StoredVariable& variable : variables()) {
    EXPECT_EQ(variable.key.name().substr(0, 5), "other") << notice();
  }
}

TEST_F(StoreDamageTest, NoiseOfAnyLengthIsSetAside) {
  std::mt19937 random(5);
  for (int i = 0; i < 100; ++i) {
    std::string bytes(1 + random() % 20000, '\0');
    for (char& c : bytes) c = static_cast<char>(random());
    reopenWith(bytes, i % 2 == 0 ? "" : bytes);
    EXPECT_NE(notice(), "");
    expectNothingWrong("noise of " + std::to_string(bytes.size()));
  }
}

TEST_F(StoreDamageTest, ALogWithoutItsFileIsNotReplayedIntoANewOne) {
  fillAndLosePower();
  close();
  std::filesystem::remove(file_);
  writeFile(file_ + "-wal", log_);
  open();
  EXPECT_NE(notice().find("missing"), std::string::npos) << notice();
  EXPECT_TRUE(variables().empty());
  EXPECT_EQ(filesNamed("-wal").size(), 2U);  // The one set aside and the new one.
}

TEST_F(StoreDamageTest, AnEmptyFileWithNothingBesideItIsANewStore) {
  writeFile(file_, "");
  open();
  EXPECT_EQ(notice(), "");
  EXPECT_EQ(set("a", "1"), 1U);
}

TEST_F(StoreDamageTest, OnlyTheNewestDamagedFilesAreKept) {
  for (int i = 0; i < Store::kMaxSetAside + 3; ++i) {
    close();
    writeFile(file_, "damaged " + std::to_string(i) + std::string(600, 'x'));
    open();
    EXPECT_NE(notice(), "");
  }
  std::vector<std::string> mains;
  for (const std::string& name : filesNamed("damaged-")) {
    if (name.find("-wal") == std::string::npos) mains.push_back(name);
  }
  EXPECT_EQ(mains.size(), std::size_t{Store::kMaxSetAside});
  bool newestKept = false;
  for (const std::string& name : mains) {
    newestKept |= readFile(directory_.path() + "/" + name).compare(0, 9, "damaged 5") == 0;
  }
  EXPECT_TRUE(newestKept);
}

}  // namespace
}  // namespace ConfigSrv
