// Command line of configsrvd.
#pragma once

#include <optional>
#include <string>

#include "configsrv/log/log.h"
#include "configsrv/service/service.h"

struct CommandLine {
  ConfigSrv::ServiceOptions service;
  ConfigSrv::LogLevel logLevel = ConfigSrv::LogLevel::Info;
  // Only check these; without a directory of definitions: serve.
  ConfigSrv::FilesToCheck check;
};

struct ParsedCommandLine {
  // Nothing: the program ends with this exit code; everything was said.
  std::optional<CommandLine> commandLine;
  int exitCode = 0;
};

ParsedCommandLine parseCommandLine(int argc, char** argv);
