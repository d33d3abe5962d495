// LastGood: the texts of the files that were good last, kept in a file of their own.
//
// A line that is wrong today must not take away what a device ran on yesterday. So what was good is
// kept beside the store, as text: it is read by the same rules as the files themselves, and mistakes
// keep their names and lines.
//
// Shape:    one file of mode 0600, replaced as a whole: whatever ends the process, the file holds the
//           old texts or the new ones. No texts at all are worth keeping, too: they say that there
//           was no file, and that this was good.
// Errors:   what cannot be read, is damaged, or could have been written by others is not used, and
//           the text says why.
// Threads:  one at a time.
//
//   const LastGood kept("/var/lib/appconfig/store.db.definitions");
//   Base::Status<> done = kept.keep(files);
//   const LastGood::Kept before = kept.read();
//   if (before.isThere) use(before.files);
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "base/status.h"
#include "configsrv/toml/document.h"

namespace ConfigSrv {

class LastGood {
 public:
  explicit LastGood(std::string file) : file_(std::move(file)) {}

  struct Kept {
    bool isThere = false;
    std::vector<TextFile> files{};
    // Why what is there is not used; empty also when nothing was ever kept.
    std::string why{};
  };
  Kept read() const;

  // Keeps these instead, unless they are what is kept. After a failure the former ones are still there.
  Base::Status<> keep(const std::vector<TextFile>& files) const;

  const std::string& file() const { return file_; }

 private:
  Base::Status<> replace(const std::string& bytes) const;

  const std::string file_;
};

}  // namespace ConfigSrv
