// NewFile: a file that gets its name with its contents: whole and on the disk, or not at all.
//
//   NewFile file("/backup/store.db", NewFile::Existing::Keep);
//   Outcome outcome = file.open();
//   if (outcome.ok()) outcome = file.take(from);
//   if (outcome.ok()) outcome = file.finish();
//
// Shape:    made with mode 0600. What has the name already is kept, which makes open() fail, or
//           replaced by finish().
// Failures: every Outcome names the path, the system's reason and what to do. What was not finished
//           is removed with the object.
// Threads:  one.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "base/unique_fd.h"
#include "tools/appcfg/outcome.h"

namespace AppCfgTool {

class NewFile {
 public:
  enum class Existing { Keep, Replace };

  NewFile(std::string path, Existing existing);
  ~NewFile();
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  Outcome open();
  // All bytes of another file, from its beginning. The descriptor stays the caller's.
  Outcome take(int from, const std::string& fromPath);
  // Gives it to another user, which only root can; does nothing for anybody else.
  Outcome giveTo(uid_t uid, gid_t gid);
  Outcome finish();

  std::uint64_t bytes() const { return bytes_; }

 private:
  Outcome write(const char* bytes, std::size_t size);

  const std::string path_;
  // What is written; another than path_ when that one is to be replaced.
  const std::string written_;
  Base::UniqueFd fd_;
  std::uint64_t bytes_ = 0;
};

// "cannot DO PATH: REASON", with the code and the advice that fit the reason.
Outcome fileFailure(const std::string& doing, const std::string& path, int error);

}  // namespace AppCfgTool
