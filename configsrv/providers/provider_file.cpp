// Lines are read whole or not at all: the end of a process may have cut the last one short, and what
// is no line of ours is left out. Lines are appended until there are twice as many as are needed; then
// the file is written anew beside the old one and takes its name. A line that could only be written in
// part would spoil the next one, so that, too, has the file written anew.
#include "configsrv/providers/internal/provider_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <sstream>

#include "base/unique_fd.h"

namespace ConfigSrv {
namespace {

constexpr const char* kFirstLine = "appconfig providers 1";
// No more of a file is read: kMaxRemembered lines with the longest texts take less.
constexpr std::size_t kMaxBytes = std::size_t{64} << 20;
// Lines that may be appended, beside as many as there are, before the file is written anew.
constexpr std::size_t kSpareLines = 256;

std::string escaped(const std::string& text) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  std::string out = ":";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte > 0x20 && byte < 0x7F && c != '%')
      out += c;
    else
      out += {'%', kDigits[byte >> 4], kDigits[byte & 0xF]};
  }
  return out;
}

int digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

std::optional<std::string> unescaped(const std::string& text) {
  if (text.empty() || text[0] != ':') return std::nullopt;
  std::string out;
  for (std::size_t i = 1; i < text.size(); ++i) {
    if (text[i] != '%') {
      out += text[i];
      continue;
    }
    const int high = i + 2 < text.size() ? digit(text[i + 1]) : -1;
    const int low = high >= 0 ? digit(text[i + 2]) : -1;
    if (low < 0) return std::nullopt;
    out += static_cast<char>(high * 16 + low);
    i += 2;
  }
  return out;
}

std::string lineOf(PbUtility::PeerId peer, const KnownProvider& provider) {
  std::ostringstream line;
  line << "+ " << peer << ' ' << provider.pid << ' ' << provider.startedAt << ' ' << provider.uid
       << ' ' << provider.gid << ' ' << int{provider.role} << ' ' << provider.type << ' '
       << escaped(provider.endpoint) << ' ' << escaped(provider.name) << '\n';
  return line.str();
}

bool isRole(int role) { return role >= AppConfig::eRolePublic && role <= AppConfig::eRoleFactory; }

// Nothing when the line was cut short, or is none of ours.
std::optional<KnownProvider> readProvider(std::istringstream& line) {
  KnownProvider provider;
  int role = 0;
  std::string endpoint;
  std::string name;
  line >> provider.pid >> provider.startedAt >> provider.uid >> provider.gid >> role >>
      provider.type >> endpoint >> name;
  const std::optional<std::string> plainEndpoint = unescaped(endpoint);
  const std::optional<std::string> plainName = unescaped(name);
  if (!line || !isRole(role) || !plainEndpoint || !plainName) return std::nullopt;
  provider.role = static_cast<AppConfig::SecurityRole>(role);
  provider.endpoint = *plainEndpoint;
  provider.name = *plainName;
  return provider;
}

void takeLine(const std::string& text, ProviderFile::Contents& contents) {
  std::istringstream line(text);
  char what = 0;
  PbUtility::PeerId peer = 0;
  if (!(line >> what >> peer)) return;
  if (what == '-') contents.erase(peer);
  if (what != '+') return;
  if (const std::optional<KnownProvider> provider = readProvider(line))
    contents[peer].insert(*provider);
}

// Only whole lines: the last one may be half written.
ProviderFile::Contents parse(const std::string& text) {
  ProviderFile::Contents contents;
  std::size_t begin = text.find('\n');
  if (text.substr(0, begin) != kFirstLine) return contents;
  for (;;) {
    const std::size_t end = begin == std::string::npos ? begin : text.find('\n', begin + 1);
    if (end == std::string::npos) return contents;
    takeLine(text.substr(begin + 1, end - begin - 1), contents);
    begin = end;
  }
}

bool isOurs(int fd) {
  struct stat status {};
  if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return false;
  const bool owned = status.st_uid == 0 || status.st_uid == ::geteuid();
  return owned && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

std::string readAll(int fd) {
  std::string text;
  char bytes[4096];
  for (;;) {
    const ssize_t got = ::read(fd, bytes, sizeof bytes);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0 || text.size() > kMaxBytes) return text;
    text.append(bytes, static_cast<std::size_t>(got));
  }
}

std::size_t countOf(const ProviderFile::Contents& contents) {
  std::size_t count = 0;
  for (const auto& [peer, providers] : contents) count += providers.size();
  return count;
}

}  // namespace

std::set<KnownProvider> ProviderFile::read() const {
  std::set<KnownProvider> all;
  if (path_.empty()) return all;
  const Base::UniqueFd fd(::open(path_.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!fd) {
    if (errno != ENOENT)
      log_.warning(path_ + ": the providers of before cannot be read: " + std::strerror(errno));
    return all;
  }
  if (isOurs(fd.get())) {
    for (const auto& [peer, providers] : parse(readAll(fd.get())))
      all.insert(providers.begin(), providers.end());
  } else {
    log_.warning(path_ + ": not read, for others than this service could have written it");
  }
  return all;
}

bool ProviderFile::write(int fd, const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t wrote = ::write(fd, text.data() + done, text.size() - done);
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote <= 0) return false;
    done += static_cast<std::size_t>(wrote);
  }
  return true;
}

void ProviderFile::fail(const char* what) {
  if (!failed_)
    log_.warning(path_ + ": cannot be " + what + ": " + std::strerror(errno) +
                 "; a change that comes right after a restart may not be put to its provider");
  failed_ = true;
  fd_.reset();
}

void ProviderFile::rewrite() {
  if (path_.empty()) return;
  const std::string temporary = path_ + ".new";
  ::unlink(temporary.c_str());
  fd_.reset();
  fd_.reset(::open(temporary.c_str(),
                   O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!fd_) return fail("made");
  const Contents contents = contents_();
  std::string text = std::string(kFirstLine) + '\n';
  for (const auto& [peer, providers] : contents) {
    for (const KnownProvider& provider : providers) text += lineOf(peer, provider);
  }
  if (!write(fd_.get(), text) || ::rename(temporary.c_str(), path_.c_str()) != 0)
    return fail("written");
  linesLeft_ = countOf(contents) + kSpareLines;
  failed_ = false;
}

void ProviderFile::append(const std::string& line) {
  if (path_.empty()) return;
  if (!fd_ || linesLeft_ == 0) return rewrite();
  --linesLeft_;
  // What is half written would spoil the next line.
  if (!write(fd_.get(), line)) rewrite();
}

void ProviderFile::add(PbUtility::PeerId peer, const KnownProvider& provider) {
  append(lineOf(peer, provider));
}

void ProviderFile::remove(PbUtility::PeerId peer) { append("- " + std::to_string(peer) + '\n'); }

}  // namespace ConfigSrv
