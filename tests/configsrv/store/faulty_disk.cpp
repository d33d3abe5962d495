#include "tests/configsrv/store/faulty_disk.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <iterator>
#include <new>
#include <set>
#include <utility>

namespace ConfigSrv {
namespace {

constexpr std::size_t kSectorBytes = 512;

std::string directoryOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == 0 ? "/" : path.substr(0, slash);
}

void applyTo(const FaultyDisk::Change& change, std::string* bytes) {
  if (change.truncates) {
    bytes->resize(static_cast<std::size_t>(change.offset), '\0');
    return;
  }
  const auto offset = static_cast<std::size_t>(change.offset);
  bytes->resize(std::max(bytes->size(), offset + change.bytes.size()), '\0');
  std::copy(change.bytes.begin(), change.bytes.end(),
            bytes->begin() + static_cast<std::ptrdiff_t>(offset));
}

std::vector<FaultyDisk::Change> bySector(const FaultyDisk::Change& change) {
  if (change.truncates) return {change};
  std::vector<FaultyDisk::Change> parts;
  for (std::size_t done = 0; done < change.bytes.size();) {
    const auto offset = static_cast<std::size_t>(change.offset) + done;
    const std::size_t size =
        std::min(kSectorBytes - offset % kSectorBytes, change.bytes.size() - done);
    parts.push_back({false, offset, change.bytes.substr(done, size)});
    done += size;
  }
  return parts;
}

void applyTo(const FaultyDisk::NameChange& change, std::map<std::string, int>* names) {
  if (!change.gone.empty()) names->erase(change.gone);
  if (!change.come.empty()) (*names)[change.come] = change.node;
}

void dropNameless(FaultyDisk::Contents* contents) {
  std::set<int> named;
  for (const auto& [name, node] : contents->seen) named.insert(node);
  for (auto node = contents->nodes.begin(); node != contents->nodes.end();) {
    node = named.count(node->first) != 0 ? std::next(node) : contents->nodes.erase(node);
  }
}

// --- SQLite's side ---

struct OpenFile : sqlite3_file {
  FaultyDisk* disk;
  int node;
  // Set while the directory does not know the new file for certain: SQLite's own VFS for Unix syncs
  // it with the first sync of a log or journal that it made.
  bool directoryToSync;
  char directory[256];
};

OpenFile* opened(sqlite3_file* file) { return static_cast<OpenFile*>(file); }

int closeFile(sqlite3_file*) { return SQLITE_OK; }

int readBytes(sqlite3_file* file, void* to, int size, sqlite3_int64 offset) {
  std::string bytes;
  const auto wanted = static_cast<std::size_t>(size);
  if (opened(file)->disk->readNode(opened(file)->node, static_cast<std::uint64_t>(offset), wanted,
                                   &bytes) != 0) {
    return SQLITE_IOERR_READ;
  }
  std::memset(to, 0, wanted);
  std::memcpy(to, bytes.data(), bytes.size());
  return bytes.size() == wanted ? SQLITE_OK : SQLITE_IOERR_SHORT_READ;
}

int writeBytes(sqlite3_file* file, const void* from, int size, sqlite3_int64 offset) {
  const std::string bytes(static_cast<const char*>(from), static_cast<std::size_t>(size));
  const int error =
      opened(file)->disk->writeNode(opened(file)->node, static_cast<std::uint64_t>(offset), bytes);
  if (error == ENOSPC) return SQLITE_FULL;
  return error == 0 ? SQLITE_OK : SQLITE_IOERR_WRITE;
}

int truncateFile(sqlite3_file* file, sqlite3_int64 size) {
  return opened(file)->disk->truncateNode(opened(file)->node, static_cast<std::uint64_t>(size)) == 0
             ? SQLITE_OK
             : SQLITE_IOERR_TRUNCATE;
}

int syncFile(sqlite3_file* file, int) {
  OpenFile* const self = opened(file);
  if (self->disk->syncNode(self->node) != 0) return SQLITE_IOERR_FSYNC;
  // As SQLite's own: a directory that cannot be synced is no failure of the file.
  if (std::exchange(self->directoryToSync, false)) self->disk->syncDirectory(self->directory);
  return SQLITE_OK;
}

int fileSize(sqlite3_file* file, sqlite3_int64* size) {
  *size = static_cast<sqlite3_int64>(opened(file)->disk->sizeOf(opened(file)->node));
  return SQLITE_OK;
}

int lockFile(sqlite3_file*, int) { return SQLITE_OK; }

int checkReservedLock(sqlite3_file*, int* reserved) {
  *reserved = 0;
  return SQLITE_OK;
}

int controlFile(sqlite3_file* file, int operation, void* argument) {
  if (operation != SQLITE_FCNTL_LAST_ERRNO) return SQLITE_NOTFOUND;
  *static_cast<int*>(argument) = opened(file)->disk->lastError();
  return SQLITE_OK;
}

int sectorSize(sqlite3_file*) { return 4096; }
int characteristics(sqlite3_file*) { return SQLITE_IOCAP_POWERSAFE_OVERWRITE; }

const sqlite3_io_methods kMethods = {
    1,        closeFile, readBytes,         writeBytes,  truncateFile, syncFile,        fileSize,
    lockFile, lockFile,  checkReservedLock, controlFile, sectorSize,   characteristics, nullptr,
    nullptr,  nullptr,   nullptr,           nullptr,     nullptr};

FaultyDisk& diskOf(sqlite3_vfs* vfs) { return *static_cast<FaultyDisk*>(vfs->pAppData); }

int nodeToOpen(FaultyDisk& disk, const char* name, int flags, bool* made) {
  if (name == nullptr) return disk.addNameless();
  const int node = disk.find(name);
  if (node != 0 || (flags & SQLITE_OPEN_CREATE) == 0) return node;
  *made = disk.create(name) == 0;
  return *made ? disk.find(name) : 0;
}

int openFile(sqlite3_vfs* vfs, const char* name, sqlite3_file* file, int flags, int* outFlags) {
  file->pMethods = nullptr;
  bool made = false;
  const int node = diskOf(vfs).isCut() ? 0 : nodeToOpen(diskOf(vfs), name, flags, &made);
  if (node == 0) return SQLITE_CANTOPEN;
  OpenFile* const self = new (file) OpenFile;
  self->pMethods = &kMethods;
  self->disk = &diskOf(vfs);
  self->node = node;
  constexpr int kSynced = SQLITE_OPEN_WAL | SQLITE_OPEN_MAIN_JOURNAL | SQLITE_OPEN_SUPER_JOURNAL;
  self->directoryToSync = made && (flags & kSynced) != 0;
  self->directory[0] = '\0';
  if (name != nullptr) {
    const std::string directory = directoryOf(name);
    directory.copy(self->directory, sizeof self->directory - 1);
    self->directory[std::min(directory.size(), sizeof self->directory - 1)] = '\0';
  }
  if (outFlags != nullptr) *outFlags = flags;
  return SQLITE_OK;
}

int removeFile(sqlite3_vfs* vfs, const char* name, int syncDirectory) {
  const int error = diskOf(vfs).remove(name);
  if (error == ENOENT) return SQLITE_IOERR_DELETE_NOENT;
  if (error != 0) return SQLITE_IOERR_DELETE;
  if (syncDirectory != 0 && diskOf(vfs).syncDirectory(directoryOf(name)) != 0) {
    return SQLITE_IOERR_DIR_FSYNC;
  }
  return SQLITE_OK;
}

int hasAccess(sqlite3_vfs* vfs, const char* name, int flags, int* yes) {
  const int node = diskOf(vfs).find(name);
  *yes = node != 0 && (flags != SQLITE_ACCESS_EXISTS || diskOf(vfs).sizeOf(node) > 0);
  return SQLITE_OK;
}

int fullPath(sqlite3_vfs*, const char* name, int size, char* path) {
  sqlite3_snprintf(size, path, "%s", name);
  return SQLITE_OK;
}

int lastErrorOf(sqlite3_vfs* vfs, int, char*) { return diskOf(vfs).lastError(); }

}  // namespace

