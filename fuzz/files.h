// A directory for what has to stand in files, made once for a process and emptied for each input.
#pragma once

#include <string>
#include <string_view>

#include "tests/support/temp_dir.h"

namespace Fuzz {

class Files {
 public:
  const std::string& directory() const { return directory_.path(); }
  std::string path(const std::string& name) const { return directory_.file(name); }
  void write(const std::string& name, std::string_view bytes) const;
  // Empty when there is none.
  std::string read(const std::string& name) const;
  void clear() const;

 private:
  TestSupport::TempDir directory_;
};

}  // namespace Fuzz
