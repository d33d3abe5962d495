// kStride: of a test that tries the same thing at thousands of places or in thousands of rounds,
// each kStride-th is tried.
//
// 1 on the machine that builds: all of them. Under an emulator, which takes ten times as long, few:
// what another width of words breaks is broken at any of them, and how threads meet there is the
// emulator's doing and no device's.
#pragma once

namespace TestSupport {

#ifdef APPCONFIG_EMULATED
constexpr int kStride = 7;
#else
constexpr int kStride = 1;
#endif

}  // namespace TestSupport
