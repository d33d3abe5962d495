// How configsrvd ends.
#pragma once

enum ExitCode : int {
  kExitOk = 0,
  // Something that none of the others covers.
  kExitFailed = 1,
  // The command line.
  kExitUsage = 2,
  // Definitions or the table of roles hold mistakes, and none were good before; each stands on standard
  // error.
  kExitBadDefinitions = 3,
  // The store cannot be used: rights, another process, a newer version.
  kExitBadStore = 4,
  // The socket cannot be made or taken over.
  kExitBadSocket = 5,
};
