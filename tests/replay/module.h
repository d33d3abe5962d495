// Module: a shared object with variables of its own, which can be made as new.
//
// A client that starts again gets its module's variables as they were when it was loaded: that is
// what makes a new process of it. The memory that its former life had on the heap is lost.
//
// Errors:   a module that cannot be loaded ends the process.
// Threads:  whoever has the baton, while no thread runs the module's code.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tests/replay/story.h"

namespace Replay {

class Module {
 public:
  explicit Module(const std::string& file);
  Module(const Module&) = delete;
  Module& operator=(const Module&) = delete;

  void renew() const;
  RunClient& client() const { return *client_; }

 private:
  struct Segment {
    void* place;
    std::string bytes;
  };

  void keepSegment(std::uintptr_t begin, std::uintptr_t end);

  RunClient* client_ = nullptr;
  std::vector<Segment> segments_;
};

}  // namespace Replay
