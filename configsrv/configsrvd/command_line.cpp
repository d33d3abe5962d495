// One function for each sort of options, so that --help shows them in this order. The library checks
// types and ranges; what depends on several options, or on the environment, is checked in missing().
#include "configsrv/configsrvd/command_line.h"

#include <CLI/CLI.hpp>
#include <map>

#include "base/status.h"
#include "configsrv/configsrvd/exit_code.h"

namespace {

using ConfigSrv::LogLevel;

const char* const kFooter =
    "Exit codes: 0 stopped by SIGTERM or SIGINT, or nothing wrong with --check; 1 other failure;\n"
    "2 usage; 3 mistakes in the definitions or the table of roles (without --check: and none that\n"
    "were good before); 4 the store cannot be used (rights, another service, a newer version's);\n"
    "5 the socket cannot be made.";

void addServiceOptions(CLI::App& app, CommandLine& line) {
  app.add_option(
         "--definitions", line.service.definitionsDirs,
         "Directory of the definitions (*.toml); given several times, a file of a later one "
         "replaces one of its name in an earlier one")
      ->type_name("DIR")
      ->allow_extra_args(false);
  app.add_option("--store", line.service.storeFile, "File that keeps what was changed")
      ->type_name("FILE");
  app.add_option("--runtime-dir", line.service.runtimeDir,
                 "Directory of the socket; else $APPCONFIG_RUNTIME_DIR, /run/appconfig for root, "
                 "$XDG_RUNTIME_DIR/appconfig")
      ->type_name("DIR");
  app.add_option("--roles", line.service.rolesFile, "Which user may claim which role (TOML)")
      ->type_name("FILE");
  app.add_option("--audit", line.service.auditFile,
                 "Record every change, made or refused, in this file (JSON lines); else nowhere")
      ->type_name("FILE");
  app.add_option("--prefix", line.service.endpointPrefix,
                 "Prefix of the endpoint: serves PREFIX/ConfigSrvc instead of ConfigSrvc")
      ->type_name("PREFIX");
}

// In milliseconds; the ranges below keep them small enough to be added to any time.
struct Times {
  long long deadline;
  long long grace;
};

void addTimes(CLI::App& app, Times& times) {
  app.add_option("--provider-deadline", times.deadline,
                 "How long a provider may take to answer a question, in ms (3000)")
      ->type_name("MS")
      ->check(CLI::Range(1LL, 3'600'000LL));
  app.add_option("--provider-grace", times.grace,
                 "How long after a restart changes wait for a provider that was there before and "
                 "still runs, in ms (2000)")
      ->type_name("MS")
      ->check(CLI::Range(0LL, 3'600'000LL));
}

// Flash memory wears out by what is written in a time. How much of that one user may cause is for the
// integrator to say, who knows the memory.
void addHourly(CLI::App& app, CommandLine& line) {
  constexpr std::uint64_t kMost = std::uint64_t{1} << 40;
  app.add_option("--commits-per-hour", line.service.commitsPerHour,
                 "Durable changes that one ordinary user may cause in an hour; else without limit")
      ->type_name("N")
      ->check(CLI::Range(std::uint64_t{1}, kMost));
  app.add_option(
         "--bytes-per-hour", line.service.bytesPerHour,
         "Bytes that one ordinary user may have made durable in an hour, 4096 and the texts "
         "for each change; else without limit")
      ->type_name("N")
      ->check(CLI::Range(std::uint64_t{1}, kMost));
}

void addLogLevel(CLI::App& app, LogLevel& level) {
  static const std::map<std::string, LogLevel> kLevels = {{"error", LogLevel::Error},
                                                          {"warning", LogLevel::Warning},
                                                          {"info", LogLevel::Info},
                                                          {"debug", LogLevel::Debug}};
  const auto take = [&level](const std::string& name) { level = kLevels.at(name); };
  app.add_option_function<std::string>("--log-level", take,
                                       "Least important lines to log: error, warning, info (as "
                                       "without this option) or debug")
      ->type_name("LEVEL")
      ->check(CLI::IsMember({"error", "warning", "info", "debug"}));
}

void addCheckOptions(CLI::App& app, ConfigSrv::FilesToCheck& check) {
  app.add_option(
         "--check", check.definitionsDirs,
         "Check the definitions of a directory, several times as --definitions, and the table "
         "of --roles, and end")
      ->type_name("DIR")
      ->allow_extra_args(false);
  app.add_option(
         "--sysroot", check.sysroot,
         "With --check: the table of roles may name the users and groups of DIR/etc/passwd and "
         "DIR/etc/group instead of this system's")
      ->type_name("DIR");
}

// What the options alone cannot say.
Base::Status<> checkTogether(const CommandLine& line) {
  if (!line.check.sysroot.empty() && line.service.rolesFile.empty())
    return Base::failed("--sysroot says whom the table of roles may name: give --roles as well");
  if (!line.check.definitionsDirs.empty()) return {};
  if (!line.check.sysroot.empty()) return Base::failed("--sysroot goes with --check alone");
  if (line.service.definitionsDirs.empty()) return Base::failed("--definitions is required");
  if (line.service.storeFile.empty()) return Base::failed("--store is required");
  return {};
}

ParsedCommandLine ended(int exitCode) { return {std::nullopt, exitCode}; }

}  // namespace

ParsedCommandLine parseCommandLine(int argc, char** argv) {
  CLI::App app("Configuration service: serves the variables that the definitions name.");
  CommandLine line;
  Times times{line.service.providerDeadline.count(), line.service.providerGrace.count()};
  addServiceOptions(app, line);
  addTimes(app, times);
  addHourly(app, line);
  addLogLevel(app, line.logLevel);
  addCheckOptions(app, line.check);
  app.set_version_flag("--version", "configsrvd " APPCONFIG_VERSION);
  app.footer(kFooter);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const bool wasAnswer = error.get_exit_code() == 0;
    app.exit(error);
    return ended(wasAnswer ? kExitOk : kExitUsage);
  }
  line.service.providerDeadline = std::chrono::milliseconds(times.deadline);
  line.service.providerGrace = std::chrono::milliseconds(times.grace);
  line.check.rolesFile = line.service.rolesFile;
  const Base::Status<> together = checkTogether(line);
  if (together.ok()) return {line, kExitOk};
  std::cerr << together.text << "\nRun with --help for more information.\n";
  return ended(kExitUsage);
}
