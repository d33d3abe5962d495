// The real appcfg, run by tests as a user runs it.
//
//   const Appcfg appcfg(runtimeDir);
//   const Ended run = appcfg({"get", "net.mtu"});
//   EXPECT_EQ(run.code, 0);
//   EXPECT_EQ(run.out, "1500\n");
//
//   RunningAppcfg watch(runtimeDir, {"watch"});
//   EXPECT_EQ(watch.line(), "net.mtu = 1500");
//   EXPECT_EQ(watch.stop(SIGTERM), 0);
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace TestSupport {

using Words = std::vector<std::string>;

struct Ended {
  // Exit code; the negated number of the signal that ended it otherwise.
  int code = -1;
  std::string out;
  std::string err;
};

class Appcfg {
 public:
  // APPCONFIG_RUNTIME_DIR of every run.
  explicit Appcfg(std::string runtimeDir) : runtimeDir_(std::move(runtimeDir)) {}

  // Runs it to its end, with nothing on its standard input, or with this.
  Ended operator()(const Words& words, const std::string& input = "") const;
  // Runs it with a terminal of so many columns as standard output and standard error; out is what came
  // to the terminal, with its line breaks as the program wrote them.
  Ended atTerminal(const Words& words, unsigned short columns = 80) const;
  // Where the program is.
  static std::string program();

 private:
  const std::string runtimeDir_;
};

// One that stays. Whatever it is doing, it is gone after the destructor.
class RunningAppcfg {
 public:
  RunningAppcfg(const std::string& runtimeDir, const Words& words);
  ~RunningAppcfg();
  RunningAppcfg(const RunningAppcfg&) = delete;
  RunningAppcfg& operator=(const RunningAppcfg&) = delete;

  // The next line of its standard output, without the line break; nothing when it ended or printed
  // none in time.
  std::optional<std::string> line();
  // What it said on standard error so far.
  std::string err() const;
  // Waits until it said this there; false when it did not in time.
  bool waitForErr(const std::string& text) const;
  // Stops reading, as a pipe's other end that goes away.
  void closeOut();
  // Waits for its end; the code as in Ended.
  int wait();
  // Sends a signal and waits.
  int stop(int signal);

 private:
  pid_t pid_ = -1;
  int out_ = -1;
  int err_ = -1;
  std::string read_;
};

}  // namespace TestSupport
