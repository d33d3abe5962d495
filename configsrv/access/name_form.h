// Name form: when two endpoint names look the same to people, and which cannot be told by looking.
//
// Names are for people, in `appcfg clients`, in the log and in the audit record. So what counts of a
// name is what is seen of it:
//
//   foldedName("Thermostat-UI ")  == "thermostat-ui"     // ASCII case, and blanks at either end
//   foldedName("room  panel")     == "room panel"        // several blanks in a row
//   whyUnseen("thermostat\u200b-ui")                      // "U+200B, which cannot be seen"
//
// Not so: letters of other scripts that look like Latin ones (a Cyrillic a), other case pairs than
// ASCII's, and accents that are composed in another way are different names here. Whether they look
// the same depends on the font.
#pragma once

#include <string>
#include <string_view>

namespace ConfigSrv {

// What in the name cannot be seen or told apart: control characters, blanks of other kinds than the
// space, invisible characters, and bytes that are no UTF-8; also a name that is nothing but blanks.
// Empty when there is nothing of that.
std::string whyUnseen(std::string_view name);

// The name with these written out: "thermostat<U+200B>-ui", "ui<FF>".
std::string visibleName(std::string_view name);

// Names that look alike have one form. Meant for names of which whyUnseen finds nothing.
std::string foldedName(std::string_view name);

}  // namespace ConfigSrv
