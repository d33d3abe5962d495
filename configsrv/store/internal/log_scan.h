// log_scan: whether SQLite's log has lost commits that were acknowledged.
//
// SQLite reads the log up to the first frame that does not check and takes it for the end, because
// that is what a commit cut short looks like. Here the rest is looked at: each frame's checksum
// starts from that of the frame before, so frames behind a damaged one still prove each other. Two
// commits in one such chain mean that the first of them was synced before the second was written:
// they are lost, and not cut short. Damage in the last two commits of a log proves nothing, nor does
// a log whose end is missing.
//
// Cost:    reads the log once, at the start; commits pay nothing.
#pragma once

#include <cstdint>
#include <string>

#include "configsrv/store/internal/file_system.h"

namespace ConfigSrv {

// True when acknowledged commits stand in the log behind damage. A log that cannot be read, or is
// none, is for SQLite to judge: false.
bool logHasLostCommits(FileSystem& system, const std::string& log);

}  // namespace ConfigSrv
