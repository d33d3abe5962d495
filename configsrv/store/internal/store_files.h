// store_files: the store's files as files: who holds them, what they are called, and the moves
// that survive a loss of power half-way.
//
// Errors:  StoreStatus, with the path, the system's reason and what to do.
// Threads: one at a time; the lock keeps every other process and every other Store away.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "configsrv/store/internal/file_system.h"
#include "configsrv/store/store_status.h"

namespace ConfigSrv {

class StoreFiles {
 public:
  enum class Presence {
    kNothing,   // A new store: no file, or an empty one with nothing beside it.
    kMainGone,  // No file, or an empty one, but a log or a snapshot that belonged to one.
    kBlocked,   // Something that is no file, or may not be read, stands where the store was.
    kThere,     // A regular file that can be read and written.
  };

  // The file system has to outlive this.
  StoreFiles(std::string file, FileSystem& system) : file_(std::move(file)), system_(&system) {}

  const std::string& file() const { return file_; }
  FileSystem& system() const { return *system_; }
  std::string logFile() const { return file_ + "-wal"; }
  std::string lockFile() const { return file_ + ".lock"; }
  std::string snapshotFile() const { return file_ + ".snapshot"; }
  // Half-made files; what is found under these names is left from an interrupted attempt.
  std::string newSnapshotFile() const { return file_ + ".snapshot.new"; }
  std::string newFile() const { return file_ + ".new"; }
  // A copy that is to take the file's place.
  std::string restoreFile() const { return file_ + ".restore"; }

  StoreStatus makeDirectory() const;
  // The directory and those above it: without them the file is lost with the power.
  StoreStatus syncDirectories() const;
  StoreStatus takeLock(FileLock* lock) const;
  // Sets `blocked` to what is wrong when something blocks the way.
  StoreStatus inspect(Presence* presence, std::string* blocked) const;
  bool hasSnapshot() const;
  bool hasRestore() const;
  bool hasFile() const;

  // An empty file of mode 0600 in place of whatever has that name.
  StoreStatus create(const std::string& path) const;

  // Renames a damaged file and its companions to `name`, which says when, and forgets the oldest of
  // those set aside before. The path is file(), snapshotFile() or restoreFile().
  StoreStatus setAside(const std::string& path, std::string* name) const;
  // The same for a file() that another is to replace; no name when there is none.
  StoreStatus setReplacedAside(std::string* name) const;

  // Keeps a copy of the log under a name like those of setAside, and leaves it in place.
  StoreStatus copyLogAside(std::string* name) const;

  // A new file `to` with the contents of the other; `readable` is false when the failure is that
  // one's.
  StoreStatus makeCopy(const std::string& from, const std::string& to, bool* readable) const;

  // Makes the finished file `from` durable under the name `to`, replacing what is there.
  StoreStatus install(const std::string& from, const std::string& to) const;

  void discard(const std::string& path) const;
  // The same, durably.
  StoreStatus forget(const std::string& path) const;

  // The log and its name, and the file's own.
  StoreStatus syncLog() const;

 private:
  std::string directory() const;
  StoreStatus syncDirectory() const;
  StoreStatus renameAside(const std::string& path, const std::string& name) const;
  // What is set aside has a name that begins with `start`: "FILE.damaged-".
  StoreStatus setAsideAs(const std::string& path, const std::string& start,
                         std::string* name) const;
  std::string unusedAsideName(const std::string& start) const;
  void forgetOldest(const std::string& start, const std::string& newest) const;

  StoreStatus copy(const std::string& from, const std::string& to, bool* readable) const;
  std::string whatBlocks(const std::string& path) const;
  bool hasContent(const std::string& path) const;
  bool exists(const std::string& path) const;

  std::string file_;
  FileSystem* system_;
};

}  // namespace ConfigSrv
