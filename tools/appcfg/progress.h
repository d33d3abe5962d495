// Progress: how far something long has come, for people who wait at a terminal.
//
//   Progress progress(context.output, "importing", items.size());
//   for (Item& item : items) {
//     write(item);
//     progress.step();  // "appcfg: importing, 1200 of 5000", over and over on one line
//   }
//
// Shape:   one line on standard error, wiped with the object. Nothing when that is no terminal, when
//          JSON was asked for, and in the first second.
// Threads: one.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

#include "tools/appcfg/output.h"

namespace AppCfgTool {

class Progress {
 public:
  static constexpr std::chrono::milliseconds kQuiet{1000};

  // Without a total, 0, it only counts.
  Progress(Output& output, std::string doing, std::size_t total,
           std::chrono::milliseconds quiet = kQuiet);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // Counts anew: what comes now is another pass over so many.
  void begin(std::string doing, std::size_t total);
  void step();

 private:
  void show(const std::string& text);

  Output& output_;
  const bool isShown_;
  std::string doing_;
  std::size_t total_;
  std::size_t done_ = 0;
  std::chrono::steady_clock::time_point next_;
  // Characters that stand on the line.
  std::size_t width_ = 0;
};

}  // namespace AppCfgTool