FaultyDisk::FaultyDisk() {
  static std::atomic<int> number{0};
  vfsName_ = "faulty-disk-" + std::to_string(++number);
  registerVfs();
}

FaultyDisk::~FaultyDisk() { sqlite3_vfs_unregister(&vfs_); }

void FaultyDisk::registerVfs() {
  // Chance and time are the system's.
  const sqlite3_vfs* const system = sqlite3_vfs_find(nullptr);
  vfs_.iVersion = 2;
  vfs_.szOsFile = sizeof(OpenFile);
  vfs_.mxPathname = 255;
  vfs_.zName = vfsName_.c_str();
  vfs_.pAppData = this;
  vfs_.xOpen = openFile;
  vfs_.xDelete = removeFile;
  vfs_.xAccess = hasAccess;
  vfs_.xFullPathname = fullPath;
  vfs_.xRandomness = system->xRandomness;
  vfs_.xSleep = system->xSleep;
  vfs_.xCurrentTime = system->xCurrentTime;
  vfs_.xCurrentTimeInt64 = system->xCurrentTimeInt64;
  vfs_.xGetLastError = lastErrorOf;
  sqlite3_vfs_register(&vfs_, 0);
}

StoreOptions FaultyDisk::options() const {
  StoreOptions options;
  options.file = "/var/appconfig/store.db";
  options.vfs = vfsName_;
  options.fileSystem = const_cast<FaultyDisk*>(this);
  return options;
}

