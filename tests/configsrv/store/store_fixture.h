// StoreFixture: a directory of its own for each case, and short words for what is done to a store.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "configsrv/store/store.h"

namespace ConfigSrv {

inline ConfigVar keyOf(const std::string& name) { return ConfigVar("test", 0, name, 0); }

inline StoreChange setting(const std::string& name, const std::string& value) {
  return {keyOf(name), StoreChange::SetValue{{value}}};
}

inline std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

inline void writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  ASSERT_TRUE(out.good()) << path;
}

inline mode_t modeOf(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 0777U : 0;
}

// The statement must work on the file, without the store's help.
inline void runSql(const std::string& file, const std::string& sql) {
  sqlite3* database = nullptr;
  ASSERT_EQ(sqlite3_open(file.c_str(), &database), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(database, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
      << sqlite3_errmsg(database);
  sqlite3_close(database);
}

// The value of the one-element variable, or "-" when it has its default or no record.
inline std::string valueIn(const std::vector<StoredVariable>& variables, const std::string& name) {
  for (const StoredVariable& variable : variables) {
    if (variable.key.name() == name && variable.value) return variable.value->front();
  }
  return "-";
}

// No file of this process can grow beyond the limit meanwhile: what a full disk looks like to a
// program, on any file system.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(std::uintmax_t bytes) {
    oldHandler_ = std::signal(SIGXFSZ, SIG_IGN);
    ::getrlimit(RLIMIT_FSIZE, &old_);
    rlimit limit = old_;
    limit.rlim_cur = static_cast<rlim_t>(bytes);
    ::setrlimit(RLIMIT_FSIZE, &limit);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;
  ~FileSizeLimit() {
    ::setrlimit(RLIMIT_FSIZE, &old_);
    std::signal(SIGXFSZ, oldHandler_);
  }

 private:
  rlimit old_{};
  void (*oldHandler_)(int) = nullptr;
};

class TempDirectory {
 public:
  explicit TempDirectory(const std::string& parent) : path_(parent + "/storeXXXXXX") {
    // testing::TempDir() ends with a slash; a path is reported without a double one.
    path_ = std::filesystem::path(path_).lexically_normal().string();
    EXPECT_NE(::mkdtemp(path_.data()), nullptr) << path_;
  }
  TempDirectory(const TempDirectory&) = delete;
  TempDirectory& operator=(const TempDirectory&) = delete;
  ~TempDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

class StoreFixture : public testing::Test {
 protected:
  StoreFixture() : StoreFixture(testing::TempDir()) {}
  explicit StoreFixture(const std::string& parent)
      : directory_(parent), file_(directory_.path() + "/store.db") {}

  // Replaces the store that was open, after closing it.
  Store& open() {
    close();
    opened_ = Store::open({file_});
    EXPECT_TRUE(opened_.status.ok()) << opened_.status.text;
    if (!opened_.store) abort();
    return *opened_.store;
  }
  void close() { opened_ = OpenedStore(); }

  Store& store() { return *opened_.store; }
  const std::string& notice() const { return opened_.notice; }
  const std::vector<StoredVariable>& variables() const { return opened_.variables; }
  // As found at the last open().
  std::string value(const std::string& name) const { return valueIn(variables(), name); }

  std::uint64_t commit(const StoreTransaction& transaction) {
    const CommitResult result = store().commit({transaction});
    EXPECT_TRUE(result.status.ok()) << result.status.text;
    return result.status.ok() ? result.revisions.front() : 0;
  }
  std::uint64_t set(const std::string& name, const std::string& value) {
    return commit({setting(name, value)});
  }

  // Names of the files whose name holds the text, companions included.
  std::vector<std::string> filesNamed(const std::string& text) const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory_.path())) {
      const std::string name = entry.path().filename().string();
      if (name.find(text) != std::string::npos) names.push_back(name);
    }
    return names;
  }

  TempDirectory directory_;
  std::string file_;
  OpenedStore opened_;
};

}  // namespace ConfigSrv
