#include "examples/gateway/text.h"

#include <cstdio>

namespace Gateway {

namespace {

std::string withInstance(const std::string& part, int instance) {
  return instance == 0 ? part : part + "[" + std::to_string(instance) + "]";
}

}  // namespace

std::string keyText(const std::string& group, int groupInstance, const std::string& name,
                    int nameInstance) {
  const std::string groupText = withInstance(group, groupInstance);
  return name.empty() ? groupText : groupText + "." + withInstance(name, nameInstance);
}

std::string valueText(const std::list<std::string>& value) {
  std::string text;
  for (const std::string& element : value) {
    if (!text.empty()) text += ' ';
    text += element;
  }
  return text.empty() ? "(nothing)" : text;
}

void say(const std::string& line) {
  std::puts(line.c_str());
  std::fflush(stdout);
}

}  // namespace Gateway
