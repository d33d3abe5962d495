// The runtime directory and the endpoint's name make the socket's path; everything that the service
// keeps for the time of its run stands beside it, under the same name with another ending.
#include "configsrv/service/internal/socket_place.h"

#include <sys/resource.h>

#include <algorithm>

#include "platform/messaging/wire/runtime_dir.h"

namespace ConfigSrv {
namespace {

using PbUtility::ServerOptions;

// Descriptors that are none of a connection's: store, log, definitions, the event loop.
constexpr rlim_t kOtherDescriptors = 64;

// As many connections as the process may open descriptors; more would only fail later, and those
// kept for root would not be there.
unsigned connectionsThatFit(unsigned wanted) {
  rlimit files{};
  if (getrlimit(RLIMIT_NOFILE, &files) != 0 || files.rlim_cur >= wanted + kOtherDescriptors)
    return wanted;
  return static_cast<unsigned>(std::max(files.rlim_cur, 2 * kOtherDescriptors) - kOtherDescriptors);
}

std::string endpointName(const std::string& prefix) {
  return prefix.empty() ? "ConfigSrvc" : prefix + "/ConfigSrvc";
}

std::string runtimeDir(const ServiceOptions& options) {
  return options.runtimeDir.empty() ? PbUtility::defaultRuntimeDir() : options.runtimeDir;
}

}  // namespace

ServerOptions serverOptions(const ServiceOptions& options, std::uint64_t epoch,
                            std::size_t variables) {
  ServerOptions result;
  result.maxConnections = connectionsThatFit(result.maxConnections);
  result.runtimeDir = runtimeDir(options);
  result.name = endpointName(options.endpointPrefix);
  result.listenFd = options.listenFd;
  result.epoch = epoch;
  // A client that registers for everything is owed a notice for each variable at once.
  result.maxNotices = std::max(result.maxNotices, 2 * variables);
  return result;
}

std::string besideSocket(const ServiceOptions& options, const char* ending) {
  std::string path;
  const std::string name = endpointName(options.endpointPrefix);
  if (!PbUtility::socketPath(runtimeDir(options), name, path).ok()) return {};
  return path + ending;
}

std::string describeSocket(const ServiceOptions& options) {
  if (options.listenFd >= 0) return "the socket that was handed over";
  return runtimeDir(options) + "/" + endpointName(options.endpointPrefix);
}

}  // namespace ConfigSrv
