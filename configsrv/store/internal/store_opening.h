// StoreOpening: the way from a path to an open, checked database, past whatever is found there.
//
// Errors:  run() fails only with what setting aside and beginning anew cannot cure.
// Threads: one; made, run and emptied by Store::open.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "configsrv/store/internal/database.h"
#include "configsrv/store/internal/store_contents.h"
#include "configsrv/store/internal/store_files.h"
#include "configsrv/store/internal/store_restore.h"
#include "configsrv/store/store.h"

namespace ConfigSrv {

class StoreOpening {
 public:
  explicit StoreOpening(const StoreOptions& options)
      : options_(options), files_(options.file, fileSystemOf(options)) {}

  StoreStatus run();

  const std::string& notice() const { return notice_; }
  const StoreFiles& files() const { return files_; }
  // After a run() that was ok.
  StoreContents& contents() { return contents_; }
  FileLock takeLock() { return std::move(lock_); }
  Database takeDatabase() { return std::move(*database_); }
  std::uint64_t snapshotRevision() const;

 private:
  static FileSystem& fileSystemOf(const StoreOptions& options) {
    return options.fileSystem != nullptr ? *options.fileSystem : posixFileSystem();
  }
  const StoreFormats& formats() const { return formatsOf(options_); }
  // What is there: nothing, a store, or something to recover from.
  StoreStatus open();
  void say(const std::string& what);
  StoreStatus beginEmpty();
  StoreStatus makeEmpty();
  StoreStatus load();
  StoreStatus keepWhatWasRead();
  bool isBehindSnapshot();
  StoreStatus goOnWithoutLostCommits();
  StoreStatus holdAgainstWitness();
  StoreContents openAndRead();
  bool useLog();

  StoreStatus recover(const std::string& whatIsWrong);
  StoreStatus replaceDamaged();
  // False when there is no snapshot, or none that is good.
  StoreStatus restoreSnapshot(bool* restored);

  const StoreOptions options_;
  const StoreFiles files_;
  FileLock lock_;
  std::optional<Database> database_;
  StoreContents contents_;
  std::string notice_;
  bool recovering_ = false;
  bool commitsAreLost_ = false;
};

}  // namespace ConfigSrv
