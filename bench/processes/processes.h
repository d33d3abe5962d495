// Child, Signal, Shared, TempDir: what several processes of one run are made of.
//
// Everything is made before the first thread: children are forked, not started anew.
#pragma once

#include <sys/mman.h>
#include <sys/types.h>

#include <functional>
#include <new>
#include <string>

namespace Bench {

// A forked process. Ends with its parent, at the latest.
class Child {
 public:
  // Runs the body in the child and exits with what it returns.
  explicit Child(const std::function<int()>& body);
  // Kills what has not ended.
  ~Child();
  Child(Child&& other) noexcept : pid_(other.pid_) { other.pid_ = -1; }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }
  // Waits until it ends; whether it returned 0.
  bool join();

 private:
  pid_t pid_;
};

// Something that processes wait for: a pipe with a byte for each time it was raised.
class Signal {
 public:
  Signal();
  ~Signal();
  Signal(const Signal&) = delete;
  Signal& operator=(const Signal&) = delete;

  void raise(int times = 1);
  // False when nobody raised it that often within ten seconds: the run has failed.
  [[nodiscard]] bool await(int times = 1);
  // Once, whenever it comes.
  [[nodiscard]] bool awaitForever();

 private:
  bool awaitOnce(int patienceMilliseconds);

  int ends_[2];
};

// A T that this process shares with the children that it forks after making it.
template <typename T>
class Shared {
 public:
  Shared()
      : place_(
            ::mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)),
        object_(new (place_) T()) {}
  ~Shared() { ::munmap(place_, sizeof(T)); }
  Shared(const Shared&) = delete;
  Shared& operator=(const Shared&) = delete;

  T* operator->() const { return object_; }
  T& operator*() const { return *object_; }

 private:
  void* const place_;
  T* const object_;
};

// A directory below another, removed with all in it.
class TempDir {
 public:
  explicit TempDir(const std::string& parent);
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

}  // namespace Bench
