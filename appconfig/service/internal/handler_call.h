// callHandler: calls one operation of an application's handler, and ends the program when it throws.
//
// What a handler throws must not pass through the message layer: its delivery thread is in the
// middle of an exchange with the service, and nobody above it would know what to do. That the
// program ends is what would happen anyway; that it says first which handler it was is what this is
// for:
//
//   appconfig: a handler's configChanged for net.mtu threw: map::at
//
// Costs nothing while nothing is thrown. A thread that is being ended by pthread_exit or
// pthread_cancel in a handler is let go.
#pragma once

#include <cxxabi.h>

#include <cstdio>
#include <exception>
#include <string>

namespace AppConfig {

[[noreturn]] inline void endAfterThrow(const char* operation, const std::string& variable,
                                       const char* what) {
  std::fprintf(stderr, "appconfig: a handler's %s for %s threw: %s\n", operation, variable.c_str(),
               what);
  std::terminate();
}

// `name()` gives the variable's dotted name, and is called only when it is needed.
template <typename Name, typename Call>
auto callHandler(const char* operation, Name name, Call call) -> decltype(call()) {
  try {
    return call();
  } catch (const abi::__forced_unwind&) {
    throw;
  } catch (const std::exception& thrown) {
    endAfterThrow(operation, name(), thrown.what());
  } catch (...) {
    endAfterThrow(operation, name(), "something that is no std::exception");
  }
}

}  // namespace AppConfig
