// appcfg: the device's configuration on the command line.
//
// The words become a CommandLine, which names a verb; the verb runs, and its Outcome is printed and
// becomes the exit code. What has to hold for every verb is seen to here: usable standard
// descriptors, no end by SIGPIPE, and no success when the output could not be written.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "tools/appcfg/command_line.h"
#include "tools/appcfg/help.h"
#include "tools/appcfg/output.h"
#include "tools/appcfg/session.h"
#include "tools/appcfg/suggest.h"

namespace AppCfgTool {
namespace {

// A caller may have closed any of the three. Whatever is opened next would take their number, and
// what is printed would go to the service. Opened for reading alone, so that writing fails and is
// told.
void keepStandardDescriptors() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (::fcntl(fd, F_GETFD) == -1) static_cast<void>(::open("/dev/null", O_RDONLY));
  }
}

Outcome runVerb(const CommandLine& line, Output& output) {
  Session session(line.settings);
  Context context{line.settings, session, output};
  Outcome outcome = line.verb->run(context, line.arguments);
  suggestName(context, *line.verb, outcome);
  return outcome;
}

Outcome carryOut(const CommandLine& line, Output& output) {
  switch (line.kind) {
    case CommandLine::Kind::Run:
      return runVerb(line, output);
    case CommandLine::Kind::Help:
      output.bytes(line.verb == nullptr ? helpText() : helpText(*line.verb));
      return {};
    case CommandLine::Kind::Version:
      output.line("appcfg " APPCFG_VERSION);
      return {};
    case CommandLine::Kind::Mistake:
      break;
  }
  return line.mistake;
}

// What was printed before a failure is an answer all the same: the verdict of validate, say.
Outcome finish(Outcome outcome, Output& output) {
  if (output.flush() != WriteState::Failed || !outcome.ok()) return outcome;
  return failure(kExitFailed,
                 std::string("cannot write to standard output: ") + std::strerror(errno));
}

int run(const std::vector<std::string>& words) {
  const CommandLine line = parseCommandLine(words);
  Output output(line.settings.json);
  const Outcome outcome = finish(carryOut(line, output), output);
  if (!outcome.text.empty()) output.failure(outcome);
  return outcome.code;
}

}  // namespace
}  // namespace AppCfgTool

int main(int argc, char** argv) {
  AppCfgTool::keepStandardDescriptors();
  ::signal(SIGPIPE, SIG_IGN);
  return AppCfgTool::run({argv + (argc > 0 ? 1 : 0), argv + argc});
}
