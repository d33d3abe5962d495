// Output: what appcfg says. Values go to standard output, all else to standard error.
//
// Buffer:  standard output is collected and written by flush(): a failed verb prints no half of an
//          answer, and a listing is one write rather than thousands. Standard error is written at
//          once.
// Errors:  flush() tells a reader that went away (`appcfg list | head -1`: no mistake, so nothing
//          is said) from output that could not be written.
// Threads: one thread.
// Owns:    neither descriptor. SIGPIPE is to be ignored by the program.
#pragma once

#include <string>
#include <string_view>

#include "tools/appcfg/outcome.h"
#include "tools/appcfg/record.h"

namespace AppCfgTool {

enum class WriteState { Written, ReaderGone, Failed };

class Output {
 public:
  explicit Output(bool json, int outFd = 1, int errFd = 2);

  // Whether the user asked for JSON; verbs then call record() and nothing else.
  bool json() const { return json_; }
  // Whether people are looking: output may then be arranged for the eye.
  bool toTerminal() const { return toTerminal_; }
  // Characters on a line there; 0 when it is no terminal, or one that does not say.
  std::size_t columns() const;
  // Whether people read what is told beside it.
  bool errToTerminal() const { return errToTerminal_; }
  int outFd() const { return outFd_; }

  void bytes(std::string_view bytes) { waiting_ += bytes; }
  // Adds the line break.
  void line(std::string_view text);
  void record(const Record& record);
  [[nodiscard]] WriteState flush();

  // To standard error, each line after "appcfg: ". A failure in JSON is one object.
  void note(std::string_view text);
  void failure(const Outcome& outcome);
  // To standard error as it is, for help and questions.
  void say(std::string_view text);

 private:
  const bool json_;
  const int outFd_;
  const int errFd_;
  const bool toTerminal_;
  const bool errToTerminal_;
  std::string waiting_;
};

}  // namespace AppCfgTool
