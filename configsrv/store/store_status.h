// StoreStatus: how an operation of the store ended: a code to act on and a text to show.
//
// Shape:   a Status: kOk with an empty text; any other code with one line that says what happened, to
//          which file, and what to do.
// Threads: a plain value.
//
//   StoreStatus status = store.snapshot();
//   if (!status.ok()) log(status.text);
#pragma once

#include "base/status.h"

namespace ConfigSrv {

// Told apart by what the caller can do.
enum class StoreCode {
  kOk,
  kDiskFull,  // No space, quota or size limit left: report the write as failed, go on reading.
  kIo,        // The disk or file system failed: the same, and tell whoever looks after the device.
  kInUse,     // Another process has the store: end that one or give this one a file of its own.
  kNewerFormat,  // Written by a newer version: install that version, or move the file away.
  kUnusable,     // The path cannot hold a store (rights, a directory, read-only): correct it.
};

// "disk full", "in use", ...
const char* storeCodeName(StoreCode code);

using StoreStatus = Base::Status<StoreCode>;

}  // namespace ConfigSrv
