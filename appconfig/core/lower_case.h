// lowerCase: how names are folded, in the library and in the service alike.
//
// Shape:    the letters A to Z become a to z; every other byte stays as it is. No locale takes part,
//           so that two programs of one device always mean the same variable by the same name.
// Threads:  plain functions; any number of threads may call them.
//
//   lowerCase("Network.Eth")  // "network.eth"
#pragma once

#include <string>

namespace AppConfig {

constexpr char lowerCase(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

inline std::string lowerCase(std::string text) {
  for (char& c : text) c = lowerCase(c);
  return text;
}

}  // namespace AppConfig
