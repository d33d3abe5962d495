// FaultyDisk: a disk in memory that forgets what was not synced, and fails when it is told to.
//
// It is an SQLite VFS and the store's FileSystem in one. Of every file it knows what a process sees
// and what the disk has for certain; of every directory, which names are certain to be there. A
// step is what changes either: a write, a truncation, a sync, a name made, moved or removed, a
// directory's sync. Faults are given by the number of the step.
//
// Torn writes go by sectors of 512 bytes: each is written whole or not at all, and neighbours of a
// written part are not harmed, which is what SQLite takes for granted on Linux.
//
//   FaultyDisk disk;
//   disk.cutAt(17);
//   { OpenedStore opened = Store::open(disk.options()); ... }  // everything fails from step 17 on
//   disk.restart(FaultyDisk::Survivors::kTorn, 1);             // and works again
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "configsrv/store/internal/file_system.h"
#include "configsrv/store/store.h"

namespace ConfigSrv {

class FaultyDisk final : public FileSystem {
 public:
  // What of the unsynced is there after a loss of power.
  enum class Survivors {
    kNothing,     // only what was synced
    kEverything,  // the disk was quick
    kNames,       // names were journaled, bytes were not written
    kBytes,       // the other way round
    kTorn,        // of each sector and name, chance decides
  };
  enum class Step { kWrite, kTruncate, kSync, kCreate, kRename, kRemove, kSyncDirectory, kRead };
  static constexpr int kStepKinds = 8;

  // One write or truncation that is not on the disk yet.
  struct Change {
    bool truncates = false;
    std::uint64_t offset = 0;
    std::string bytes;
  };
  struct Node {
    std::string seen;
    std::string certain;
    std::vector<Change> changes;
  };
  // A name that came, went or moved in one directory.
  struct NameChange {
    std::string directory;
    std::string gone;
    std::string come;
    int node = 0;
  };
  // All that a disk remembers; a plain value.
  struct Contents {
    std::map<int, Node> nodes;
    std::map<std::string, int> seen = {{"/", kDirectory}};
    std::map<std::string, int> certain = seen;
    std::vector<NameChange> changes;
    int nextNode = 1;
  };

  FaultyDisk();
  ~FaultyDisk() override;
  FaultyDisk(const FaultyDisk&) = delete;
  FaultyDisk& operator=(const FaultyDisk&) = delete;

  // A store on this disk, in a directory that is not there yet.
  StoreOptions options() const;

  // Steps are counted from 1, from here on.
  void cutAt(long step);
  // Step `first` fails with an errno, and those after it until repair() if `lasting`. A write that
  // finds no space writes half.
  void failAt(long first, bool lasting, int error);
  // The same for reads, which are counted apart.
  void failReadAt(long first, bool lasting);
  // After a failed sync the system takes the pages for written, and never tries them again.
  void forgetAfterFailedSync(bool forget) { forgetsAfterFailedSync_ = forget; }
  // No faults any more. Whether there was one.
  bool repair();

  // Power comes back, on what survived.
  void restart(Survivors survivors, std::uint32_t seed);
  // The process that used the disk died, and the system went on.
  void restartProcess();

  long steps() const { return steps_; }
  long reads() const { return reads_; }
  bool isCut() const { return dead_; }
  long count(Step step) const { return counts_[static_cast<int>(step)]; }

  const Contents& contents() const { return contents_; }
  void restore(Contents contents);
  bool has(const std::string& path) const { return contents_.seen.count(path) != 0; }
  std::string bytesOf(const std::string& path) const;
  // Puts a file there, synced, without a step.
  void place(const std::string& path, const std::string& bytes);
  std::vector<std::string> names() const;

  // FileSystem
  int facts(const std::string& path, FileFacts* facts) override;
  int makeDirectory(const std::string& path) override;
  int list(const std::string& directory, std::vector<std::string>* names) override;
  int lock(const std::string& path, FileLock* lock) override;
  int probe(const std::string& path) override;
  int create(const std::string& path) override;
  int remove(const std::string& path) override;
  int rename(const std::string& from, const std::string& to) override;
  int read(const std::string& path, std::uint64_t offset, std::size_t size,
           std::string* bytes) override;
  int append(const std::string& path, const std::string& bytes) override;
  int sync(const std::string& path) override;
  int syncDirectory(const std::string& path) override;

  // By node, for SQLite's open files.
  int find(const std::string& path) const;
  int addNameless();
  int readNode(int node, std::uint64_t offset, std::size_t size, std::string* bytes);
  int writeNode(int node, std::uint64_t offset, const std::string& bytes);
  int truncateNode(int node, std::uint64_t size);
  int syncNode(int node);
  std::uint64_t sizeOf(int node) const;
  int lastError() const { return lastError_; }

 private:
  static constexpr int kDirectory = -1;
  // A step in which the power fails: it may have reached the disk, and its caller never knows.
  static constexpr int kLastStep = -1;

  int take(Step step);
  int fail(int error);
  int answer(int error);
  int addName(const std::string& path, int node);
  void changeName(const NameChange& change);
  void registerVfs();

  Contents contents_;
  std::string vfsName_;
  sqlite3_vfs vfs_{};
  long steps_ = 0;
  long reads_ = 0;
  long counts_[kStepKinds] = {};
  long cutAt_ = 0;
  long failAt_ = 0;
  long failReadAt_ = 0;
  bool lasting_ = false;
  bool failed_ = false;
  bool forgetsAfterFailedSync_ = false;
  bool dead_ = false;
  int error_ = 0;
  int lastError_ = 0;
};

}  // namespace ConfigSrv
