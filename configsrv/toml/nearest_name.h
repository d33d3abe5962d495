// Nearest name: what somebody who misspelled a word most likely meant.
//
// Threads:  a plain function; any number of threads may call it.
#pragma once

#include <string_view>
#include <vector>

namespace ConfigSrv {

// The candidate with the fewest letters added, left out or exchanged; empty when even that one
// differs in more than a third of the word. "raed-role" gives "read-role", "colour" gives nothing.
std::string_view nearestName(std::string_view word,
                             const std::vector<std::string_view>& candidates);

}  // namespace ConfigSrv
