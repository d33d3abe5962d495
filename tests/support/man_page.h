// What a manual page (roff, as man(7) has it) describes: the tags of a section's list.
#pragma once

#include <set>
#include <sstream>
#include <string>

namespace TestSupport {

// ".BR group\\-instances \", \" instances" is "group-instances" and "instances".
inline void addTags(const std::string& line, std::set<std::string>& tags) {
  std::string text = line.substr(line.find(' ') + 1);
  for (const char mark : {'"', ',', '\\'}) {
    std::string kept;
    for (const char c : text) {
      if (c != mark) kept += c;
    }
    text = kept;
  }
  std::istringstream words(text);
  for (std::string word; words >> word;) tags.insert(word);
}

// The words that .TP is followed by, between ".SH section" and the next one.
inline std::set<std::string> manPageTags(const std::string& page, const std::string& section) {
  std::set<std::string> tags;
  std::istringstream lines(page);
  bool isInSection = false;
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind(".SH ", 0) == 0) isInSection = line == ".SH " + section;
    if (isInSection && line == ".TP" && std::getline(lines, line)) addTags(line, tags);
  }
  return tags;
}

}  // namespace TestSupport
