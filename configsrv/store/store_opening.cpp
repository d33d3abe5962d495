// The order matters. Nothing is touched before the lock is held, so that nobody is in the middle of
// using what is about to be renamed. Nothing is written before the format is known, so that a newer
// version finds its file as it left it. Whatever replaces the file is finished under another name
// and then renamed, so that a loss of power leaves the old state or the new one.
#include "configsrv/store/internal/store_opening.h"

#include <algorithm>

#include "configsrv/store/internal/log_reserve.h"
#include "configsrv/store/internal/log_scan.h"

namespace ConfigSrv {
namespace {

using Condition = StoreContents::Condition;

constexpr int kPageBytes = 4096;

std::string onOneLine(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  return text;
}

}  // namespace

StoreStatus StoreOpening::run() {
  StoreStatus status = files_.makeDirectory();
  if (status.ok()) status = files_.takeLock(&lock_);
  if (status.ok()) status = takeRestore(files_, options_, &notice_);
  if (status.ok()) status = open();
  if (status.ok()) status = holdAgainstWitness();
  return status;
}

void StoreOpening::say(const std::string& what) { notice_ += (notice_.empty() ? "" : "; ") + what; }

StoreStatus StoreOpening::open() {
  StoreFiles::Presence presence = StoreFiles::Presence::kNothing;
  std::string blocked;
  StoreStatus status = files_.inspect(&presence, &blocked);
  if (!status.ok()) return status;
  switch (presence) {
    case StoreFiles::Presence::kNothing:
      return beginEmpty();
    case StoreFiles::Presence::kMainGone:
      return recover("it is missing or empty");
    case StoreFiles::Presence::kBlocked:
      return recover(blocked);
    case StoreFiles::Presence::kThere:
      return load();
  }
  return status;
}

// Revisions that clients were told of may stand for something else here, so the id has to be another.
StoreStatus StoreOpening::holdAgainstWitness() {
  if (options_.witness == nullptr) return {};
  const std::string objection = options_.witness->objectionTo(contents_.storeId, contents_.mark);
  if (objection.empty()) return {};
  contents_.storeId = makeStoreId();
  if (!replaceStoreId(*database_, contents_.format, contents_.storeId))
    return database_->lastFailure("give a new id to");
  say("the store " + files_.file() + " " + objection +
      "; it is served as it is, and clients read everything again");
  return {};
}

StoreStatus StoreOpening::beginEmpty() {
  StoreStatus status = files_.syncDirectories();
  if (status.ok()) status = files_.create(files_.newFile());
  if (status.ok()) status = makeEmpty();
  if (status.ok()) status = files_.install(files_.newFile(), files_.file());
  if (status.ok()) return load();
  files_.discard(files_.newFile());
  return status;
}

StoreStatus StoreOpening::makeEmpty() {
  Database database(files_.newFile(), options_.vfs, Database::Access::kReadWrite);
  // No journal on the disk: a half-made file is thrown away, not repaired.
  const bool made = database.isOpen() && database.run("PRAGMA journal_mode=MEMORY") &&
                    database.run("PRAGMA page_size=" + std::to_string(kPageBytes)) &&
                    createContents(database, makeStoreId());
  return made ? StoreStatus() : database.lastFailure("begin");
}

// What seems damaged is read once more: a disk that failed a read, and would not fail it again, must
// not cost what is stored. The log is looked at first, for opening the file begins to change it.
StoreStatus StoreOpening::load() {
  commitsAreLost_ = logHasLostCommits(files_.system(), files_.logFile());
  contents_ = openAndRead();
  if (contents_.condition == Condition::kDamaged) contents_ = openAndRead();
  switch (contents_.condition) {
    case Condition::kGood:
      return isBehindSnapshot()
                 ? recover("it has revision " + std::to_string(contents_.mark.revision) +
                           " and its snapshot a newer one, so its log is lost")
                 : keepWhatWasRead();
    case Condition::kDamaged:
      return recover("it is damaged (" + contents_.damage + ")");
    case Condition::kOlderFormat:
    case Condition::kNewerFormat:
    case Condition::kFailed:
      break;
  }
  return contents_.status;
}

// A process that was killed may have left the log, or its name, to the system's memory alone. Who
// has read them will see them again, whatever happens next.
StoreStatus StoreOpening::keepWhatWasRead() {
  database_->keepLogOnClose(false);
  StoreStatus status = files_.syncLog();
  if (status.ok() && commitsAreLost_) status = goOnWithoutLostCommits();
  return status;
}

// What is a snapshot of this store and has a newer revision has seen commits that are gone from it.
bool StoreOpening::isBehindSnapshot() {
  if (recovering_ || !files_.hasSnapshot()) return false;
  Database snapshot(files_.snapshotFile(), options_.vfs, Database::Access::kReadOnly);
  std::uint64_t revision = 0;
  if (!snapshot.isOpen() || !readNewestRevision(snapshot, &revision)) return false;
  if (revision <= contents_.mark.revision) return false;
  const StoreContents newer = readContents(snapshot, formats());
  return newer.condition == Condition::kGood && newer.storeId == contents_.storeId;
}

// Revisions have gone back, so the id has to be another. The log goes last: its damage, found once
// more, is the reason for all this when power fails in between.
StoreStatus StoreOpening::goOnWithoutLostCommits() {
  std::string aside;
  const StoreStatus kept = files_.copyLogAside(&aside);
  contents_.storeId = makeStoreId();
  if (!replaceStoreId(*database_, contents_.format, contents_.storeId))
    return database_->lastFailure("repair");
  emptyLog(*database_);
  say("the log of the store " + files_.file() + " is damaged: what was committed after revision " +
      std::to_string(contents_.mark.revision) + " is lost; the damaged log is " +
      (kept.ok() ? "kept as " + aside : "not kept, for " + kept.text));
  return {};
}

StoreContents StoreOpening::openAndRead() {
  database_.emplace(files_.file(), options_.vfs, Database::Access::kReadWrite);
  if (!database_->isOpen()) return notOpened(*database_);
  // What is refused keeps its log as it is, and so does what will be set aside.
  database_->keepLogOnClose(true);
  // Before the first read: so the log's index is in memory and no file is shared with anybody.
  if (!database_->run("PRAGMA locking_mode=EXCLUSIVE")) return contentsAfterFailure(*database_);
  StoreContents contents = checkFormat(*database_, formats());
  const bool isOlder = contents.condition == Condition::kOlderFormat;
  if (contents.condition != Condition::kGood && !isOlder) return contents;
  // The file could be opened for writing, or this would not have been reached.
  if (database_->isReadOnly()) return damagedContents("its header says that it is read-only");
  if (!useLog()) return contentsAfterFailure(*database_);
  return isOlder ? upgradeAndRead(*database_, contents.format, formats())
                 : readContents(*database_, formats());
}

bool StoreOpening::useLog() {
  std::string mode;
  std::int64_t pageBytes = 0;
  if (!database_->readText("PRAGMA journal_mode=WAL", &mode) || mode != "wal" ||
      !database_->readNumber("PRAGMA page_size", &pageBytes) || pageBytes <= 0) {
    return false;
  }
  const std::uint64_t maxPages = options_.maxBytes / static_cast<std::uint64_t>(pageBytes);
  const std::uint64_t logBytes = logLimitBytes(options_.logPages);
  database_->countLogPages();
  return database_->run("PRAGMA synchronous=FULL") && database_->run("PRAGMA temp_store=MEMORY") &&
         database_->run("PRAGMA cell_size_check=ON") &&
         // Distributions differ in it. Zeros over each page that becomes free would double what a
         // large value writes, and hide nothing: the log keeps the page's last contents all the same.
         database_->run("PRAGMA secure_delete=OFF") &&
         database_->run("PRAGMA journal_size_limit=" + std::to_string(logBytes)) &&
         database_->run("PRAGMA max_page_count=" + std::to_string(maxPages));
}

StoreStatus StoreOpening::recover(const std::string& whatIsWrong) {
  // Closes the file, if it was opened, before it is renamed.
  database_.reset();
  if (recovering_) {
    return {StoreCode::kIo, "the store " + files_.file() + " was begun anew, and still " +
                                onOneLine(whatIsWrong) + "; check the disk"};
  }
  recovering_ = true;
  say("the store " + files_.file() + " cannot be used: " + onOneLine(whatIsWrong));
  return replaceDamaged();
}

StoreStatus StoreOpening::replaceDamaged() {
  std::string aside;
  StoreStatus status = files_.setAside(files_.file(), &aside);
  if (!status.ok()) return status;
  notice_ += "; what was there is now " + aside;
  bool restored = false;
  status = restoreSnapshot(&restored);
  if (!status.ok()) return status;
  if (restored) return load();
  notice_ += "; an empty store was begun, so every variable has its default";
  return beginEmpty();
}

StoreStatus StoreOpening::restoreSnapshot(bool* restored) {
  if (!files_.hasSnapshot()) return {};
  bool readable = true;
  StoreStatus copied = files_.makeCopy(files_.snapshotFile(), files_.newFile(), &readable);
  if (!copied.ok() && readable) return copied;
  const StoreContents contents = copied.ok()
                                     ? prepareCopy(files_.newFile(), options_, Records::Keep)
                                     : damagedContents(copied.text);
  if (contents.condition == Condition::kFailed) return contents.status;
  if (contents.condition == Condition::kGood) {
    *restored = true;
    notice_ +=
        "; the snapshot of revision " + std::to_string(contents.mark.revision) + " took its place";
    return files_.install(files_.newFile(), files_.file());
  }
  std::string aside;
  StoreStatus status = files_.setAside(files_.snapshotFile(), &aside);
  notice_ += "; the snapshot cannot be used either and is now " + aside;
  return status;
}

std::uint64_t StoreOpening::snapshotRevision() const {
  if (!files_.hasSnapshot()) return 0;
  Database database(files_.snapshotFile(), options_.vfs, Database::Access::kReadOnly);
  std::uint64_t revision = 0;
  std::uint64_t id = 0;
  // One that cannot be read, or is another store's, counts as none: the next snapshot replaces it.
  if (!database.isOpen() || !readNewestRevision(database, &revision)) return 0;
  return readStoreId(database, &id) && id == contents_.storeId ? revision : 0;
}

}  // namespace ConfigSrv
