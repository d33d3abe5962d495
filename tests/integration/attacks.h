// Attacks: what a hostile program can do to a service, each as one process does it, without end.
//
//   for (const Attack& attack : allAttacks())
//     Child attacker(kNobody, [&](Child::Parent&) { run(attack, service.socket(), process); });
//
// Nothing here expects anything: who attacks takes what it gets, and comes back when it is thrown out.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "platform/messaging/wire/frame.h"

namespace TestSupport {

// What is sent over one connection of one process.
struct Volley {
  PbUtility::ConnectionUse use = PbUtility::ConnectionUse::Requests;
  std::string bytes;
};

// What happens when a volley has been sent.
enum class Afterwards {
  // It is sent again.
  Again,
  // Nothing: the connection stays as it is.
  Wait,
  // The connection is closed once all of it was answered, and a new one takes its place.
  Leave,
};

struct Attack {
  std::string name;
  int connections = 1;
  // Of the connection of this number, of the process of this number.
  std::function<Volley(int process, int connection)> volley;
  Afterwards afterwards = Afterwards::Again;
  // Whether answers are read.
  bool reads = true;
};

// Processes that attack together.
constexpr int kAttackers = 3;
// Of loadDefinitions(). The attacks change those from kAttackedVariable on.
constexpr std::size_t kAttackVariables = 2'000;
constexpr std::size_t kAttackedVariable = 1'000;

std::vector<Attack> allAttacks();

// Does not return.
[[noreturn]] void run(const Attack& attack, const std::string& socket, int process);

}  // namespace TestSupport
