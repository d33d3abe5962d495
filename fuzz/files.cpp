#include "fuzz/files.h"

#include <filesystem>
#include <fstream>
#include <sstream>

#include "fuzz/input.h"

namespace Fuzz {

void Files::write(const std::string& name, std::string_view bytes) const {
  std::ofstream file(path(name), std::ios::binary | std::ios::trunc);
  file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  file.close();
  require(file.good(), "a file can be written", path(name));
}

std::string Files::read(const std::string& name) const {
  std::ifstream file(path(name), std::ios::binary);
  std::ostringstream bytes;
  bytes << file.rdbuf();
  return bytes.str();
}

void Files::clear() const {
  for (const auto& entry : std::filesystem::directory_iterator(directory())) {
    std::filesystem::remove_all(entry.path());
  }
}

}  // namespace Fuzz
