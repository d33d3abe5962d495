// A move is: finish the new file and sync it, rename it, sync the directory. Setting aside renames
// the main file before its companions, and makes that durable first: if power fails in between, the
// next start finds companions without a main file and sets those aside too, so a stranger's log is
// never replayed into a restored file, nor a file served without its log.
#include "configsrv/store/internal/store_files.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <functional>
#include <set>
#include <system_error>
#include <vector>

#include "configsrv/store/store.h"

namespace ConfigSrv {
namespace {

namespace fs = std::filesystem;

const char* const kDamaged = ".damaged-";
const char* const kReplaced = ".replaced-";
const char* const kCompanions[] = {"-wal", "-shm", "-journal"};

StoreStatus systemFailure(const std::string& doing, const std::string& path, int error) {
  StoreCode code = StoreCode::kUnusable;
  std::string advice = "check the path";
  if (error == ENOSPC || error == EDQUOT || error == EFBIG) {
    code = StoreCode::kDiskFull;
    advice = "free some space";
  } else if (error == EIO) {
    code = StoreCode::kIo;
    advice = "check the disk";
  } else if (error == EACCES || error == EPERM) {
    advice = "give the user of this process the right to write there";
  } else if (error == EROFS) {
    advice = "choose a path on a file system that is mounted for writing";
  }
  return {code, "cannot " + doing + " " + path + ": " + std::generic_category().message(error) +
                    "; " + advice};
}

std::string utcNow() {
  const std::time_t now = std::time(nullptr);
  std::tm parts{};
  ::gmtime_r(&now, &parts);
  std::array<char, 32> text{};
  const std::size_t size = std::strftime(text.data(), text.size(), "%Y%m%dT%H%M%SZ", &parts);
  return std::string(text.data(), size);
}

// The files of one name: the main file and its companions.
std::vector<std::string> family(const std::string& path) {
  std::vector<std::string> paths = {path};
  for (const char* companion : kCompanions) paths.push_back(path + companion);
  return paths;
}

bool startsWith(const std::string& text, const std::string& start) {
  return text.compare(0, start.size(), start) == 0;
}

// The main file's name for a companion's, any other as it is.
std::string stem(const std::string& path) {
  for (const std::string end : kCompanions) {
    if (path.size() > end.size() && path.compare(path.size() - end.size(), end.size(), end) == 0) {
      return path.substr(0, path.size() - end.size());
    }
  }
  return path;
}

}  // namespace

std::string StoreFiles::directory() const {
  const fs::path parent = fs::path(file_).parent_path();
  return parent.empty() ? "." : parent.string();
}

StoreStatus StoreFiles::makeDirectory() const {
  fs::path path;
  for (const fs::path& part : fs::path(directory())) {
    path /= part;
    const int error = system_->makeDirectory(path.string());
    if (error == 0) continue;
    // On a read-only file system even a directory that is there may answer EROFS.
    FileFacts facts;
    if (system_->facts(path.string(), &facts) != 0 || !facts.isDirectory) {
      return systemFailure("make the directory", path.string(), error == EEXIST ? ENOTDIR : error);
    }
  }
  return {};
}

// Whoever made them: it may have died before they were safe.
StoreStatus StoreFiles::syncDirectories() const {
  for (fs::path path = directory();; path = path.parent_path()) {
    const std::string name = path.empty() ? "." : path.string();
    const int error = system_->syncDirectory(name);
    // We made nothing in a directory that we may not read or that cannot be written.
    const bool isForeign = error == EACCES || error == EROFS || error == EINVAL;
    if (error != 0 && !isForeign) return systemFailure("sync", name, error);
    if (path.empty() || path == path.parent_path()) return {};
  }
}

StoreStatus StoreFiles::takeLock(FileLock* lock) const {
  const int error = system_->lock(lockFile(), lock);
  if (error == 0) return {};
  if (error != EWOULDBLOCK) return systemFailure("lock", lockFile(), error);
  return {StoreCode::kInUse, "the store " + file_ +
                                 " is in use by another service: end that one (fuser " +
                                 lockFile() + " names it), or give this one a file of its own"};
}

// Something else in place of a file is a mistake in the path, unless a store has been there.
StoreStatus StoreFiles::inspect(Presence* presence, std::string* blocked) const {
  FileFacts facts;
  const int error = system_->facts(file_, &facts);
  if (error != 0 && error != ENOENT) return systemFailure("open the store", file_, error);
  if (error == 0 && !facts.isRegular && !hasSnapshot()) {
    return {StoreCode::kUnusable,
            "cannot open the store " + file_ +
                ": it is not a regular file; give the store a path of its own"};
  }
  for (const std::string& path : {file_, logFile()}) {
    *blocked = whatBlocks(path);
    *presence = Presence::kBlocked;
    if (!blocked->empty()) return {};
  }
  if (facts.bytes == 0) {
    const bool leftOver = hasSnapshot() || hasContent(logFile());
    *presence = leftOver ? Presence::kMainGone : Presence::kNothing;
    return {};
  }
  *presence = Presence::kThere;
  const int refused = system_->probe(file_);
  return refused == 0 ? StoreStatus() : systemFailure("open the store", file_, refused);
}

// Only what renaming cures: a read-only file system, or a failing disk, is none of it.
std::string StoreFiles::whatBlocks(const std::string& path) const {
  FileFacts facts;
  if (system_->facts(path, &facts) != 0) return {};
  if (!facts.isRegular) return path + " is not a regular file";
  const int error = system_->probe(path);
  const bool isRefused = error == EACCES || error == EPERM;
  return isRefused ? path + ": " + std::generic_category().message(error) : std::string();
}

bool StoreFiles::hasContent(const std::string& path) const {
  FileFacts facts;
  return system_->facts(path, &facts) == 0 && facts.bytes > 0;
}

bool StoreFiles::exists(const std::string& path) const {
  FileFacts facts;
  return system_->facts(path, &facts) == 0;
}

bool StoreFiles::hasSnapshot() const { return hasContent(snapshotFile()); }
bool StoreFiles::hasRestore() const { return exists(restoreFile()); }
bool StoreFiles::hasFile() const { return hasContent(file_); }

StoreStatus StoreFiles::create(const std::string& path) const {
  discard(path);
  const int error = system_->create(path);
  return error == 0 ? syncDirectory() : systemFailure("create", path, error);
}

StoreStatus StoreFiles::setAside(const std::string& path, std::string* name) const {
  return setAsideAs(path, path + kDamaged, name);
}

StoreStatus StoreFiles::setReplacedAside(std::string* name) const {
  const bool wasThere = exists(file_);
  StoreStatus status = setAsideAs(file_, file_ + kReplaced, name);
  if (!wasThere) name->clear();
  return status;
}

StoreStatus StoreFiles::setAsideAs(const std::string& path, const std::string& start,
                                   std::string* name) const {
  *name = unusedAsideName(start);
  StoreStatus status = renameAside(path, *name);
  if (status.ok()) forgetOldest(start, *name);
  return status;
}

StoreStatus StoreFiles::renameAside(const std::string& path, const std::string& name) const {
  const std::vector<std::string> from = family(path);
  const std::vector<std::string> to = family(name);
  for (std::size_t i = 0; i < from.size(); ++i) {
    const int error = system_->rename(from[i], to[i]);
    if (error == ENOENT) continue;
    if (error != 0) return systemFailure("rename to " + to[i] + " the file", from[i], error);
    StoreStatus synced = syncDirectory();
    if (!synced.ok()) return synced;
  }
  return {};
}

std::string StoreFiles::unusedAsideName(const std::string& start) const {
  const std::string base = start + utcNow();
  std::string name = base;
  const auto taken = [this](const std::string& candidate) {
    const std::vector<std::string> paths = family(candidate);
    return std::any_of(paths.begin(), paths.end(),
                       [this](const std::string& part) { return exists(part); });
  };
  for (int i = 2; taken(name); ++i) name = base + "." + std::to_string(i);
  return name;
}

// A clock that starts anew with each boot misorders the names; the newest stays all the same.
void StoreFiles::forgetOldest(const std::string& start, const std::string& newest) const {
  std::vector<std::string> all;
  system_->list(directory(), &all);
  std::set<std::string, std::greater<>> names;
  for (const std::string& one : all) {
    const std::string name = (fs::path(start).parent_path() / one).string();
    if (startsWith(name, start)) names.insert(stem(name));
  }
  names.erase(newest);
  int kept = 1;
  for (const std::string& name : names) {
    if (++kept > Store::kMaxSetAside) discard(name);
  }
}

StoreStatus StoreFiles::copyLogAside(std::string* name) const {
  const std::string base = unusedAsideName(file_ + kDamaged);
  *name = base + "-wal";
  bool readable = true;
  StoreStatus status = create(*name);
  if (status.ok()) status = copy(logFile(), *name, &readable);
  if (status.ok()) forgetOldest(file_ + kDamaged, base);
  if (!status.ok()) system_->remove(*name);
  return status;
}

StoreStatus StoreFiles::makeCopy(const std::string& from, const std::string& to,
                                 bool* readable) const {
  StoreStatus created = create(to);
  return created.ok() ? copy(from, to, readable) : created;
}

StoreStatus StoreFiles::copy(const std::string& from, const std::string& to, bool* readable) const {
  constexpr std::size_t kPieceBytes = 65536;
  std::string bytes;
  for (std::uint64_t offset = 0;; offset += bytes.size()) {
    const int readError = system_->read(from, offset, kPieceBytes, &bytes);
    *readable = readError == 0;
    if (readError != 0) return systemFailure("read", from, readError);
    if (bytes.empty()) return {};
    const int writeError = system_->append(to, bytes);
    if (writeError != 0) return systemFailure("write", to, writeError);
  }
}

StoreStatus StoreFiles::install(const std::string& from, const std::string& to) const {
  const int syncError = system_->sync(from);
  if (syncError != 0) return systemFailure("sync", from, syncError);
  const int error = system_->rename(from, to);
  return error == 0 ? syncDirectory() : systemFailure("put in place", to, error);
}

void StoreFiles::discard(const std::string& path) const {
  for (const std::string& part : family(path)) system_->remove(part);
}

StoreStatus StoreFiles::forget(const std::string& path) const {
  for (const std::string& part : family(path)) {
    const int error = system_->remove(part);
    if (error != 0 && error != ENOENT) return systemFailure("remove", part, error);
  }
  return syncDirectory();
}

StoreStatus StoreFiles::syncLog() const {
  const int error = hasContent(logFile()) ? system_->sync(logFile()) : 0;
  return error == 0 ? syncDirectory() : systemFailure("sync", logFile(), error);
}

StoreStatus StoreFiles::syncDirectory() const {
  const int error = system_->syncDirectory(directory());
  return error == 0 ? StoreStatus() : systemFailure("sync", directory(), error);
}

}  // namespace ConfigSrv
