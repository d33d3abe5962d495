// APPCONFIG_EXPORT: marks what applications link against. Everything else stays inside the shared
// library.
#pragma once

#define APPCONFIG_EXPORT __attribute__((visibility("default")))
