// SocketPlace: where the service's socket stands, and what stands beside it.
//
// Threads:  plain functions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "configsrv/service/service.h"
#include "platform/messaging/serving/server.h"

namespace ConfigSrv {

// What the message layer is told: the place, and limits that follow from the system's and from how
// many variables there are.
PbUtility::ServerOptions serverOptions(const ServiceOptions& options, std::uint64_t epoch,
                                       std::size_t variables);

// The socket's path with an ending; empty without a place for one.
std::string besideSocket(const ServiceOptions& options, const char* ending);

// For people: "/run/appconfig/ConfigSrvc".
std::string describeSocket(const ServiceOptions& options);

}  // namespace ConfigSrv
