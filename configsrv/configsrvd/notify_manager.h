// What the service and the system's service manager say to each other: systemd's protocol of
// readiness (sd_notify(3)) and of socket activation (sd_listen_fds(3)), without its library; see
// docs/decisions/sd-notify.md.
#pragma once

#include <string>

#include "base/status.h"

// Tells the manager something, "READY=1" for instance. Does nothing without a manager. A failure is
// worth a line in the log and nothing more.
Base::Status<> notifyManager(const std::string& state);

// The listening socket that the manager hands over, closed on exec; -1: none. Fails when there is one
// that cannot be used. Takes the variables out of the environment.
Base::Status<> takeListeningSocket(int& socket);
