// The format: https://www.sqlite.org/fileformat2.html#the_write_ahead_log
#include "configsrv/store/internal/log_scan.h"

#include <string_view>

namespace ConfigSrv {
namespace {

constexpr std::size_t kHeaderBytes = 32;
constexpr std::size_t kFrameHeaderBytes = 24;
constexpr std::uint32_t kMagic = 0x377F0682;  // The lowest bit: checksums go by big-endian words.
constexpr std::uint32_t kUsualPageBytes = 4096;

std::uint32_t wordAt(std::string_view bytes, std::size_t offset, bool bigEndian = true) {
  std::uint32_t word = 0;
  for (std::size_t i = 0; i < 4; ++i) {
    const auto byte = static_cast<unsigned char>(bytes[offset + i]);
    word |= std::uint32_t{byte} << (8 * (bigEndian ? 3 - i : i));
  }
  return word;
}

struct Checksum {
  std::uint32_t a = 0;
  std::uint32_t b = 0;

  void add(std::string_view bytes, bool bigEndian) {
    for (std::size_t i = 0; i + 8 <= bytes.size(); i += 8) {
      a += wordAt(bytes, i, bigEndian) + b;
      b += wordAt(bytes, i + 4, bigEndian) + a;
    }
  }
  bool operator==(const Checksum& other) const { return a == other.a && b == other.b; }
};

Checksum checksumAt(std::string_view bytes, std::size_t offset) {
  return {wordAt(bytes, offset), wordAt(bytes, offset + 4)};
}

struct Header {
  bool isGood = false;
  bool bigEndian = false;
  std::uint32_t pageBytes = kUsualPageBytes;
  std::string salts;
  Checksum checksum;
};

bool isPageSize(std::uint32_t bytes) {
  return bytes >= 512 && bytes <= 65536 && (bytes & (bytes - 1)) == 0;
}

Header readHeader(std::string_view bytes) {
  Header header;
  const std::uint32_t magic = wordAt(bytes, 0);
  header.bigEndian = (magic & 1U) != 0;
  header.checksum.add(bytes.substr(0, 24), header.bigEndian);
  header.isGood = (magic & ~1U) == kMagic && isPageSize(wordAt(bytes, 8)) &&
                  header.checksum == checksumAt(bytes, 24);
  if (header.isGood) {
    header.pageBytes = wordAt(bytes, 8);
    header.salts = bytes.substr(16, 8);
  } else {
    header.bigEndian = false;
  }
  return header;
}

// Follows the frames of one generation of the log; those of older ones, which the log still holds
// behind its end, have other salts.
class FrameWalk {
 public:
  explicit FrameWalk(const Header& header)
      : bigEndian_(header.bigEndian),
        readable_(header.isGood),
        salts_(header.salts),
        last_(header.checksum),
        linked_(header.isGood) {}

  // True once two commits were seen that no reader will find.
  bool lostCommitsAt(std::string_view frame) {
    if (salts_.empty()) salts_ = frame.substr(8, 8);
    const bool checks = linked_ && check(frame);
    readable_ = readable_ && checks;
    linked_ = frame.substr(8, 8) == salts_;
    last_ = checksumAt(frame, 16);
    if (readable_) return false;
    if (!checks) commits_ = 0;
    if (checks && wordAt(frame, 4) != 0) ++commits_;
    return commits_ >= 2;
  }

 private:
  bool check(std::string_view frame) const {
    Checksum sum = last_;
    sum.add(frame.substr(0, 8), bigEndian_);
    sum.add(frame.substr(kFrameHeaderBytes), bigEndian_);
    return frame.substr(8, 8) == salts_ && sum == checksumAt(frame, 16);
  }

  const bool bigEndian_;
  bool readable_;  // SQLite reads up to here.
  std::string salts_;
  Checksum last_;
  bool linked_;  // last_ is what the next frame's checksum starts from.
  int commits_ = 0;
};

}  // namespace

bool logHasLostCommits(FileSystem& system, const std::string& log) {
  std::string bytes;
  if (system.read(log, 0, kHeaderBytes, &bytes) != 0 || bytes.size() < kHeaderBytes) return false;
  const Header header = readHeader(bytes);
  const std::size_t frameBytes = kFrameHeaderBytes + header.pageBytes;
  const std::size_t pieceBytes = 64 * frameBytes;
  FrameWalk walk(header);
  for (std::uint64_t offset = kHeaderBytes;; offset += bytes.size()) {
    if (system.read(log, offset, pieceBytes, &bytes) != 0) return false;
    for (std::size_t i = 0; i + frameBytes <= bytes.size(); i += frameBytes) {
      if (walk.lostCommitsAt(std::string_view(bytes).substr(i, frameBytes))) return true;
    }
    if (bytes.size() < pieceBytes) return false;
  }
}

}  // namespace ConfigSrv
