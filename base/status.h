// Status: how an operation ended: a code to act on, and a text to show.
//
// Shape:    the code's zero, whatever its name, is success, and its text is empty. Any other code
//           comes with one line: what happened, to which variable or file, what to do.
// Threads:  a plain value.
//
// Each part of the system has codes of its own, told apart by what the caller can do. Where there is
// only one thing to do, which is to pass the text on, it is a Status<>:
//
//   Base::Status<> Server::open() {
//     if (!loop_.open()) return Base::failed("cannot open an event loop");
//     return {};
//   }
//   const Base::Status<> opened = server.open();
//   if (!opened.ok()) log.error(opened.text);
//
// What has more to tell of its end derives from one, so that these words are the same everywhere. A
// question whose answer is a reason ("why may it not join?") is no operation, and stays a string.
#pragma once

#include <string>
#include <utility>

namespace Base {

// The codes of what can fail in one way.
enum class Success { Yes, No };

template <typename Code = Success>
struct [[nodiscard]] Status {
  Code code{};
  std::string text{};

  bool ok() const { return code == Code{}; }
};

// Rare, and in many places: a call each, and no copy of it.
[[gnu::cold, gnu::noinline]] inline Status<> failed(std::string text) {
  return {Success::No, std::move(text)};
}

}  // namespace Base