void FaultyDisk::cutAt(long step) {
  steps_ = 0;
  cutAt_ = step;
}

void FaultyDisk::failAt(long first, bool lasting, int error) {
  steps_ = 0;
  failAt_ = first;
  lasting_ = lasting;
  error_ = error;
}

void FaultyDisk::failReadAt(long first, bool lasting) {
  reads_ = 0;
  failReadAt_ = first;
  lasting_ = lasting;
}

bool FaultyDisk::repair() {
  failAt_ = failReadAt_ = 0;
  return std::exchange(failed_, false);
}

void FaultyDisk::restore(Contents contents) {
  contents_ = std::move(contents);
  dead_ = failed_ = false;
  cutAt_ = failAt_ = failReadAt_ = steps_ = reads_ = 0;
}

void FaultyDisk::restartProcess() { restore(std::move(contents_)); }

void FaultyDisk::restart(Survivors survivors, std::uint32_t seed) {
  std::minstd_rand random(seed);
  const auto survives = [&](bool isName) {
    if (survivors == Survivors::kTorn) return random() % 2 == 0;
    return survivors == Survivors::kEverything ||
           survivors == (isName ? Survivors::kNames : Survivors::kBytes);
  };
  Contents after = std::move(contents_);
  for (auto& [number, node] : after.nodes) {
    for (const Change& change : node.changes) {
      for (const Change& part : bySector(change)) {
        if (survives(false)) applyTo(part, &node.certain);
      }
    }
    node.changes.clear();
    node.seen = node.certain;
  }
  for (const NameChange& change : after.changes) {
    if (survives(true)) applyTo(change, &after.certain);
  }
  after.changes.clear();
  // In the order of names a directory stands before what is in it.
  for (auto name = after.certain.begin(); name != after.certain.end();) {
    const bool reachable = name->first == "/" || after.certain.count(directoryOf(name->first)) != 0;
    name = reachable ? std::next(name) : after.certain.erase(name);
  }
  after.seen = after.certain;
  dropNameless(&after);
  restore(std::move(after));
}

int FaultyDisk::fail(int error) {
  lastError_ = error;
  return error;
}

int FaultyDisk::answer(int error) { return error == kLastStep ? fail(EIO) : error; }

int FaultyDisk::take(Step step) {
  if (dead_) return fail(EIO);
  ++counts_[static_cast<int>(step)];
  const bool reads = step == Step::kRead;
  const long number = reads ? ++reads_ : ++steps_;
  if (!reads && number == cutAt_) {
    dead_ = true;
    return kLastStep;
  }
  const long first = reads ? failReadAt_ : failAt_;
  if (first == 0 || number < first || (!lasting_ && number > first)) return 0;
  const int error = reads ? EIO : error_;
  const bool needsSpace = step == Step::kWrite || step == Step::kCreate;
  if (error == ENOSPC && !needsSpace) return 0;
  failed_ = true;
  return fail(error);
}

std::string FaultyDisk::bytesOf(const std::string& path) const {
  const int node = find(path);
  return node > 0 ? contents_.nodes.at(node).seen : std::string();
}

void FaultyDisk::place(const std::string& path, const std::string& bytes) {
  int node = find(path);
  if (node == 0) node = contents_.nextNode++;
  contents_.nodes[node] = {bytes, bytes, {}};
  contents_.seen[path] = contents_.certain[path] = node;
}

std::vector<std::string> FaultyDisk::names() const {
  std::vector<std::string> names;
  for (const auto& [name, node] : contents_.seen) names.push_back(name);
  return names;
}

int FaultyDisk::find(const std::string& path) const {
  const auto found = contents_.seen.find(path);
  return found == contents_.seen.end() ? 0 : found->second;
}

int FaultyDisk::addNameless() {
  const int node = contents_.nextNode++;
  contents_.nodes[node] = {};
  return node;
}

std::uint64_t FaultyDisk::sizeOf(int node) const {
  const auto found = contents_.nodes.find(node);
  return found == contents_.nodes.end() ? 0 : found->second.seen.size();
}

void FaultyDisk::changeName(const NameChange& change) {
  applyTo(change, &contents_.seen);
  contents_.changes.push_back(change);
}

int FaultyDisk::addName(const std::string& path, int node) {
  changeName({directoryOf(path), "", path, node});
  return 0;
}

int FaultyDisk::facts(const std::string& path, FileFacts* facts) {
  if (dead_) return fail(EIO);
  const int node = find(path);
  if (node == 0) return fail(ENOENT);
  facts->isDirectory = node == kDirectory;
  facts->isRegular = node > 0;
  facts->bytes = sizeOf(node);
  return 0;
}

