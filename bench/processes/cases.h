// The cases of the driver, file by file. Each function is one run, in a process of its own.
#pragma once

#include <vector>

#include "bench/processes/client.h"
#include "bench/processes/message_floor.h"
#include "bench/processes/settings.h"

namespace Bench {

std::vector<Case> roundTripCases();
std::vector<Case> durableWriteCases();
std::vector<Case> noticeCases();
std::vector<Case> parallelRequestCases();
std::vector<Case> startCases();
std::vector<Case> memoryCases();
std::vector<Case> countedRequestCases();
std::vector<Case> countedWriteCases();

// Shared by cases of several files.
Outcome oursUncachedRead(const Settings& settings);
Outcome floorOneCommit(const Settings& settings);
// Asks a service how large the messages of a request are. Service and asking process are gone
// before the floor begins. Zero when there was no answer.
MessageBytes askForBytes(const Settings& settings, MessageBytes (Client::*bytesOf)());

}  // namespace Bench
