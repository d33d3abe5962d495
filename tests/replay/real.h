// The functions of libc themselves, behind those of the same names that this program has
// (libc_*.cpp).
#pragma once

#include <dlfcn.h>

// Without a guard around its first use: guards are among what is replaced.
#define REPLAY_REAL(name)                                                                       \
  [] {                                                                                          \
    static decltype(&::name) real = nullptr;                                                    \
    if (real == nullptr) real = reinterpret_cast<decltype(&::name)>(::dlsym(RTLD_NEXT, #name)); \
    return real;                                                                                \
  }()
