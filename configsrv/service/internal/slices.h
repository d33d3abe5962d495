// Slices: long work, some of it at a time, with everybody else's requests in between.
//
// Each slice is one turn of the user whom the work is for: whoever asks for much waits longer, and
// nobody else does.
//
// Threads:  one. Work that is left at the end is dropped with the server that would run it.
#pragma once

#include <sys/types.h>

#include <functional>
#include <utility>

namespace ConfigSrv {

class Slices {
 public:
  // Returns whether there is more to do.
  using Slice = std::function<bool()>;
  // Has a task run in a later turn of a user's: Server::later.
  using Later = std::function<void(uid_t user, std::function<void()> task)>;

  explicit Slices(Later later) : later_(std::move(later)) {}
  Slices(const Slices&) = delete;
  Slices& operator=(const Slices&) = delete;

  // Runs it in later turns, again and again, until it says that it is done.
  void add(uid_t user, Slice slice) {
    later_(user, [this, user, again = std::move(slice)] {
      if (again()) add(user, again);
    });
  }

 private:
  const Later later_;
};

}  // namespace ConfigSrv
