// APPCONFIG_EXPORT: marks what applications link against. Everything else stays inside the shared
// library. APPCONFIG_LOCAL: marks what does so although its class is exported.
#pragma once

#define APPCONFIG_EXPORT __attribute__((visibility("default")))
#define APPCONFIG_LOCAL __attribute__((visibility("hidden")))
