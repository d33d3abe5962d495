#include "platform/messaging/client/internal/time_slice.h"

#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>

#include "platform/messaging/endpoint.h"
#include "tests/support/eventually.h"
#include "tests/support/serving.h"
#include "tests/support/temp_dir.h"

namespace PbUtility {
namespace {

constexpr std::uint64_t kShort = 100'000;  // nanoseconds

struct Attributes {
  std::uint32_t size, policy;
  std::uint64_t flags;
  std::int32_t nice;
  std::uint32_t priority;
  std::uint64_t slice, deadline, period;
};

// All zeros where the system does not tell.
Attributes of(pid_t thread) {
  Attributes attributes{};
  ::syscall(SYS_sched_getattr, thread, &attributes, sizeof attributes, 0);
  return attributes;
}
Attributes ofThisThread() { return of(0); }

bool someThreadHas(std::uint64_t slice) {
  const std::filesystem::directory_iterator threads("/proc/self/task");
  return std::any_of(begin(threads), end(threads), [slice](const auto& thread) {
    return of(std::stoi(thread.path().filename())).slice == slice;
  });
}

bool mayBeSet(const Attributes& attributes) {
  return ::syscall(SYS_sched_setattr, 0, &attributes, 0) == 0;
}

void onAnotherThread(const std::function<void()>& work) { std::thread(work).join(); }

class TimeSliceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const Attributes usual = ofThisThread();
    if (usual.slice == 0) GTEST_SKIP() << "this kernel has one slice for all (before 6.12)";
    if (::prctl(PR_GET_SECCOMP, 0, 0, 0, 0) != 0)
      GTEST_SKIP() << "a filter of system calls watches already: nothing would be asked for";
    if (!mayBeSet(usual)) GTEST_SKIP() << "threads may not choose here";
    ASSERT_GT(usual.slice, kShort);
  }
};

TEST_F(TimeSliceTest, AThreadThatAsksHasTheShortestSlice) {
  onAnotherThread([] {
    askForShortSlices();
    EXPECT_EQ(ofThisThread().slice, kShort);
  });
}

TEST_F(TimeSliceTest, TheDeliveryThreadOfAnEndpointAsksForThem) {
  const TestSupport::TempDir dir;
  const TestSupport::Serving serving(dir.path());
  EndpointOptions options;
  options.runtimeDir = dir.path();
  ASSERT_FALSE(someThreadHas(kShort));
  Endpoint endpoint("told", options);
  ASSERT_TRUE(endpoint.waitUntilConnected("ConfigSrvc", TestSupport::kPatience));
  EXPECT_TRUE(TestSupport::eventually([] { return someThreadHas(kShort); }));
}

TEST_F(TimeSliceTest, OtherThreadsKeepTheirs) {
  const std::uint64_t before = ofThisThread().slice;
  onAnotherThread(askForShortSlices);
  EXPECT_EQ(ofThisThread().slice, before);
}

TEST_F(TimeSliceTest, AThreadThatItStartsHasASliceLikeEverybodys) {
  const std::uint64_t everybodys = ofThisThread().slice;
  onAnotherThread([&] {
    askForShortSlices();
    onAnotherThread([&] { EXPECT_EQ(ofThisThread().slice, everybodys); });
  });
}

TEST_F(TimeSliceTest, TheNiceValueStaysAndIsInherited) {
  onAnotherThread([] {
    // Of the thread alone, whatever POSIX says of the process: see setpriority(2).
    ASSERT_EQ(::setpriority(PRIO_PROCESS, 0, 7), 0);
    askForShortSlices();
    EXPECT_EQ(ofThisThread().slice, kShort);
    EXPECT_EQ(ofThisThread().nice, 7);
    onAnotherThread([] { EXPECT_EQ(ofThisThread().nice, 7); });
  });
}

constexpr int kNoFilters = 2;

// A filter that ends the process at any sched_setattr.
void forbidChoosing() {
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_sched_setattr, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  sock_fprog filter{4, program};
  if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
      ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0)
    _exit(kNoFilters);
}

TEST_F(TimeSliceTest, BehindAFilterOfSystemCallsNothingIsAskedForAndNobodyIsKilled) {
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    forbidChoosing();
    askForShortSlices();
    _exit(ofThisThread().slice > kShort ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  if (WIFEXITED(status) && WEXITSTATUS(status) == kNoFilters)
    GTEST_SKIP() << "programs cannot filter their calls here (emulated)";
  EXPECT_EQ(status, 0);
}

TEST_F(TimeSliceTest, APolicyThatTheApplicationChoseStaysAsItIs) {
  onAnotherThread([] {
    const sched_param none{};
    ASSERT_EQ(::sched_setscheduler(0, SCHED_BATCH, &none), 0);
    const std::uint64_t before = ofThisThread().slice;
    askForShortSlices();
    EXPECT_EQ(ofThisThread().policy, std::uint32_t{SCHED_BATCH});
    EXPECT_EQ(ofThisThread().slice, before);
  });
}

}  // namespace
}  // namespace PbUtility
