// A module's variables are in its writable segments. What of these is made read-only once it is
// loaded (PT_GNU_RELRO) stays as it is.
#include "tests/replay/module.h"

#include <dlfcn.h>
#include <link.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace Replay {
namespace {

using Headers = std::vector<ElfW(Phdr)>;

struct Search {
  std::uintptr_t base;
  Headers headers;
};

int takeHeaders(dl_phdr_info* object, std::size_t /*size*/, void* search) {
  auto& wanted = *static_cast<Search*>(search);
  if (object->dlpi_addr != wanted.base) return 0;
  wanted.headers.assign(object->dlpi_phdr, object->dlpi_phdr + object->dlpi_phnum);
  return 1;
}

Search segmentsOf(void* handle) {
  link_map* map = nullptr;
  ::dlinfo(handle, RTLD_DI_LINKMAP, &map);
  Search search{map->l_addr, {}};
  ::dl_iterate_phdr(takeHeaders, &search);
  return search;
}

std::uintptr_t endOfPage(std::uintptr_t place) {
  const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
  return (place + page - 1) / page * page;
}

}  // namespace

Module::Module(const std::string& file) {
  void* const handle = ::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
  void* const function = handle == nullptr ? nullptr : ::dlsym(handle, "replayRunClient");
  if (function == nullptr) {
    std::fprintf(stderr, "replay: %s\n", ::dlerror());
    std::abort();
  }
  client_ = reinterpret_cast<RunClient*>(function);
  const Search found = segmentsOf(handle);
  std::uintptr_t readOnlyEnd = 0;
  for (const auto& header : found.headers)
    if (header.p_type == PT_GNU_RELRO)
      readOnlyEnd = endOfPage(found.base + header.p_vaddr + header.p_memsz);
  for (const auto& header : found.headers) {
    const std::uintptr_t begin = found.base + header.p_vaddr;
    if (header.p_type == PT_LOAD && (header.p_flags & PF_W) != 0)
      keepSegment(std::max(begin, readOnlyEnd), begin + header.p_memsz);
  }
}

void Module::keepSegment(std::uintptr_t begin, std::uintptr_t end) {
  if (begin >= end) return;
  auto* const place = reinterpret_cast<char*>(begin);
  segments_.push_back({place, std::string(place, end - begin)});
}

void Module::renew() const {
  for (const Segment& segment : segments_)
    std::memcpy(segment.place, segment.bytes.data(), segment.bytes.size());
}

}  // namespace Replay
