#include "configsrv/service/internal/free_memory.h"

#include <malloc.h>

namespace ConfigSrv {

void giveBackFreeMemory() {
#if defined(__GLIBC__) && __GLIBC_PREREQ(2, 33)
  if (mallinfo2().fordblks > kKeptFreeBytes) malloc_trim(0);
#endif
}

}  // namespace ConfigSrv
