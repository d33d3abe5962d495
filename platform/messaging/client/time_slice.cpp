#include "platform/messaging/client/internal/time_slice.h"

#include <fcntl.h>
#include <linux/sched.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <string_view>

#include "base/unique_fd.h"

namespace PbUtility {
namespace {

// The shortest that the kernel grants.
constexpr std::uint64_t kNanoseconds = 100'000;

// As the kernel takes it since it knows the call (sched_setattr(2)); libc has no wrapper before 2.41.
struct Attributes {
  std::uint32_t size;
  std::uint32_t policy;
  std::uint64_t flags;
  std::int32_t nice;
  std::uint32_t priority;
  std::uint64_t runtime;
  std::uint64_t deadline;
  std::uint64_t period;
};
static_assert(sizeof(Attributes) == 48, "the first published size, which every kernel takes");

// Whether a filter of system calls (seccomp(2)) watches this thread. Many kill a program for a call that
// it was not expected to make, and systemd's `SystemCallFilter=~@resources` is one of them. What cannot
// be found out is taken for one.
bool isFiltered() {
  const Base::UniqueFd file(::open("/proc/thread-self/status", O_RDONLY | O_CLOEXEC));
  char status[8192];
  const ssize_t length = file ? ::read(file.get(), status, sizeof status) : -1;
  if (length <= 0) return true;
  const std::string_view text(status, static_cast<std::size_t>(length));
  return text.find("\nSeccomp:\t0\n") == std::string_view::npos;
}

}  // namespace

// Read first, so that nothing else changes.
void askForShortSlices() noexcept {
  if (isFiltered()) return;
  Attributes attributes{};
  if (::syscall(SYS_sched_getattr, 0, &attributes, sizeof attributes, 0) != 0) return;
  if (attributes.policy != SCHED_OTHER) return;
  attributes.size = sizeof attributes;
  attributes.runtime = kNanoseconds;
  if (attributes.nice >= 0) attributes.flags |= SCHED_FLAG_RESET_ON_FORK;
  ::syscall(SYS_sched_setattr, 0, &attributes, 0);
}

}  // namespace PbUtility
