#include "tests/replay/shared_memory.h"

#include <link.h>

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

namespace Replay {
namespace {

using Range = std::pair<std::uintptr_t, std::uintptr_t>;
std::vector<Range>* ranges = nullptr;

int addSegments(dl_phdr_info* object, std::size_t, void*) {
  for (int i = 0; i < object->dlpi_phnum; ++i) {
    const ElfW(Phdr)& segment = object->dlpi_phdr[i];
    if (segment.p_type != PT_LOAD || (segment.p_flags & PF_W) == 0) continue;
    const std::uintptr_t begin = object->dlpi_addr + segment.p_vaddr;
    ranges->emplace_back(begin, begin + segment.p_memsz);
  }
  return 0;
}

}  // namespace

void noteSharedMemory() {
  ranges = new std::vector<Range>;
  ::dl_iterate_phdr(addSegments, nullptr);
}

bool isShared(const void* address) {
  const auto place = reinterpret_cast<std::uintptr_t>(address);
  return ranges != nullptr && std::any_of(ranges->begin(), ranges->end(), [&](const Range& range) {
           return range.first <= place && place < range.second;
         });
}

}  // namespace Replay
