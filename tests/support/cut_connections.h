// cutConnectionsToServices: what a fault of the message layer would do, from inside the process.
#pragma once

#include <dirent.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstdlib>
#include <cstring>
#include <vector>

namespace TestSupport {

inline bool isConnectedToService(int fd) {
  sockaddr_un peer{};
  socklen_t size = sizeof peer;
  if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size) != 0) return false;
  return peer.sun_family == AF_UNIX && std::strstr(peer.sun_path, "ConfigSrvc") != nullptr;
}

// Descriptors of this process that are connected to a service now.
inline std::vector<int> connectionsToServices() {
  std::vector<int> found;
  DIR* const descriptors = opendir("/proc/self/fd");
  if (descriptors == nullptr) return found;
  while (const dirent* entry = readdir(descriptors)) {
    const int fd = std::atoi(entry->d_name);
    if (fd > 2 && isConnectedToService(fd)) found.push_back(fd);
  }
  closedir(descriptors);
  return found;
}

// They stay open, so that their numbers are not given away; how many there were.
inline int cutConnectionsToServices() {
  const std::vector<int> connections = connectionsToServices();
  for (const int fd : connections) shutdown(fd, SHUT_RDWR);
  return static_cast<int>(connections.size());
}

}  // namespace TestSupport
