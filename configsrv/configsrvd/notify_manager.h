// What the service and the system's service manager say to each other: systemd's protocol of
// readiness (sd_notify(3)) and of socket activation (sd_listen_fds(3)), without its library; see
// docs/decisions/sd-notify.md.
#pragma once

#include <string>

// Tells the manager something, "READY=1" for instance. Does nothing without a manager. Empty on
// success, else what went wrong: worth a line in the log and nothing more.
[[nodiscard]] std::string notifyManager(const std::string& state);

// The listening socket that the manager hands over, closed on exec; -1: none. The problem is empty
// unless there is one that cannot be used. Takes the variables out of the environment.
int takeListeningSocket(std::string& problem);
