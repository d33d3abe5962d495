// runSteps: lets a server live through what others do, step by step, on one thread and without waiting.
//
// A program that uses it waits for events by an epoll_wait of our own (fuzz_steps has the linker put
// it there), which never sleeps: where the server would, the next step is made, as by another thread
// that posts it. So what a step has sent is handled before the next step, in the same order every time,
// and the pieces in which it was sent are those in which it arrives. A server that always finds
// something to do does not keep the steps from coming: one is made after every few rounds.
#pragma once

#include <functional>

#include "platform/messaging/serving/server.h"

namespace Fuzz {

// Runs the server: step after step until one returns false, then stops it.
void runSteps(PbUtility::Server& server, const std::function<bool()>& step);

}  // namespace Fuzz