int FaultyDisk::makeDirectory(const std::string& path) {
  if (dead_) return fail(EIO);
  if (has(path)) return fail(EEXIST);
  const int error = take(Step::kCreate);
  if (error == 0 || error == kLastStep) addName(path, kDirectory);
  return answer(error);
}

int FaultyDisk::list(const std::string& directory, std::vector<std::string>* names) {
  if (dead_) return fail(EIO);
  for (const auto& [name, node] : contents_.seen) {
    if (name != "/" && directoryOf(name) == directory) {
      names->push_back(name.substr(name.rfind('/') + 1));
    }
  }
  return 0;
}

int FaultyDisk::lock(const std::string& path, FileLock*) {
  if (dead_) return fail(EIO);
  return has(path) ? 0 : create(path);
}

int FaultyDisk::probe(const std::string& path) {
  if (dead_) return fail(EIO);
  return has(path) ? 0 : fail(ENOENT);
}

int FaultyDisk::create(const std::string& path) {
  if (dead_) return fail(EIO);
  if (has(path)) return fail(EEXIST);
  if (find(directoryOf(path)) != kDirectory) return fail(ENOENT);
  const int error = take(Step::kCreate);
  if (error == 0 || error == kLastStep) addName(path, addNameless());
  return answer(error);
}

int FaultyDisk::remove(const std::string& path) {
  if (dead_) return fail(EIO);
  if (!has(path)) return fail(ENOENT);
  const int error = take(Step::kRemove);
  if (error == 0 || error == kLastStep) changeName({directoryOf(path), path, "", 0});
  return answer(error);
}

int FaultyDisk::rename(const std::string& from, const std::string& to) {
  if (dead_) return fail(EIO);
  if (!has(from)) return fail(ENOENT);
  const int error = take(Step::kRename);
  if (error == 0 || error == kLastStep) changeName({directoryOf(to), from, to, find(from)});
  return answer(error);
}

int FaultyDisk::read(const std::string& path, std::uint64_t offset, std::size_t size,
                     std::string* bytes) {
  if (dead_) return fail(EIO);
  return has(path) ? readNode(find(path), offset, size, bytes) : fail(ENOENT);
}

int FaultyDisk::append(const std::string& path, const std::string& bytes) {
  if (dead_) return fail(EIO);
  return has(path) ? writeNode(find(path), sizeOf(find(path)), bytes) : fail(ENOENT);
}

int FaultyDisk::sync(const std::string& path) {
  if (dead_) return fail(EIO);
  return has(path) ? syncNode(find(path)) : fail(ENOENT);
}

int FaultyDisk::syncDirectory(const std::string& path) {
  const int error = take(Step::kSyncDirectory);
  if (error != 0) return answer(error);
  auto& changes = contents_.changes;
  for (const NameChange& change : changes) {
    if (change.directory == path) applyTo(change, &contents_.certain);
  }
  changes.erase(std::remove_if(changes.begin(), changes.end(),
                               [&](const NameChange& c) { return c.directory == path; }),
                changes.end());
  return 0;
}

int FaultyDisk::readNode(int node, std::uint64_t offset, std::size_t size, std::string* bytes) {
  const int error = take(Step::kRead);
  if (error != 0) return answer(error);
  const std::string& seen = contents_.nodes[node].seen;
  *bytes = offset < seen.size() ? seen.substr(static_cast<std::size_t>(offset), size) : "";
  return 0;
}

int FaultyDisk::writeNode(int node, std::uint64_t offset, const std::string& bytes) {
  const int error = take(Step::kWrite);
  if (error != 0 && error != kLastStep && error != ENOSPC) return error;
  Change change{false, offset, error == ENOSPC ? bytes.substr(0, bytes.size() / 2) : bytes};
  Node& written = contents_.nodes[node];
  applyTo(change, &written.seen);
  written.changes.push_back(std::move(change));
  return answer(error);
}

int FaultyDisk::truncateNode(int node, std::uint64_t size) {
  const int error = take(Step::kTruncate);
  if (error != 0 && error != kLastStep) return error;
  Node& truncated = contents_.nodes[node];
  const Change change{true, size, ""};
  applyTo(change, &truncated.seen);
  truncated.changes.push_back(change);
  return answer(error);
}

int FaultyDisk::syncNode(int node) {
  const int error = take(Step::kSync);
  Node& synced = contents_.nodes[node];
  if (error == 0) {
    for (const Change& change : synced.changes) applyTo(change, &synced.certain);
  }
  const bool forgets = error != 0 && error != kLastStep && !dead_ && forgetsAfterFailedSync_;
  if (error == 0 || forgets) synced.changes.clear();
  return answer(error);
}

}  // namespace ConfigSrv
