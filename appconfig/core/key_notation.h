// Text form of a key: how definitions, logs and the command line write a variable.
//
// Shape:   [namespace ":"] group ["[" instance "]"] "." name ["[" instance "]"]
//          The last dot parts group and name. An instance stands behind the part that it counts:
//          behind the whole group, behind the name. What is left out is 0.
//            network.hostname      group network, name hostname
//            network.eth[1].mtu    group network.eth, group instance 1, name mtu
//            sensors.temp[2]       group sensors, name temp, name instance 2
//            3:engine.speed        namespace 3, group engine, name speed
//          Not keys: "hostname" (no group), "network[1].eth.mtu" (the instance is not behind the
//          whole group), "network..mtu" (an empty part).
// Names:   1 to kMaxNameBytes bytes each, ASCII letters of either case; no control characters,
//          blanks, brackets, colons or backslashes. The bytes above 127 are free.
// Numbers: decimal; instances fit 32 signed bits, a namespace is 0 or more.
// Threads: plain functions; any number of threads may call them.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "appconfig/core/config_var.h"
#include "base/status.h"

namespace AppConfig {

// Longest group and longest name, each, in bytes.
inline constexpr std::size_t kMaxNameBytes = 255;

// Sets var; or fails, leaves var alone and says what is wrong and where, in one line that may be
// shown to people: "\"network..mtu\" is no key: a part of the name is empty (at character 9)". Any
// bytes may be given.
Base::Status<> parseKey(std::string_view text, ConfigVar& var);

// The shortest text that parseKey reads as this key. Keys that it would refuse (they can be built,
// and arrive from outside) get a text all the same, one that is safe in a log line: bytes that no
// name may hold, a dot in the name included, are written \xNN. Two keys never share a text.
std::string formatKey(const ConfigVar& var);

// Checks a dotted name without namespace and instances, of a variable or of a group ("network",
// "network.eth.mtu"), and sets name to it in lower case. Fails as parseKey does.
Base::Status<> parseDottedName(std::string_view text, std::string& name);

}  // namespace AppConfig
