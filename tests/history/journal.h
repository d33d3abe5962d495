// Journal: the file in which a process writes down what it does; record.h has its lines.
//
// Each line is one system call, so that it is there when the process is killed the moment after. Nobody
// waits for the disk: the lines outlive the process, and need not outlive the machine.
//
// Threads:  any.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "base/unique_fd.h"
#include "tests/history/operation.h"

namespace History {

// Nanoseconds of CLOCK_MONOTONIC.
std::int64_t now();

// What was told of a variable, and how new it is.
struct Stamped {
  std::uint64_t epoch = 0;
  std::uint64_t revision = 0;
  bool isDefault = false;
};

class Journal {
 public:
  // Ends the process when the file cannot be made.
  Journal(const std::string& file, const std::string& process);

  // The number of a change that begins; end() takes it.
  std::uint64_t begin(unsigned thread, bool isReset, const std::string& variable,
                      const std::string& value);
  void end(std::uint64_t id, Outcome outcome, const Stamped& stamped);
  void fresh(What what, unsigned thread, std::int64_t began, const std::string& variable,
             const Stamped& stamped, const std::string& value);
  void cached(What what, unsigned thread, std::int64_t began, const std::string& variable,
              const std::string& value);
  void told(std::uint64_t sender, const Stamped& stamped, const std::string& variable,
            const std::string& value);
  void asked(What what, std::uint64_t sender, bool accepted, const std::string& variable,
             const std::string& value);
  void registered(std::int64_t began, const std::string& name);
  void delivered();

 private:
  void write(std::string line);

  const Base::UniqueFd file_;
  std::atomic<std::uint64_t> next_{1};
};

}  // namespace History
