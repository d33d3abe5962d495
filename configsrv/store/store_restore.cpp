// What is checked is what is taken: both make FILE.new of FILE.restore in the same way, and the check
// throws it away again. That costs room for one more copy, for the moment.
#include "configsrv/store/internal/store_restore.h"

#include <sys/random.h>
#include <unistd.h>

#include <chrono>

namespace ConfigSrv {
namespace {

using Condition = StoreContents::Condition;

StoreContents prepareRestore(const StoreFiles& files, const StoreOptions& options) {
  bool readable = true;
  const StoreStatus copied = files.makeCopy(files.restoreFile(), files.newFile(), &readable);
  if (copied.ok()) return prepareCopy(files.newFile(), options, Records::Drop);
  if (!readable) return damagedContents(copied.text);
  StoreContents contents;
  contents.condition = Condition::kFailed;
  contents.status = copied;
  return contents;
}

// Of a copy that is not good.
std::string whatIsWrong(const StoreContents& contents) {
  return contents.condition == Condition::kDamaged ? "it is damaged (" + contents.damage + ")"
                                                   : contents.status.text;
}

// A copy that may be good another time stays, unless there would be nothing to serve meanwhile.
StoreStatus leaveRestore(const StoreFiles& files, const StoreContents& contents,
                         std::string* notice) {
  files.discard(files.newFile());
  const std::string refusal = "the copy " + files.restoreFile() +
                              " did not take the store's place: " + whatIsWrong(contents);
  if (contents.condition == Condition::kFailed) {
    if (!files.hasFile()) return contents.status;
    *notice = refusal + "; the next start tries again";
    return {};
  }
  std::string aside;
  StoreStatus status = files.setAside(files.restoreFile(), &aside);
  *notice = refusal + "; it is now " + aside;
  return status;
}

StoreStatus replaceStore(const StoreFiles& files, std::string* aside) {
  StoreStatus status = files.setReplacedAside(aside);
  if (status.ok()) status = files.install(files.newFile(), files.file());
  // It is of the store that was replaced, and would take the new one's place one day.
  if (status.ok()) status = files.forget(files.snapshotFile());
  if (status.ok()) status = files.forget(files.restoreFile());
  return status;
}

}  // namespace

// Needs to be different, not secret: a device that has gathered no entropy yet must not wait.
std::uint64_t makeStoreId() {
  std::uint64_t id = 0;
  if (::getrandom(&id, sizeof id, GRND_NONBLOCK) != sizeof id) {
    const auto now = std::chrono::system_clock::now().time_since_epoch().count();
    id = static_cast<std::uint64_t>(now) * 0x9E3779B97F4A7C15U ^
         static_cast<std::uint64_t>(::getpid()) << 48;
  }
  return id != 0 ? id : 1;
}

StoreContents notOpened(const Database& database) {
  StoreContents contents;
  contents.condition = Condition::kFailed;
  contents.status = database.lastFailure("open");
  return contents;
}

StoreContents upgradeAndRead(Database& database, std::int64_t format, const StoreFormats& formats) {
  return upgrade(database, format, formats) ? readContents(database, formats)
                                            : contentsAfterFailure(database);
}

StoreContents prepareCopy(const std::string& file, const StoreOptions& options, Records records) {
  const StoreFormats& formats = formatsOf(options);
  Database database(file, options.vfs, Database::Access::kReadWrite);
  if (!database.isOpen()) return notOpened(database);
  // A copy that somebody made by hand may be one that expects a log, whose index is then in memory.
  if (!database.run("PRAGMA locking_mode=EXCLUSIVE")) return contentsAfterFailure(database);
  StoreContents contents = readContents(database, formats);
  if (contents.condition == Condition::kOlderFormat)
    contents = upgradeAndRead(database, contents.format, formats);
  if (contents.condition != Condition::kGood) return contents;
  contents.storeId = makeStoreId();
  const bool dropped = records == Records::Keep || dropRecordTable(database);
  if (!dropped || !replaceStoreId(database, contents.format, contents.storeId))
    return contentsAfterFailure(database);
  return contents;
}

StoreStatus takeRestore(const StoreFiles& files, const StoreOptions& options, std::string* notice) {
  if (!files.hasRestore()) return {};
  const StoreContents contents = prepareRestore(files, options);
  if (contents.condition != Condition::kGood) return leaveRestore(files, contents, notice);
  std::string aside;
  StoreStatus status = replaceStore(files, &aside);
  if (!status.ok()) return status;
  *notice = "the store " + files.file() + " is now the copy of revision " +
            std::to_string(contents.mark.revision) + " that was to take its place" +
            (aside.empty() ? "" : "; what was there is now " + aside);
  return {};
}

StoreStatus checkRestore(const StoreFiles& files, const StoreOptions& options,
                         std::uint64_t* revision) {
  const StoreContents contents = prepareRestore(files, options);
  files.discard(files.newFile());
  *revision = contents.mark.revision;
  if (contents.condition == Condition::kGood) return {};
  const StoreCode code =
      contents.condition == Condition::kDamaged ? StoreCode::kUnusable : contents.status.code;
  return {code, "the copy cannot take the place of the store " + files.file() + ": " +
                    whatIsWrong(contents)};
}

}  // namespace ConfigSrv
