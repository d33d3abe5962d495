#include <sys/wait.h>

#include "tests/configsrv/store/store_fixture.h"

namespace ConfigSrv {
namespace {

struct Acknowledgement {
  std::uint64_t revision;
  std::uint64_t number;
};

// The child's whole life: commits pairs that belong together, says so after each, takes snapshots
// in between, until it is killed. Two transactions to a commit; a second variable in each.
[[noreturn]] void writeUntilKilled(const std::string& file, std::uint64_t number, int pipe) {
  Witness witness(file + ".witness", [](const std::string&) { ::_exit(5); });
  witness.read();
  StoreOptions options{file};
  options.witness = &witness;
  OpenedStore opened = Store::open(options);
  // Also when the witness objects: however the last one was killed, this store continues it.
  if (!opened.status.ok() || !opened.notice.empty()) ::_exit(1);
  witness.begin({1, 1, opened.store->storeId()}, opened.store->mark());
  for (;; number += 2) {
    const std::string first = std::to_string(number);
    const std::string second = std::to_string(number + 1);
    const CommitResult result = opened.store->commit(
        {{setting("a", first), setting("b", first)}, {setting("a", second), setting("b", second)}});
    if (!result.status.ok()) ::_exit(2);
    const Acknowledgement said{result.revisions.back(), number + 1};
    if (::write(pipe, &said, sizeof said) != sizeof said) ::_exit(3);
    if (number % 10 == 0 && !opened.store->snapshot().ok()) ::_exit(4);
  }
}

class StoreKillTest : public StoreFixture {
 protected:
  // Kills the child after so many acknowledgements and returns the last one it gave.
  Acknowledgement killAfter(int acknowledgements, std::uint64_t firstNumber) {
    int pipe[2];
    EXPECT_EQ(::pipe(pipe), 0);
    const pid_t child = ::fork();
    if (child == 0) writeUntilKilled(file_, firstNumber, pipe[1]);
    ::close(pipe[1]);
    Acknowledgement last{0, 0};
    int count = 0;
    Acknowledgement next{};
    while (::read(pipe[0], &next, sizeof next) == sizeof next) {
      last = next;
      if (++count == acknowledgements) ::kill(child, SIGKILL);
    }
    ::close(pipe[0]);
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status)) << "exit code " << WEXITSTATUS(status);
    return last;
  }

  void expectGoodSnapshot() {
    if (!std::filesystem::exists(file_ + ".snapshot")) return;
    const std::string copy = directory_.path() + "/copy.db";
    writeFile(copy, readFile(file_ + ".snapshot"));
    const OpenedStore opened = Store::open({copy});
    EXPECT_EQ(opened.notice, "");
    EXPECT_EQ(valueIn(opened.variables, "a"), valueIn(opened.variables, "b"));
  }
};

TEST_F(StoreKillTest, NothingAcknowledgedIsLostAndNothingIsMixedWhenTheProcessIsKilled) {
  std::uint64_t number = 2;
  for (int round = 0; round < 50; ++round) {
    const Acknowledgement last = killAfter(1 + round * 7 % 23, number);
    ASSERT_NE(last.number, 0U);
    open();
    ASSERT_EQ(notice(), "");
    ASSERT_EQ(value("a"), value("b"));
    const std::uint64_t found = std::stoull(value("a"));
    // The commit on its way when the child died may be there, whole: both transactions.
    ASSERT_TRUE(found == last.number || found == last.number + 2) << found << " " << last.number;
    ASSERT_EQ(store().revision() - last.revision, found - last.number);
    close();
    expectGoodSnapshot();
    number = found + 1;
  }
}

}  // namespace
}  // namespace ConfigSrv
