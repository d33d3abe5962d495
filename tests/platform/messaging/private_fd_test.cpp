#include "platform/messaging/client/internal/private_fd.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace PbUtility {
namespace {

// What is opened where standard input is closed gets its number.
TEST(PrivateFdTest, TheLowestNumberIsADescriptorToo) {
  const pid_t child = ::fork();
  if (child == 0) {
    PrivateFd fd;
    fd.make([] { return 0; });
    const bool isKept = static_cast<bool>(fd) && fd.get() == 0;
    fd.reset();
    ::_exit(isKept && !fd ? 42 : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(WEXITSTATUS(status), 42);
}

}  // namespace
}  // namespace PbUtility
