// Little-endian numbers in byte strings.
//
// Where the machine's own numbers are of this form they are copied: by shifting, a frame's header took
// four times as long.
#pragma once

#include <cstddef>
#include <cstring>
#include <string>

namespace PbUtility {

// Byte order: a predefined macro of GCC and Clang.
constexpr bool kIsLittleEndian = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;

template <typename T>
void putLittleEndian(T number, unsigned char* out) {
  if constexpr (kIsLittleEndian) {
    std::memcpy(out, &number, sizeof number);
  } else {
    for (std::size_t i = 0; i < sizeof(T); ++i)
      out[i] = static_cast<unsigned char>(number >> (8 * i));
  }
}

template <typename T>
T getLittleEndian(const unsigned char* bytes) {
  T number = 0;
  if constexpr (kIsLittleEndian) {
    std::memcpy(&number, bytes, sizeof number);
  } else {
    for (std::size_t i = sizeof(T); i-- > 0;) number = static_cast<T>((number << 8) | bytes[i]);
  }
  return number;
}

template <typename T>
void appendLittleEndian(T number, std::string& out) {
  unsigned char bytes[sizeof(T)];
  putLittleEndian(number, bytes);
  out.append(reinterpret_cast<const char*>(bytes), sizeof bytes);
}

}  // namespace PbUtility
