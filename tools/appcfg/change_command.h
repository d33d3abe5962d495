// ChangeCommand: the program that `watch --exec` runs for each change.
//
// Order:   one at a time, in the order in which variables changed. While it runs, each variable that
//          changes waits once, with its newest value: a slow program never works through what is over.
// Program: found by PATH and started as it is, by no shell. It reads /dev/null, and has the change in
//          its environment:
//            APPCFG_KEY       the key: network.eth[1].mtu
//            APPCFG_VALUE     the elements as they are, a line break between two
//            APPCFG_ELEMENTS  how many they are
//          A value that no environment can hold, with a zero byte or past 96 KiB, is left out of it:
//          the program can ask for it with `appcfg get`.
// Failures: an end with another code than 0 is told, and the next change runs it again. A program that
//          cannot be started is the end.
// Threads: one.
#pragma once

#include <sys/types.h>

#include <deque>
#include <string>
#include <vector>

#include "appconfig/core/config_var.h"
#include "tools/appcfg/outcome.h"
#include "tools/appcfg/output.h"

namespace AppCfgTool {

class ChangeCommand {
 public:
  static constexpr std::size_t kLongestValue = std::size_t{96} << 10;

  // The program and its arguments. The output outlives it, and gets what is to be told.
  ChangeCommand(Output& output, std::vector<std::string> words);

  void add(const ConfigVar& var, const std::vector<std::string>& value);
  bool isWaiting() const { return !waiting_.empty(); }

  // Runs it for the change that waits longest, and waits for its end. kExitNo, which says nothing, when
  // stopFd became readable first: the program is then told to end, too.
  Outcome runNext(int stopFd);

 private:
  struct Waiting {
    ConfigVar var;
    std::vector<std::string> value;
  };

  Outcome start(const Waiting& change, pid_t& pid);
  void tellEnd(const std::string& key, int status);

  Output& output_;
  std::vector<std::string> words_;
  std::deque<Waiting> waiting_;
};

}  // namespace AppCfgTool
