// The file is text, for people who look into it: a line that says what it is and has a check of all that
// follows, then each file behind a line with the lengths of its name and its text.
//
//   appconfig-last-good 1 8a6c0e1b5d2f4931
//   37 112
//   /etc/appconfig/definitions.d/a.toml
//   [variable."net.mtu"] ...
//
// It is written under another name, synced and renamed, and then the directory is synced: a loss of
// power leaves the old file or the new one. A rest of the other name is removed by the next writing.
#include "configsrv/in_force/last_good.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <system_error>

#include "base/unique_fd.h"
#include "configsrv/access/access_policy.h"

namespace ConfigSrv {
namespace {

using Base::failed;
using Base::Status;

constexpr std::string_view kKind = "appconfig-last-good 1 ";
constexpr std::size_t kCheckDigits = 16;

std::string because(int error) { return std::generic_category().message(error); }

// FNV-1a: against damage, not against anybody.
std::string checkOf(std::string_view bytes) {
  std::uint64_t sum = 0xcbf29ce484222325U;
  for (const char c : bytes) sum = (sum ^ static_cast<unsigned char>(c)) * 0x100000001b3U;
  char digits[kCheckDigits + 1];
  std::snprintf(digits, sizeof digits, "%016llx", static_cast<unsigned long long>(sum));
  return digits;
}

std::string written(const std::vector<TextFile>& files) {
  std::string body;
  for (const TextFile& file : files) {
    body += std::to_string(file.path.size()) + ' ' + std::to_string(file.text.size()) + '\n';
    body.append(file.path).append("\n").append(file.text).append("\n");
  }
  return std::string(kKind) + checkOf(body) + '\n' + body;
}

// Reads a number and the byte behind it off the front.
bool takeNumber(std::string_view& bytes, char end, std::size_t& number) {
  const auto [stop, error] = std::from_chars(bytes.data(), bytes.data() + bytes.size(), number);
  if (error != std::errc()) return false;
  bytes.remove_prefix(static_cast<std::size_t>(stop - bytes.data()));
  if (bytes.empty() || bytes[0] != end) return false;
  bytes.remove_prefix(1);
  return true;
}

// Reads so many bytes and the end of their line.
bool takeText(std::string_view& bytes, std::size_t size, std::string& text) {
  if (size >= bytes.size() || bytes[size] != '\n') return false;
  text = bytes.substr(0, size);
  bytes.remove_prefix(size + 1);
  return true;
}

bool takeFile(std::string_view& bytes, TextFile& file) {
  std::size_t pathBytes = 0;
  std::size_t textBytes = 0;
  return takeNumber(bytes, ' ', pathBytes) && takeNumber(bytes, '\n', textBytes) &&
         takeText(bytes, pathBytes, file.path) && takeText(bytes, textBytes, file.text);
}

bool takeFiles(std::string_view bytes, std::vector<TextFile>& files) {
  const std::size_t head = kKind.size() + kCheckDigits + 1;
  if (bytes.size() < head || bytes.substr(0, kKind.size()) != kKind) return false;
  const std::string_view check = bytes.substr(kKind.size(), kCheckDigits + 1);
  bytes.remove_prefix(head);
  if (check != checkOf(bytes) + '\n') return false;
  while (!bytes.empty()) {
    if (!takeFile(bytes, files.emplace_back())) return false;
  }
  return true;
}

// What others could have written proves nothing.
Status<> checkFile(const struct stat& status) {
  if (!S_ISREG(status.st_mode)) return failed("it is no regular file");
  const std::string why = whyNotTrusted(status.st_uid, status.st_mode, ::geteuid());
  return why.empty() ? Status<>() : failed("it " + why);
}

// Success without bytes when there is no such file.
Status<> readAll(const std::string& path, bool& isThere, std::string& bytes) {
  const Base::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  const bool isMissing = !fd && (errno == ENOENT || errno == ENOTDIR);
  if (isMissing) return {};
  if (!fd) return failed(errno == ELOOP ? "it is a symbolic link" : because(errno));
  struct stat status {};
  if (::fstat(fd.get(), &status) != 0) return failed(because(errno));
  Status<> usable = checkFile(status);
  if (!usable.ok()) return usable;
  bytes.resize(static_cast<std::size_t>(status.st_size));
  std::size_t have = 0;
  while (have < bytes.size()) {
    const ssize_t got = ::read(fd.get(), bytes.data() + have, bytes.size() - have);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return failed(because(errno));
    if (got == 0) break;
    have += static_cast<std::size_t>(got);
  }
  bytes.resize(have);
  isThere = true;
  return {};
}

Status<> writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t wrote = ::write(fd, bytes.data(), bytes.size());
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote <= 0) return failed(because(wrote < 0 ? errno : EIO));
    bytes.remove_prefix(static_cast<std::size_t>(wrote));
  }
  return ::fsync(fd) == 0 ? Status<>() : failed(because(errno));
}

std::string directoryOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return path.substr(0, slash == 0 ? 1 : slash);
}

Status<> syncDirectoryOf(const std::string& path) {
  const Base::UniqueFd fd(::open(directoryOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return fd && ::fsync(fd.get()) == 0 ? Status<>() : failed(because(errno));
}

}  // namespace

LastGood::Kept LastGood::read() const {
  Kept kept;
  std::string bytes;
  const Status<> done = readAll(file_, kept.isThere, bytes);
  if (!done.ok()) {
    kept.why = done.text;
  } else if (kept.isThere && !takeFiles(bytes, kept.files)) {
    kept.why = "it is damaged";
  }
  if (!kept.why.empty()) return {false, {}, kept.why};
  return kept;
}

Status<> LastGood::keep(const std::vector<TextFile>& files) const {
  const std::string bytes = written(files);
  std::string present;
  bool isThere = false;
  if (readAll(file_, isThere, present).ok() && isThere && present == bytes) return {};
  return replace(bytes);
}

// Under another name first: whatever has this one, a link or somebody's file, is not written to.
Status<> LastGood::replace(const std::string& bytes) const {
  const std::string fresh = file_ + ".new";
  ::unlink(fresh.c_str());
  const Base::UniqueFd fd(
      ::open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!fd) return failed(because(errno));
  Status<> done = writeAll(fd.get(), bytes);
  if (done.ok() && ::rename(fresh.c_str(), file_.c_str()) != 0) done = failed(because(errno));
  if (!done.ok()) {
    ::unlink(fresh.c_str());
    return done;
  }
  return syncDirectoryOf(file_);
}

}  // namespace ConfigSrv
