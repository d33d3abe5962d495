#include "tools/appcfg/progress.h"

#include <algorithm>
#include <utility>

namespace AppCfgTool {
namespace {

using std::chrono::steady_clock;

// Often enough to be seen to move.
constexpr std::chrono::milliseconds kEvery(200);

}  // namespace

Progress::Progress(Output& output, std::string doing, std::size_t total,
                   std::chrono::milliseconds quiet)
    : output_(output),
      isShown_(output.errToTerminal() && !output.json()),
      doing_(std::move(doing)),
      total_(total),
      next_(steady_clock::now() + quiet) {}

Progress::~Progress() {
  if (width_ == 0) return;
  show({});
  output_.say("\r");
}

void Progress::begin(std::string doing, std::size_t total) {
  doing_ = std::move(doing);
  total_ = total;
  done_ = 0;
}

void Progress::step() {
  ++done_;
  if (!isShown_ || steady_clock::now() < next_) return;
  next_ = steady_clock::now() + kEvery;
  const std::string of = total_ == 0 ? "" : " of " + std::to_string(total_);
  show("appcfg: " + doing_ + ", " + std::to_string(done_) + of);
}

// Blanks over what stood there before: not every terminal knows how to wipe a line.
void Progress::show(const std::string& text) {
  const std::size_t before = std::exchange(width_, text.size());
  output_.say('\r' + text + std::string(before - std::min(before, text.size()), ' '));
}

}  // namespace AppCfgTool
