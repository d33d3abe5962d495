// Slices: long work, some of it at a time, with everybody else's requests in between.
//
// Each turn runs one slice, of the users in turn: who has asked for much long work does not hold up
// another's.
//
// Threads  one. Work that is left when this object goes is dropped.
#pragma once

#include <sys/types.h>

#include <deque>
#include <functional>
#include <map>

namespace ConfigSrv {

class Slices {
 public:
  // Returns whether there is more to do.
  using Slice = std::function<bool()>;
  // Has a task run in a later turn of the loop.
  using Later = std::function<void(std::function<void()> task)>;

  explicit Slices(Later later) : later_(std::move(later)) {}
  Slices(const Slices&) = delete;
  Slices& operator=(const Slices&) = delete;

  // Runs it in later turns, again and again, until it says that it is done.
  void add(uid_t user, Slice slice);

 private:
  void schedule();
  void runOne();

  const Later later_;
  std::map<uid_t, std::deque<Slice>> waiting_;
  uid_t lastUser_ = 0;
  bool isScheduled_ = false;
};

}  // namespace ConfigSrv
