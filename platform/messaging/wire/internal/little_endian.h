// Little-endian numbers in byte strings.
#pragma once

#include <cstddef>
#include <string>

namespace PbUtility {

template <typename T>
void putLittleEndian(T number, unsigned char* out) {
  for (std::size_t i = 0; i < sizeof(T); ++i)
    out[i] = static_cast<unsigned char>(number >> (8 * i));
}

template <typename T>
T getLittleEndian(const unsigned char* bytes) {
  T number = 0;
  for (std::size_t i = sizeof(T); i-- > 0;) number = static_cast<T>((number << 8) | bytes[i]);
  return number;
}

template <typename T>
void appendLittleEndian(T number, std::string& out) {
  unsigned char bytes[sizeof(T)];
  putLittleEndian(number, bytes);
  out.append(reinterpret_cast<const char*>(bytes), sizeof bytes);
}

}  // namespace PbUtility
