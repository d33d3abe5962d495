#include "bench/processes/commit_clock.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace Bench {

CommitClock::CommitClock(const Settings& settings) : dir_("/tmp") {
  const std::string file = dir_.file("clock");
  const int descriptor = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  void* place = MAP_FAILED;
  if (::ftruncate(descriptor, sizeof(double)) == 0)
    place = ::mmap(nullptr, sizeof(double), PROT_READ, MAP_SHARED, descriptor, 0);
  ::close(descriptor);
  if (place == MAP_FAILED) {
    std::perror(file.c_str());
    std::_Exit(1);
  }
  place_ = static_cast<const double*>(place);
  ::setenv("APPCONFIG_BENCH_CLOCK", file.c_str(), 1);
  ::setenv("LD_PRELOAD", settings.syncClock.c_str(), 1);
  // A sanitizer wants to be the first that is loaded; here it need not be.
  ::setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 1);
}

CommitClock::~CommitClock() {
  ::unsetenv("LD_PRELOAD");
  ::munmap(const_cast<double*>(place_), sizeof(double));
}

}  // namespace Bench
