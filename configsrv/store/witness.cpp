// The record is written over in place: what a process has handed to the system before it is killed is
// there for the next one, and more is not asked of memory. A kill cannot tear a write of these few
// bytes; the check is for whatever else may happen to a file. The numbers are the machine's own, for
// the file never leaves it.
#include "configsrv/store/witness.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include "base/unique_fd.h"

namespace ConfigSrv {
namespace {

using Base::failed;
using Base::Status;

// "ACFGWIT1", read as a number.
constexpr std::uint64_t kKind = 0x3154495747464341;

std::string because(int error) { return std::generic_category().message(error); }

// What others could have written proves nothing.
Status<> checkFile(const struct stat& status, std::size_t bytes) {
  if (!S_ISREG(status.st_mode)) return failed("it is no regular file");
  if (status.st_uid != 0 && status.st_uid != ::geteuid())
    return failed("it belongs to user " + std::to_string(status.st_uid));
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) return failed("others may write it");
  if (static_cast<std::uint64_t>(status.st_size) != bytes) return failed("it has another size");
  return {};
}

// Since the device's start, and never set back.
std::uint64_t millisecondsSinceBoot() {
  timespec now{};
  ::clock_gettime(CLOCK_BOOTTIME, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1000 +
         static_cast<std::uint64_t>(now.tv_nsec) / 1'000'000;
}

std::string text(const StoreMark& mark) { return "revision " + std::to_string(mark.revision); }

}  // namespace

Witness::Witness(std::string file, Warn warn) : file_(std::move(file)), warn_(std::move(warn)) {}

std::uint64_t Witness::checkOf(const Record& record) {
  std::uint64_t sum = 0;
  for (const std::uint64_t word :
       {record.kind, record.epoch.number, record.epoch.definitions, record.epoch.storeId,
        record.committed.revision, record.committed.digest, record.pending.revision,
        record.pending.digest}) {
    sum = (sum ^ word) * std::uint64_t{0x9E3779B97F4A7C15};
    sum ^= sum >> 32;
  }
  return sum;
}

void Witness::read() {
  if (file_.empty()) return;
  Status<> done = readRecord();
  if (!done.ok()) found_ = Found::kUnusable;
  whyUnusable_ = std::move(done.text);
}

Status<> Witness::readRecord() {
  const Base::UniqueFd fd(
      ::open(file_.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!fd) {
    if (errno == ENOENT || errno == ENOTDIR) return {};
    return failed(errno == ELOOP ? "it is a symbolic link" : because(errno));
  }
  struct stat status {};
  if (::fstat(fd.get(), &status) != 0) return failed(because(errno));
  Status<> usable = checkFile(status, sizeof last_);
  if (!usable.ok()) return usable;
  Record record;
  if (::pread(fd.get(), &record, sizeof record, 0) != sizeof record)
    return failed("it cannot be read");
  if (record.kind != kKind || record.check != checkOf(record)) return failed("it is damaged");
  last_ = record;
  found_ = Found::kRecord;
  return {};
}

std::string Witness::objectionTo(std::uint64_t storeId, const StoreMark& found) const {
  if (found_ == Found::kNothing) return {};
  if (found_ == Found::kUnusable)
    return "may be older than what clients were told of, for its witness " + file_ +
           " cannot be used: " + whyUnusable_;
  if (last_.epoch.storeId != storeId) return {};
  if (found == last_.committed || found == last_.pending) return {};
  return "has " + text(found) + " and is not the one of " + text(last_.committed) +
         " that clients were told of last: an older copy was put back, or its end is lost";
}

std::uint64_t Witness::epochFor(std::uint64_t storeId, std::uint64_t definitions) const {
  const Epoch& last = last_.epoch;
  const bool continues = found_ == Found::kRecord && last.storeId == storeId;
  if (continues && last.definitions == definitions) return last.number;
  return std::max({last.number + 1, millisecondsSinceBoot(), std::uint64_t{1}});
}

void Witness::begin(const Epoch& epoch, const StoreMark& committed) {
  if (file_.empty()) return;
  record_ = {kKind, epoch, committed, committed, 0};
  const Status<> made = makeFile();
  if (!made.ok()) fail(made.text);
}

// Under another name first: whatever has this one, a link or somebody's file, is not written to.
Status<> Witness::makeFile() {
  const std::string fresh = file_ + ".new";
  ::unlink(fresh.c_str());
  fd_.reset(::open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!fd_) return failed(because(errno));
  if (!writeRecord() || ::rename(fresh.c_str(), file_.c_str()) != 0) return failed(because(errno));
  return {};
}

bool Witness::writeRecord() {
  record_.check = checkOf(record_);
  const ssize_t wrote = ::pwrite(fd_.get(), &record_, sizeof record_, 0);
  if (wrote >= 0 && wrote != sizeof record_) errno = ENOSPC;
  return wrote == sizeof record_;
}

void Witness::expect(const StoreMark& committed, const StoreMark& pending) {
  if (!fd_) return;
  record_.committed = committed;
  record_.pending = pending;
  if (!writeRecord()) fail(because(errno));
}

// What stands there now must not be taken for the truth by the next start.
void Witness::fail(const std::string& problem) {
  ::unlink(file_.c_str());
  fd_.reset();
  warn_(file_ + ": cannot be written: " + problem +
        "; after the next start, clients read everything again");
}

}  // namespace ConfigSrv
