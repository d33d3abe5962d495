// Story: what the clients of the simulated device do and see, told to whoever judges it.
//
// Each variable holds a number, 0 at first, and has one writer, who writes larger and larger ones.
// So of two values the larger one is the newer, wherever it is met.
//
// A client is a module of its own (client.cpp), loaded once for each client under another name, for
// the library that is in it is made to be one of a process. This interface is all that it knows of
// the program that loads it.
#pragma once

#include <cstdint>

namespace Replay {

constexpr int kWriters = 2;
constexpr int kVariablesOfEach = 4;
constexpr int kVariables = kWriters * kVariablesOfEach;
// The provider owns the last variable of each writer, and refuses every seventh number.
constexpr bool isProvided(int variable) {
  return variable % kVariablesOfEach == kVariablesOfEach - 1;
}
constexpr bool isRefused(int variable, std::int64_t number) {
  return isProvided(variable) && number % 7 == 0;
}

class Story {
 public:
  virtual ~Story() = default;

  // A number below `end`, of the seed.
  virtual std::uint64_t chance(std::uint64_t end) = 0;
  // Whether clients write; if not, they come to rest. How often they were to do so.
  virtual bool isBusy() = 0;
  virtual std::uint64_t rests() = 0;
  // Sleeps as long as a thread of a client does between one thing and the next.
  virtual void pause() = 0;
  // The variable that everybody is after for the moment.
  virtual int favourite() = 0;
  // Waits until the service is there.
  virtual void awaitService() = 0;

  // The number to be written next.
  virtual std::int64_t nextOf(int variable) = 0;
  virtual void accepted(int variable, std::int64_t number) = 0;
  // What everybody's next fresh answer has to be at least.
  virtual std::int64_t floorOf(int variable) = 0;
  // What everybody has to have been told by now, that is when nothing happened to the service for
  // long enough.
  virtual std::int64_t toldOf(int variable) = 0;
  // While this is the same number, and not 0, every request is answered soon.
  virtual std::uint64_t calm() = 0;
  // A client has met this number, which was to be `least` at least.
  virtual void met(const char* how, int client, int variable, std::int64_t number,
                   std::int64_t least) = 0;
  virtual void fail(const char* what, int client, int variable, std::int64_t number,
                    std::int64_t expected) = 0;
  // The client is there: what it asked for is registered.
  virtual void ready(int client) = 0;
  // All that the client knows of was found to be as the service has it.
  virtual void settled(int client) = 0;
};

// What a client's module has: runs the client until the process ends. Client 0 is the provider.
using RunClient = void(Story& story, int client, const char* runtimeDir);

}  // namespace Replay
