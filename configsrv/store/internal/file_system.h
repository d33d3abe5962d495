// FileSystem: what the store does with whole files, one virtual function for each call that the
// system can fail, or be cut off in. SQLite's own reads and writes go through its VFS; a test that
// takes the power away replaces both.
//
// Errors:  every function returns 0 or the errno of what went wrong.
// Threads: one at a time for each store; several stores share posixFileSystem().
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "base/unique_fd.h"

namespace ConfigSrv {

// Holds an advisory lock until destruction. The lock file itself stays: removing it would let two
// processes lock two files of the same name.
class FileLock {
 public:
  FileLock() = default;
  explicit FileLock(Base::UniqueFd fd) : fd_(std::move(fd)) {}

 private:
  Base::UniqueFd fd_;
};

struct FileFacts {
  bool isRegular = false;
  bool isDirectory = false;
  std::uint64_t bytes = 0;
};

class FileSystem {
 public:
  virtual ~FileSystem() = default;

  virtual int facts(const std::string& path, FileFacts* facts) = 0;
  // Mode 0700; EEXIST when something has that name.
  virtual int makeDirectory(const std::string& path) = 0;
  virtual int list(const std::string& directory, std::vector<std::string>* names) = 0;

  // EWOULDBLOCK when another process, or another store of this one, holds it.
  virtual int lock(const std::string& path, FileLock* lock) = 0;
  // Whether the file can be opened for reading and writing.
  virtual int probe(const std::string& path) = 0;

  // A new, empty file of mode 0600; EEXIST when something has that name.
  virtual int create(const std::string& path) = 0;
  virtual int remove(const std::string& path) = 0;
  virtual int rename(const std::string& from, const std::string& to) = 0;
  // Fewer bytes than asked for at the end of the file.
  virtual int read(const std::string& path, std::uint64_t offset, std::size_t size,
                   std::string* bytes) = 0;
  virtual int append(const std::string& path, const std::string& bytes) = 0;

  // What was written to the file, and which names a directory has, survive a loss of power from
  // here on, and not before.
  virtual int sync(const std::string& path) = 0;
  virtual int syncDirectory(const std::string& path) = 0;
};

FileSystem& posixFileSystem();

}  // namespace ConfigSrv
