// Loaded into configsrvd by CommitClock: notes in a shared file when fdatasync returned.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>

namespace {

double* sharedPlace() {
  const char* const file = std::getenv("APPCONFIG_BENCH_CLOCK");
  const int descriptor = file == nullptr ? -1 : ::open(file, O_RDWR | O_CLOEXEC);
  if (descriptor < 0) return nullptr;
  void* const place =
      ::mmap(nullptr, sizeof(double), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
  ::close(descriptor);
  return place == MAP_FAILED ? nullptr : static_cast<double*>(place);
}

void noteTime() {
  static double* const place = sharedPlace();
  timespec time{};
  ::clock_gettime(CLOCK_MONOTONIC, &time);
  if (place != nullptr)
    *place = static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int fdatasync(int descriptor) {
  using Sync = int (*)(int);
  static const Sync original = reinterpret_cast<Sync>(::dlsym(RTLD_NEXT, "fdatasync"));
  const int result = original(descriptor);
  noteTime();
  return result;
}
