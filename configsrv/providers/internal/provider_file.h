// ProviderFile: the providers' registrations in a file that outlives the process, however it ends.
//
// Shape:    a line for each registration, appended as it is made, and one for each peer that is gone:
//
//             appconfig providers 1
//             + 7 1234 5678901 0 0 1 2 :gateway-network :network.eth
//             - 7
//
//           peer, process, its start, user, group, role, type, endpoint, name. Texts begin with ":";
//           bytes that are no printable ASCII, and "%", stand as %XX. Rewritten as a whole, under
//           another name first, when most of its lines are out of date.
// Where:    in the runtime directory, which is memory: it is gone with the next start of the device,
//           as the processes are, and costs no write to flash.
// Errors:   a file that others could have written is not read. One that cannot be written is reported
//           once in the log; the service goes on, and after a restart expects nobody.
// Threads:  one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "configsrv/log/log.h"
#include "configsrv/providers/provider_memory.h"

namespace ConfigSrv {

class ProviderFile {
 public:
  using Contents = std::map<PbUtility::PeerId, std::set<KnownProvider>>;
  // All that the file has to hold; asked for only when it is written as a whole.
  using GetContents = std::function<Contents()>;

  // An empty path: nothing is remembered.
  ProviderFile(std::string path, const Log& log, GetContents contents)
      : path_(std::move(path)), log_(log), contents_(std::move(contents)) {}
  ProviderFile(const ProviderFile&) = delete;
  ProviderFile& operator=(const ProviderFile&) = delete;

  // What the last service left; nothing when there is no file.
  std::set<KnownProvider> read() const;
  // The whole of it anew.
  void rewrite();
  // One more line, or, when there were many, the whole.
  void add(PbUtility::PeerId peer, const KnownProvider& provider);
  void remove(PbUtility::PeerId peer);

 private:
  void append(const std::string& line);
  bool write(int fd, const std::string& text);
  void fail(const char* what);

  const std::string path_;
  const Log& log_;
  const GetContents contents_;
  Base::UniqueFd fd_;
  // Lines that may still be appended before the file is written as a whole.
  std::size_t linesLeft_ = 0;
  bool failed_ = false;
};

}  // namespace ConfigSrv
