// Writes definitions for a service of any size: a few variables that are measured, and others of
// all types that are only there. They are spread over files of a thousand each, because there is a
// limit to the length of a file.
#include "bench/processes/definitions.h"

#include <filesystem>
#include <fstream>
#include <system_error>

namespace Bench {
namespace {

constexpr int kVariablesInAGroup = 20;
constexpr int kVariablesInAFile = 1000;

const char kMeasured[] = R"(
[variable."bench.measured.text"]
type = "string"
default = "thermostat"
max-length = 64
description = "Read by the benchmarks"
)";

const char* const kTypes[] = {
    "type = \"string\"\ndefault = \"living room\"\nmax-length = 63\n",
    "type = \"int\"\ndefault = 1500\nmin = 0\nmax = 9000\n",
    "type = \"bool\"\ndefault = true\n",
    "type = \"list\"\ndefault = [\"192.0.2.1\", \"192.0.2.2\"]\nmax-elements = 4\n",
    "type = \"enumeration\"\noptions = [\"off\", \"eco\", \"comfort\"]\ndefault = \"eco\"\n",
};

// One for each process that writes. A client is told of all instances of a name, so writers who
// shared a name would be measured telling each other.
void writeWritten(std::ofstream& file) {
  for (int n = 0; n < kWrittenVariables; ++n) {
    file << "[variable.\"" << writtenVar(n).dottedName() << "\"]\n"
         << "type = \"int\"\ndefault = 0\nmin = 0\nmax = 2000000000\n"
         << "description = \"Written by the benchmarks\"\n\n";
  }
}

void writeOthers(std::ofstream& file, int first, int end) {
  for (int n = first; n < end; ++n) {
    const ConfigVar var = otherVar(n);
    file << "[variable.\"" << var.dottedName() << "\"]\n"
         << kTypes[n % 5] << "description = \"One of many\"\n\n";
  }
}

}  // namespace

ConfigVar textVar() { return ConfigVar(kGroup, 0, "text", 0); }

ConfigVar writtenVar(int n) { return ConfigVar(kGroup, 0, "written" + std::to_string(n), 0); }

ConfigVar otherVar(int n) {
  return ConfigVar("device.zone" + std::to_string(n / kVariablesInAGroup), 0,
                   "setting" + std::to_string(n % kVariablesInAGroup), 0);
}

bool writeDefinitions(const std::string& directory, int others) {
  std::error_code error;
  std::filesystem::create_directories(directory, error);
  std::ofstream measured(directory + "/10-measured.toml");
  measured << kMeasured;
  writeWritten(measured);
  bool written = measured.flush().good();
  for (int n = 0; n < others; n += kVariablesInAFile) {
    std::ofstream file(directory + "/20-others-" + std::to_string(n) + ".toml");
    writeOthers(file, n, std::min(n + kVariablesInAFile, others));
    written = written && file.flush().good();
  }
  return written;
}

}  // namespace Bench
