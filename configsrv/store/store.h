// Store: the durable memory of the configuration service. It holds only what differs from the
// definitions, with a revision that grows by one with each committed transaction.
//
// Shape:   one file, with companions beside it while in use: FILE-wal (the log), FILE.lock, and
//          FILE.snapshot (the last snapshot). Files get mode 0600; a missing directory is made,
//          with mode 0700, its missing parents too.
// Durable: what commit() acknowledged survives the loss of power.
// Faults:  a damaged file never keeps open() from succeeding: it is set aside as
//          FILE.damaged-<UTC time> with its companions (the newest kMaxSetAside are kept), the
//          snapshot takes its place, or else an empty store, and OpenedStore::notice says so. The
//          same goes for a file that may not be read, for one that is missing beside a snapshot, or
//          older than it, and for a directory in its place. Damage inside the log costs the commits
//          behind it; it is said as well, unless it is in the last two or three of them.
//          A file written by a newer version is refused and not touched; one of an older version
//          is brought to the present format, in one transaction.
// Restore: a copy under the name FILE.restore takes the store's place when it is opened next, with a
//          new id; what was there is kept as FILE.replaced-<UTC time> (the newest kMaxSetAside), and
//          the notice says so. One that is no good is set aside as FILE.restore.damaged-<UTC time>.
// Records: a store that keeps them has a text beside a change, as durable as the change, until it is
//          told to forget it: for whoever writes it elsewhere too, and cannot do both at once.
// Past:    with a Witness, a store that is not the one that clients were told of last (an older copy
//          that was put back, a log whose end is missing) gets a new id, and the notice says so.
// Threads: one at a time; it may be opened on one thread and used on another. While a CommitQueue
//          has it, it is the queue's.
// Owns:    its files, from open() to destruction; a second open() of the same file is refused, in
//          this process or any other.
//
//   OpenedStore opened = Store::open({"/var/lib/appconfig/store.db"});
//   if (!opened.status.ok()) return fail(opened.status.text);
//   if (!opened.notice.empty()) log(opened.notice);
//   model.take(std::move(opened.variables));
//   CommitResult result = opened.store->commit({{change}, {otherChange, thirdChange}});
//   if (result.status.ok()) answer(result.revisions);  // For instance 8, 9.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "configsrv/store/store_status.h"
#include "configsrv/store/stored_variable.h"
#include "configsrv/store/witness.h"

namespace ConfigSrv {

class FileSystem;
struct StoreFormats;
struct OpenedStore;

struct StoreOptions {
  std::string file;
  // The SQLite VFS that reads and writes the store's database files; empty for the default.
  std::string vfs{};
  // Who locks, renames and copies whole files; null for the system. Outlives the store.
  FileSystem* fileSystem = nullptr;
  // The size that the file may grow to; beyond it commits fail with kDiskFull.
  std::uint64_t maxBytes = std::uint64_t{64} << 20;
  // The log is copied into the file once it has this many pages, and never kept larger than these
  // and a few.
  static constexpr int kLogPages = 1000;
  int logPages = kLogPages;
  // The commit that finds the last snapshot, or the opening, this long ago takes one.
  std::chrono::steady_clock::duration snapshotEvery = std::chrono::hours(24);
  // Whether it keeps the records of changes. Those that a store has stay there when it does not.
  bool keepsRecords = false;
  // The formats that are known; null for those of this version. Outlives the store.
  const StoreFormats* formats = nullptr;
  // Told of every commit before it is made, and asked about what is found; null: nobody. Outlives
  // the store.
  Witness* witness = nullptr;
};

// What the store did since it was opened.
struct StoreCounters {
  // Times that something was committed to the disk, and what that wrote to the log, what was
  // reserved there included. Transactions that came together share one. What the log takes, the file
  // takes once more at most.
  std::uint64_t writes = 0;
  std::uint64_t bytes = 0;
  std::uint64_t snapshots = 0;
  std::uint64_t failedSnapshots = 0;
};

struct [[nodiscard]] CommitResult {
  StoreStatus status;
  // One for each transaction, in order; empty after a failure. An empty transaction gets the
  // revision before it and none of its own.
  std::vector<std::uint64_t> revisions;
};

class Store {
 public:
  // The damaged files that are kept, so that a failing disk does not fill itself with them.
  static constexpr int kMaxSetAside = 3;

  // Reads and checks the whole file. Fails with kInUse, kNewerFormat, kUnusable, kIo, or kDiskFull
  // (when a new file has to be begun and cannot be). A failure leaves the file as it was, except
  // that a damaged one may have been set aside already.
  static OpenedStore open(const StoreOptions& options);

  // Closes the file; commits are durable already, so nothing can fail here that matters.
  ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  // Made at random when the file is begun, and anew when a snapshot takes its place. Revisions
  // compare only under the same id: with another one they may have gone back. Never 0.
  std::uint64_t storeId() const;

  // The newest committed revision; 0 in an empty store.
  std::uint64_t revision() const;

  // What only this state of the store has.
  StoreMark mark() const;

  // Makes the transactions durable, all of them or none, by one write to the disk; none when they are
  // empty. Takes a snapshot as well when it is time for one. Fails with kDiskFull or kIo: nothing of
  // it is visible then, revision() is as before, and the store is usable again as soon as the disk
  // is. After a kIo, a loss of power before the next successful commit may bring the failed
  // transactions back, whole: the disk may have them despite its answer.
  CommitResult commit(const std::vector<StoreTransaction>& transactions);

  // Whether the next open() would take FILE.restore, and the revision that it has. Leaves that file
  // and the store as they are; neither needs to be closed. Fails with kUnusable when there is none,
  // or it is no good, kNewerFormat, kDiskFull or kIo.
  static StoreStatus checkRestore(const StoreOptions& options, std::uint64_t* revision);

  // Forgets the records of all revisions up to this one, as a part of the next commit.
  void forgetRecords(std::uint64_t upTo);
  // The same at once. Fails with kDiskFull or kIo; the next commit then tries again.
  StoreStatus forgetRecordsNow(std::uint64_t upTo);

  // Whether the log has reached its size, so that it should be copied into the file.
  bool isCheckpointDue() const;
  // Copies it. Takes milliseconds, for which no writer should wait; but the second commit that finds it
  // due does it first. No failure can matter: the log keeps what it has, and the next one tries again.
  void checkpoint();

  // Replaces FILE.snapshot by a copy of the store as it is now. A failure (kDiskFull, kIo) leaves
  // the previous snapshot in place. Takes time in proportion to the store's size.
  StoreStatus snapshot();

  // From any thread.
  StoreCounters counters() const;

  // The revisions made since the snapshot; all of them when there is none.
  std::uint64_t commitsSinceSnapshot() const;

 private:
  class Impl;
  explicit Store(std::unique_ptr<Impl> impl);

  std::unique_ptr<Impl> impl_;
};

struct [[nodiscard]] OpenedStore {
  StoreStatus status;
  std::unique_ptr<Store> store;           // Null unless status is ok.
  std::vector<StoredVariable> variables;  // In the order of std::less<ConfigVar>.
  std::vector<StoredRecord> records;      // In the order of their revisions.
  std::string notice;  // One line for the log when something had to be set aside, else empty.
};

}  // namespace ConfigSrv
