// A commit is one SQLite transaction: each change begins with the row as it is, which its maker brings or
// the store reads, changes it by applyChange and writes it whole, with its checksum.
//
// The log is not copied into the file by the commit that fills it, whose writer would wait for that, but
// by whoever has time for it before the next commit but one, or else by that.
//
// Settings, with their reasons and figures: docs/decisions/sqlite-store.md.
#include "configsrv/store/store.h"

#include <algorithm>
#include <utility>

#include "configsrv/store/internal/store_impl.h"
#include "configsrv/store/internal/store_opening.h"
#include "configsrv/store/internal/store_restore.h"

namespace ConfigSrv {
namespace {

constexpr int kCommitsBeforeCheckpoint = 1;

bool changeNothing(const std::vector<StoreTransaction>& transactions) {
  return std::all_of(transactions.begin(), transactions.end(),
                     [](const StoreTransaction& transaction) { return transaction.empty(); });
}

}  // namespace

const char* storeCodeName(StoreCode code) {
  switch (code) {
    case StoreCode::kOk:
      return "ok";
    case StoreCode::kDiskFull:
      return "disk full";
    case StoreCode::kIo:
      return "disk failure";
    case StoreCode::kInUse:
      return "in use";
    case StoreCode::kNewerFormat:
      return "newer format";
    case StoreCode::kUnusable:
      return "unusable path";
  }
  return "unknown";
}

Store::Impl::Impl(StoreFiles files, FileLock lock, Database database, const StoreOptions& options,
                  const StoreContents& contents, std::uint64_t snapshotRevision)
    : files_(std::move(files)),
      lock_(std::move(lock)),
      database_(std::move(database)),
      logReserve_(database_, options.logPages),
      table_(database_),
      begin_(database_, "BEGIN IMMEDIATE"),
      commit_(database_, "COMMIT"),
      rollBack_(database_, "ROLLBACK"),
      witness_(options.witness),
      storeId_(contents.storeId),
      mark_(contents.mark),
      checkpointPages_(options.logPages),
      snapshotRevision_(snapshotRevision),
      snapshotEvery_(options.snapshotEvery) {
  database_.takePagesWritten();  // What opening wrote is no commit's.
}

bool Store::Impl::isReady() const {
  return table_.isReady() && begin_.isReady() && commit_.isReady() && rollBack_.isReady();
}

// A snapshot newer than the store is a stranger's, or from before a restore: worth replacing.
std::uint64_t Store::Impl::commitsSinceSnapshot() const {
  const std::uint64_t present = revision();
  return snapshotRevision_ <= present ? present - snapshotRevision_ : present;
}

CommitResult Store::Impl::commit(const std::vector<StoreTransaction>& transactions) {
  CommitResult result;
  if (changeNothing(transactions)) {
    result.revisions.assign(transactions.size(), revision());
    return result;
  }
  if (isCheckpointDue() && ++commitsWhileDue_ > kCommitsBeforeCheckpoint) checkpoint();
  bytes_.fetch_add(logReserve_.prepare(), std::memory_order_relaxed);
  StoreMark after = mark_;
  result.status = writeAll(transactions, &result.revisions, &after);
  if (result.status.ok()) {
    mark_ = after;
    forgetUpTo_ = 0;
    // Before anybody hears of it: from now on the state before is an older one.
    if (witness_ != nullptr) witness_->settle(mark_);
    countWrite();
    snapshotWhenDue();
  } else {
    rollBack();
    result.revisions.clear();
  }
  return result;
}

void Store::Impl::checkpoint() {
  commitsWhileDue_ = 0;
  database_.checkpoint();
}

StoreStatus Store::Impl::writeAll(const std::vector<StoreTransaction>& transactions,
                                  std::vector<std::uint64_t>* revisions, StoreMark* after) {
  if (!begin_.finish() || !forgetWaiting()) return writeFailure();
  StoreStatus status = writeTransactions(transactions, revisions, after);
  if (!status.ok()) return status;
  // A process that is killed from here on leaves a store of one of these marks.
  if (witness_ != nullptr) witness_->expect(mark_, *after);
  return commit_.finish() ? StoreStatus() : writeFailure();
}

StoreStatus Store::Impl::writeTransactions(const std::vector<StoreTransaction>& transactions,
                                           std::vector<std::uint64_t>* revisions,
                                           StoreMark* after) {
  for (const StoreTransaction& transaction : transactions) {
    if (!transaction.empty()) ++after->revision;
    for (const StoreChange& change : transaction) {
      StoreStatus status = writeChange(change, after);
      if (!status.ok()) return status;
    }
    revisions->push_back(after->revision);
  }
  return {};
}

bool Store::Impl::forgetWaiting() {
  return !records_ || forgetUpTo_ == 0 || records_->forget(forgetUpTo_);
}

StoreStatus Store::Impl::forgetRecordsNow(std::uint64_t upTo) {
  forgetUpTo_ = upTo;
  if (!records_) return {};
  if (begin_.finish() && forgetWaiting() && commit_.finish()) {
    forgetUpTo_ = 0;
    countWrite();
    return {};
  }
  StoreStatus status = writeFailure();
  rollBack();
  return status;
}

StoreStatus Store::Impl::openRecords(bool keep, std::vector<StoredRecord>* records) {
  if (!keep) return {};
  const auto makeReady = [&] {
    return makeRecordTable(database_) && readRecords(database_, records) &&
           records_.emplace(database_).isReady();
  };
  bool ready = makeReady();
  // A table that is not ours to read is of no use to anybody.
  if (!ready && database_.lastFailureIsDamage()) ready = dropRecordTable(database_) && makeReady();
  database_.takePagesWritten();
  if (ready) return {};
  StoreStatus status = writeFailure();
  records_.reset();
  records->clear();
  return status;
}

StoreStatus Store::Impl::readRow(const StoreChange& change, StoreChange::Row* row) {
  const VariableTable::Found found = table_.read(&row->content, &row->digest);
  if (found == VariableTable::Found::kFailed) return writeFailure();
  if (found == VariableTable::Found::kDamaged) {
    return {StoreCode::kIo, "cannot write to the store " + files_.file() + ": its row of " +
                                change.key.dottedName() +
                                " is damaged; restart the service, which sets the file aside"};
  }
  row->exists = found == VariableTable::Found::kRow;
  return {};
}

StoreStatus Store::Impl::writeChange(const StoreChange& change, StoreMark* after) {
  StoreChange::Row row =
      change.row ? *change.row : StoreChange::Row{false, 0, StoredVariable(change.key)};
  if (!change.row) {
    StoreStatus status = readRow(change, &row);
    if (!status.ok()) return status;
  }
  applyChange(change, after->revision, &row.content);
  std::uint64_t written = 0;
  const bool wrote =
      row.exists ? table_.replace(row.content, &written) : table_.write(row.content, &written);
  if (!wrote) return writeFailure();
  after->digest += written - row.digest;
  if (!records_ || change.record.empty()) return {};
  return records_->add(after->revision, change.record) ? StoreStatus() : writeFailure();
}

StoreStatus Store::Impl::writeFailure() const {
  StoreStatus status = database_.lastFailure("write to");
  // Nobody else can have it: what is busy or gone here is the disk's doing.
  if (status.code != StoreCode::kDiskFull) status.code = StoreCode::kIo;
  return status;
}

// SQLite has rolled back by itself after some failures; then there is nothing to roll back, and
// saying so fails, harmlessly.
void Store::Impl::rollBack() {
  const bool rolledBack = rollBack_.finish();
  static_cast<void>(rolledBack);
}

void Store::Impl::countWrite() {
  const std::uint64_t pages = database_.takePagesWritten();
  logReserve_.used(pages * kLogFrameBytes);
  writes_.fetch_add(1, std::memory_order_relaxed);
  bytes_.fetch_add(pages * kLogFrameBytes, std::memory_order_relaxed);
}

StoreCounters Store::Impl::counters() const {
  const auto load = [](const std::atomic<std::uint64_t>& counter) {
    return counter.load(std::memory_order_relaxed);
  };
  return {load(writes_), load(bytes_), load(snapshots_), load(failedSnapshots_)};
}

// A device that runs for years must not fall back to the day it was started. Once a day costs less
// flash than a hundred commits; its failure is no failure of the commit, and is counted.
void Store::Impl::snapshotWhenDue() {
  if (Clock::now() - snapshotTriedAt_ < snapshotEvery_) return;
  const StoreStatus status = snapshot();
  static_cast<void>(status);
}

StoreStatus Store::Impl::snapshot() {
  snapshotTriedAt_ = Clock::now();
  StoreStatus status = makeSnapshot();
  ++(status.ok() ? snapshots_ : failedSnapshots_);
  return status;
}

StoreStatus Store::Impl::makeSnapshot() {
  const std::string file = files_.newSnapshotFile();
  StoreStatus status = files_.create(file);
  if (status.ok()) status = copyInto(file);
  if (status.ok()) status = files_.install(file, files_.snapshotFile());
  if (status.ok()) {
    snapshotRevision_ = revision();
  } else {
    files_.discard(file);
  }
  return status;
}

StoreStatus Store::Impl::copyInto(const std::string& file) {
  Statement copy(database_, "VACUUM INTO ?1");
  if (copy.isReady()) copy.bindText(1, file);
  return copy.isReady() && copy.finish() ? StoreStatus() : writeFailure();
}

Store::Store(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Store::~Store() = default;

OpenedStore Store::open(const StoreOptions& options) {
  StoreOpening opening(options);
  OpenedStore opened;
  opened.status = opening.run();
  opened.notice = opening.notice();
  if (!opened.status.ok()) return opened;
  StoreContents& contents = opening.contents();
  auto impl = std::make_unique<Impl>(opening.files(), opening.takeLock(), opening.takeDatabase(),
                                     options, contents, opening.snapshotRevision());
  if (!impl->isReady()) {
    opened.status = impl->database().lastFailure("prepare");
    return opened;
  }
  const StoreStatus records = impl->openRecords(options.keepsRecords, &opened.records);
  // As on a full disk: what is stored is served all the same.
  if (!records.ok()) {
    opened.notice += opened.notice.empty() ? "" : "; ";
    opened.notice += "no records are kept with changes: " + records.text;
  }
  opened.variables = std::move(contents.variables);
  opened.store.reset(new Store(std::move(impl)));
  return opened;
}

StoreStatus Store::checkRestore(const StoreOptions& options, std::uint64_t* revision) {
  FileSystem& system = options.fileSystem != nullptr ? *options.fileSystem : posixFileSystem();
  return ConfigSrv::checkRestore(StoreFiles(options.file, system), options, revision);
}

std::uint64_t Store::storeId() const { return impl_->storeId(); }
std::uint64_t Store::revision() const { return impl_->revision(); }
StoreMark Store::mark() const { return impl_->mark(); }
CommitResult Store::commit(const std::vector<StoreTransaction>& transactions) {
  return impl_->commit(transactions);
}
void Store::forgetRecords(std::uint64_t upTo) { impl_->forgetRecords(upTo); }
StoreStatus Store::forgetRecordsNow(std::uint64_t upTo) { return impl_->forgetRecordsNow(upTo); }
bool Store::isCheckpointDue() const { return impl_->isCheckpointDue(); }
void Store::checkpoint() { impl_->checkpoint(); }
StoreStatus Store::snapshot() { return impl_->snapshot(); }
StoreCounters Store::counters() const { return impl_->counters(); }
std::uint64_t Store::commitsSinceSnapshot() const { return impl_->commitsSinceSnapshot(); }

}  // namespace ConfigSrv
