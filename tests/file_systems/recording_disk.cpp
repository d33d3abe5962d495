// recording_disk: a file that a loop device can stand on, and a record of what was written to it and
// when it was told to be durable.
//
//   recording_disk IMAGE RECORD DIRECTORY
//
// It serves two files in DIRECTORY until that is unmounted. DIRECTORY/disk is IMAGE; every write and
// every flush is noted in RECORD, in the order in which they came. Whatever is written to
// DIRECTORY/mark is noted as well, so that a program can say between them what it was told.
//
// The record is a row of entries, in the machine's byte order: a letter of one byte ('w' write, 'f'
// flush, 'm' mark), the place in the file (8 bytes), the length (4 bytes), and so many bytes. disk_log.py
// reads it.
//
// One thread serves one request at a time: the order in the record is the order of things. A discarded
// or zeroed range is refused, so that the kernel writes zeros, which are noted like any other bytes.
//
// The calls are those of libfuse 3: https://libfuse.github.io/doxygen/structfuse__operations.html
#define FUSE_USE_VERSION 31

#include <fcntl.h>
#include <fuse.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

enum : std::uint64_t { kDisk, kMark };

int image = -1;
off_t imageBytes = 0;
std::FILE* record = nullptr;

// What cannot be recorded would make every verdict that is built on the record worthless.
[[noreturn]] void fail(const char* what) {
  std::perror(what);
  std::abort();
}

void note(char kind, std::uint64_t place, const char* bytes, std::uint32_t length) {
  const bool noted = std::fwrite(&kind, 1, 1, record) == 1 &&
                     std::fwrite(&place, sizeof place, 1, record) == 1 &&
                     std::fwrite(&length, sizeof length, 1, record) == 1 &&
                     std::fwrite(bytes, 1, length, record) == length && std::fflush(record) == 0;
  if (!noted) fail("recording_disk: the record");
}

bool isFile(const char* path, std::uint64_t* which) {
  *which = std::strcmp(path, "/mark") == 0 ? kMark : kDisk;
  return *which == kMark || std::strcmp(path, "/disk") == 0;
}

int getAttributes(const char* path, struct stat* status, fuse_file_info*) {
  *status = {};
  status->st_nlink = 1;
  status->st_mode = S_IFDIR | 0700;
  std::uint64_t which = kDisk;
  if (std::strcmp(path, "/") == 0) return 0;
  if (!isFile(path, &which)) return -ENOENT;
  status->st_mode = S_IFREG | 0600;
  status->st_size = which == kDisk ? imageBytes : 0;
  return 0;
}

int openFile(const char* path, fuse_file_info* file) {
  if (!isFile(path, &file->fh)) return -ENOENT;
  // A mark is noted before the write returns, whoever has the file open.
  file->direct_io = file->fh == kMark ? 1 : 0;
  return 0;
}

int readFile(const char*, char* bytes, size_t length, off_t place, fuse_file_info* file) {
  if (file->fh == kMark) return 0;
  const ssize_t got = ::pread(image, bytes, length, place);
  return got < 0 ? -errno : static_cast<int>(got);
}

int writeFile(const char*, const char* bytes, size_t length, off_t place, fuse_file_info* file) {
  const auto size = static_cast<std::uint32_t>(length);
  if (file->fh == kMark) {
    note('m', 0, bytes, size);
    return static_cast<int>(length);
  }
  if (::pwrite(image, bytes, length, place) != static_cast<ssize_t>(length)) return -EIO;
  note('w', static_cast<std::uint64_t>(place), bytes, size);
  return static_cast<int>(length);
}

int flushToDisk(const char*, int, fuse_file_info* file) {
  if (file->fh == kDisk) note('f', 0, "", 0);
  return 0;
}

// Neither file has another size than its own; who opens a mark to write truncates it first.
int truncateFile(const char*, off_t, fuse_file_info*) { return 0; }

fuse_operations operations() {
  fuse_operations result{};
  result.getattr = getAttributes;
  result.open = openFile;
  result.read = readFile;
  result.write = writeFile;
  result.fsync = flushToDisk;
  result.truncate = truncateFile;
  return result;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: recording_disk IMAGE RECORD DIRECTORY\n");
    return 2;
  }
  struct stat status {};
  image = ::open(argv[1], O_RDWR | O_CLOEXEC);
  if (image < 0 || ::fstat(image, &status) != 0) fail(argv[1]);
  imageBytes = status.st_size;
  record = std::fopen(argv[2], "wb");
  if (record == nullptr) fail(argv[2]);
  char inForeground[] = "-f";
  char oneThread[] = "-s";
  char* arguments[] = {argv[0], inForeground, oneThread, argv[3], nullptr};
  const fuse_operations served = operations();
  return fuse_main(4, arguments, &served, nullptr);
}
