#include "tests/support/temp_dir.h"

#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace TestSupport {

TempDir::TempDir() {
  // Short, for a Unix socket's path has 107 bytes.
  std::string pattern = (std::filesystem::temp_directory_path() / "acfg-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) std::abort();
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

}  // namespace TestSupport
