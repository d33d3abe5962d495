#include "configsrv/toml/mistake.h"

namespace ConfigSrv {
namespace {

void appendPosition(std::string& out, unsigned number) {
  if (number != 0) out += ':' + std::to_string(number);
}

// Names in a file may hold any character, and what is printed is read line by line.
std::string onOneLine(const std::string& text) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte != 0x7f) {
      out += c;
    } else {
      out += {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 0xf]};
    }
  }
  return out;
}

}  // namespace

std::string formatMistake(const Mistake& mistake) {
  std::string out = mistake.file;
  appendPosition(out, mistake.line);
  appendPosition(out, mistake.column);
  return onOneLine(out + ": " + mistake.text);
}

std::string formatMistakes(const std::vector<Mistake>& mistakes) {
  std::string out;
  for (const Mistake& mistake : mistakes) out += formatMistake(mistake) + '\n';
  return out;
}

}  // namespace ConfigSrv
