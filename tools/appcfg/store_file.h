// StoreFile: a file that is to be a copy of a store, opened for reading.
//
// Failures: open() refuses what cannot be one: what is no regular file, is empty, is no store, or
//           has commits beside it that a copy of it would lack. The service checks what is in it.
// Threads:  one.
#pragma once

#include <string>
#include <utility>

#include "base/unique_fd.h"
#include "tools/appcfg/outcome.h"

namespace AppCfgTool {

class StoreFile {
 public:
  explicit StoreFile(std::string path) : path_(std::move(path)) {}
  StoreFile(const StoreFile&) = delete;
  StoreFile& operator=(const StoreFile&) = delete;

  Outcome open();
  int fd() const { return fd_.get(); }
  const std::string& path() const { return path_; }

 private:
  const std::string path_;
  Base::UniqueFd fd_;
};

}  // namespace AppCfgTool
