#include "tools/appcfg/output.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <thread>

namespace AppCfgTool {
namespace {

class Pipe {
 public:
  Pipe() { EXPECT_EQ(::pipe(fds_.data()), 0); }
  ~Pipe() {
    closeReader();
    closeWriter();
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;
  int writer() const { return fds_[1]; }
  void closeReader() { closeOnce(fds_[0]); }
  void closeWriter() { closeOnce(fds_[1]); }
  // Everything until the writer is closed.
  std::string rest() {
    std::string all;
    char buffer[4096];
    for (ssize_t got; (got = ::read(fds_[0], buffer, sizeof buffer)) > 0;) {
      all.append(buffer, static_cast<std::size_t>(got));
    }
    return all;
  }

 private:
  static void closeOnce(int& fd) {
    if (fd >= 0) ::close(fd);
    fd = -1;
  }
  std::array<int, 2> fds_{};
};

class OutputTest : public testing::Test {
 protected:
  OutputTest() { ::signal(SIGPIPE, SIG_IGN); }
  std::string told() {
    err_.closeWriter();
    return err_.rest();
  }
  std::string printed() {
    out_.closeWriter();
    return out_.rest();
  }

  Pipe out_;
  Pipe err_;
  Output text_{false, out_.writer(), err_.writer()};
  Output json_{true, out_.writer(), err_.writer()};
};

Outcome denied() {
  Outcome outcome = failure(kExitDenied, "cannot set net.mtu: denied", "choose another role");
  outcome.reasons = {"needs \"installer\"", "two\nlines"};
  outcome.subject = "net.mtu";
  return outcome;
}

TEST_F(OutputTest, NothingIsPrintedBeforeItIsFlushed) {
  text_.line("never printed");
  EXPECT_EQ(printed(), "");
}

TEST_F(OutputTest, BytesArePrintedAsTheyAre) {
  text_.bytes(std::string("a\0\xff", 3));
  text_.line("b");
  EXPECT_EQ(text_.flush(), WriteState::Written);
  EXPECT_EQ(printed(), std::string("a\0\xff"
                                   "b\n",
                                   5));
  EXPECT_EQ(told(), "");
}

TEST_F(OutputTest, MoreThanAPipeHoldsIsPrintedWhole) {
  const std::string large(1 << 20, 'x');
  std::string got;
  std::thread reader([&] { got = out_.rest(); });
  text_.bytes(large);
  EXPECT_EQ(text_.flush(), WriteState::Written);
  out_.closeWriter();
  reader.join();
  EXPECT_EQ(got, large);
}

TEST_F(OutputTest, AReaderThatIsGoneIsNoFailure) {
  out_.closeReader();
  text_.line("x");
  EXPECT_EQ(text_.flush(), WriteState::ReaderGone);
}

TEST_F(OutputTest, OutputThatCannotBeWrittenIsAFailure) {
  Output closed(false, -1, err_.writer());
  closed.line("x");
  EXPECT_EQ(closed.flush(), WriteState::Failed);
}

TEST_F(OutputTest, AFailureIsToldInLinesThatBeginWithTheProgramsName) {
  text_.failure(denied());
  EXPECT_EQ(told(),
            "appcfg: cannot set net.mtu: denied\n"
            "appcfg: needs \"installer\"\n"
            "appcfg: two\\nlines\n"
            "appcfg: choose another role\n");
  EXPECT_EQ(printed(), "");
}

TEST_F(OutputTest, AFailureInJsonIsOneObjectOnStandardError) {
  json_.failure(denied());
  EXPECT_EQ(told(),
            R"({"error":"denied","exit_code":4,"key":"net.mtu","message":"cannot set net.mtu: )"
            R"(denied","reasons":["needs \"installer\"","two\nlines"],"advice":"choose another )"
            R"(role"})"
            "\n");
  EXPECT_EQ(printed(), "");
}

TEST_F(OutputTest, AFailureThatIsAboutNoVariableHasANullKey) {
  json_.failure(usageMistake("a verb is missing"));
  EXPECT_EQ(told(), R"({"error":"usage","exit_code":2,"key":null,"message":"a verb is missing",)"
                    R"("reasons":[],"advice":""})"
                    "\n");
}

}  // namespace
}  // namespace AppCfgTool
