// flightsMutex: guards which flights are open, what each of them knows, and the stamps.
//
// Order:   the cache's own mutex is taken while it is held, never the other way round; no request is
//          made and no handler called under it.
// Threads: any. It is constant initialised and never destroyed, so that threads which outlive main may
//          still use it; fork waits for it.
#pragma once

#include "base/mutex.h"

namespace AppConfig {

extern Base::Mutex flightsMutex;

}  // namespace AppConfig
