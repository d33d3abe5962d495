// configsrvd: the configuration service. Runs in the foreground until SIGTERM or SIGINT.
//
//   configsrvd --definitions /etc/appconfig/definitions.d --store /var/lib/appconfig/store.db
//
// Standard output gets one line, "ready: ...", once clients can connect; everything else is a log
// line on standard error. A service manager is told READY=1 and STOPPING=1 (sd_notify(3)) and may
// hand over the listening socket (sd_listen_fds(3)).
//
// Exit codes: exit_code.h.
#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstdio>

#include "configsrv/configsrvd/command_line.h"
#include "configsrv/configsrvd/exit_code.h"
#include "configsrv/configsrvd/notify_manager.h"
#include "configsrv/configsrvd/stop_signals.h"
#include "configsrv/log/log.h"
#include "configsrv/service/service.h"

namespace {

using ConfigSrv::Log;
using ConfigSrv::Service;
using ConfigSrv::StartedService;
using ConfigSrv::StartStatus;

void say(std::FILE* where, const std::string& line) {
  std::fprintf(where, "%s\n", line.c_str());
  std::fflush(where);
}

int check(const ConfigSrv::FilesToCheck& files) {
  std::size_t variables = 0;
  const std::vector<std::string> mistakes = ConfigSrv::checkFiles(files, variables);
  for (const std::string& mistake : mistakes) say(stderr, mistake);
  if (!mistakes.empty()) return kExitBadDefinitions;
  say(stdout, std::to_string(variables) + " variables, no mistakes");
  return kExitOk;
}

void tellManager(const Log& log, const std::string& state) {
  const Base::Status<> told = notifyManager(state);
  if (!told.ok()) log.warning(told.text);
}

int exitCodeOf(StartStatus status) {
  switch (status) {
    case StartStatus::Ok:
      return kExitOk;
    case StartStatus::BadDefinitions:
      return kExitBadDefinitions;
    case StartStatus::BadStore:
      return kExitBadStore;
    case StartStatus::BadSocket:
      return kExitBadSocket;
  }
  return kExitFailed;
}

// Mistakes in files are said as they are, "file:line: text", for editors to follow.
int reportFailedStart(const StartedService& started, const Log& log) {
  for (const std::string& line : started.lines) {
    if (started.status == StartStatus::BadDefinitions)
      say(stderr, line);
    else
      log.error(line);
  }
  return exitCodeOf(started.status);
}

// Free memory is of more use to the device than to this allocator. Small blocks are joined with what
// is free beside them at once, rather than kept for the next of their size: they would be all that
// keeps the heap in which the definitions were read from being given back.
// One heap serves both threads, which seldom want it at once: what the one gave back the other can have.
void keepLittleFreeMemory() {
#ifdef __GLIBC__
  mallopt(M_MXFAST, 0);
  mallopt(M_ARENA_MAX, 1);
  mallopt(M_TRIM_THRESHOLD, 128 * 1024);
#endif
}

void returnFreeMemory() {
#ifdef __GLIBC__
  malloc_trim(0);
#endif
}

// Each connection is a descriptor, and what a process may open by itself (1024, usually) is for
// programs that use select(2), which this one does not. What the hard limit allows is ours to take.
void raiseDescriptorLimit(const Log& log) {
  constexpr rlim_t kEnough = 4096;
  rlimit files{};
  if (getrlimit(RLIMIT_NOFILE, &files) != 0 || files.rlim_cur >= kEnough) return;
  files.rlim_cur = std::min(files.rlim_max, kEnough);
  if (setrlimit(RLIMIT_NOFILE, &files) != 0)
    log.warning("cannot raise the limit of open files: fewer clients can connect");
}

// Serves until a signal ends it, or until it is to be started anew. A signal that comes while it ends
// to be started anew ends it for good.
Service::End serve(Service& service, StopSignals& signals, const Log& log, bool isFirst) {
  std::atomic<bool> signalled{false};
  signals.waitInBackground([&] {
    signalled = true;
    tellManager(log, "STOPPING=1");
    service.stop();
  });
  log.info("serving " + service.describe());
  if (isFirst) {
    say(stdout, "ready: " + service.describe());
    tellManager(log, "READY=1");
  }
  const Service::End end = service.run();
  signals.stopWaiting();
  return signalled ? Service::End::Stopped : end;
}

// The socket that was handed over stays ours, so that clients wait at it while there is no service.
ConfigSrv::ServiceOptions withOwnSocket(ConfigSrv::ServiceOptions options) {
  if (options.listenFd >= 0) options.listenFd = fcntl(options.listenFd, F_DUPFD_CLOEXEC, 0);
  return options;
}

int serveUntilStopped(const ConfigSrv::ServiceOptions& options, StopSignals& signals,
                      const Log& log) {
  for (bool isFirst = true;; isFirst = false) {
    const StartedService started = Service::start(withOwnSocket(options), log);
    if (started.status != StartStatus::Ok) return reportFailedStart(started, log);
    returnFreeMemory();
    if (serve(*started.service, signals, log, isFirst) == Service::End::Restart) continue;
    log.info("stopped");
    return kExitOk;
  }
}

}  // namespace

int main(int argc, char** argv) {
  keepLittleFreeMemory();
  ParsedCommandLine parsed = parseCommandLine(argc, argv);
  if (!parsed.commandLine) return parsed.exitCode;
  CommandLine& line = *parsed.commandLine;
  if (!line.check.definitionsDirs.empty()) return check(line.check);

  // Neither a reader of our output that went away nor a limit on the size of files ends the service:
  // the write fails, as on a full disk. Directories are made for everybody to enter, for who may do what
  // is decided by roles.
  signal(SIGPIPE, SIG_IGN);
  signal(SIGXFSZ, SIG_IGN);
  umask(S_IWGRP | S_IWOTH);
  StopSignals signals;
  const Log log(line.logLevel, Log::toStandardError());
  const Base::Status<> taken = takeListeningSocket(line.service.listenFd);
  if (!taken.ok()) {
    log.error(taken.text);
    return kExitBadSocket;
  }
  raiseDescriptorLimit(log);
  return serveUntilStopped(line.service, signals, log);
}
