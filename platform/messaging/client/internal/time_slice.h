// Time slices: how long a thread may keep a processor before the kernel looks whom else it owes one.
//
// Whoever only waits for news has a few microseconds to do when they come. With a slice as long as
// everybody's it may wait until the thread that sent them has used up its own, a millisecond or more;
// with a short one it comes at once. It gets no more of the processor for that, only sooner.
//
// Threads:  each asks for itself.
#pragma once

namespace PbUtility {

// For the calling thread. The kernel takes it from Linux 6.12 on (sched_setattr(2), `sched_runtime` of
// SCHED_OTHER); an older one leaves all as it is, and so does another policy that the application
// chose. Behind a filter of system calls (seccomp(2)) nothing is asked for: it might kill who asks.
// Threads and programs that this one starts have slices like everybody's, unless its nice value is
// negative, which they are to inherit.
void askForShortSlices() noexcept;

}  // namespace PbUtility
