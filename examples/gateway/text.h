// text: variables and values as a person at a terminal reads them.
#pragma once

#include <list>
#include <string>

namespace Gateway {

// "network.hostname", "network.eth[1].mtu", "network.eth" (no name: the group). An instance of 0 is
// left out, as `appcfg` does.
std::string keyText(const std::string& group, int groupInstance, const std::string& name,
                    int nameInstance);

// The elements, separated by blanks; "(nothing)" when there are none or they are all empty.
std::string valueText(const std::list<std::string>& value);

// One line to standard output, at once: whoever started the program may be reading along.
void say(const std::string& line);

}  // namespace Gateway
