// The main() of a fuzz program that no fuzzer drives: runs the inputs that are named, files and
// directories of files, one after another, and says how many there were. None is a failure.
//
//   build/dev/bin/key_notation_fuzz fuzz/corpus/key_notation crash-1234
//   build/dev/bin/service_fuzz --twice fuzz/corpus/service
//
// Twice: all of them, and then again the other way round. An input that was answered differently the
// second time has met something that another one left behind, and is a failure.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/input.h"

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> filesIn(const fs::path& path) {
  if (!fs::is_directory(path)) return {path};
  std::vector<fs::path> files;
  for (const fs::directory_entry& entry : fs::directory_iterator(path)) {
    if (entry.is_regular_file()) files.push_back(entry.path());
  }
  // A failure has to name the same file every time.
  std::sort(files.begin(), files.end());
  return files;
}

// What each was answered with.
using Answers = std::map<fs::path, std::uint64_t>;

bool replay(const fs::path& path, Answers& answers) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    std::fprintf(stderr, "cannot read %s\n", path.c_str());
    return false;
  }
  std::ostringstream content;
  content << file.rdbuf();
  const std::string bytes = content.str();
  // Told before it runs, so that the last line names the input of a crash.
  std::printf("%s\n", path.c_str());
  std::fflush(stdout);
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  const std::uint64_t answered = Fuzz::takeObserved();
  const auto [known, isNew] = answers.emplace(path, answered);
  if (isNew || known->second == answered) return true;
  std::fprintf(stderr,
               "BROKEN PROMISE: an input is answered alike whatever was run before it: %s\n",
               path.c_str());
  return false;
}

bool replayAll(const std::vector<fs::path>& paths, Answers& answers) {
  return std::all_of(paths.begin(), paths.end(),
                     [&](const fs::path& path) { return replay(path, answers); });
}

}  // namespace

int main(int count, char** arguments) {
  const bool isTwice = count > 1 && std::string_view(arguments[1]) == "--twice";
  std::vector<fs::path> paths;
  for (int i = isTwice ? 2 : 1; i < count; ++i) {
    for (const fs::path& path : filesIn(arguments[i])) paths.push_back(path);
  }
  Answers answers;
  if (!replayAll(paths, answers)) return 1;
  std::reverse(paths.begin(), paths.end());
  if (isTwice && !replayAll(paths, answers)) return 1;
  std::printf("replayed %zu inputs\n", paths.size());
  return paths.empty() ? 1 : 0;
}
