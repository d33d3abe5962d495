// DefinitionFiles: the files that definitions are made of, out of one directory or several.
//
// Those of a product lie in one directory, and what a device has otherwise in another behind it:
//
//   readDefinitionFiles({"/usr/share/appconfig/definitions.d", "/etc/appconfig/definitions.d"})
//
// Which:    every file whose name ends in ".toml" and does not begin with a dot. Of files with one
//           name only that of the last directory counts, so that a file is replaced by putting
//           another of its name into a later directory, and taken away by a symbolic link of its
//           name to /dev/null.
// Order:    the byte order of the names, whichever directory each lies in.
// Errors:   what cannot be read. Of several directories some may not be there; but no file at all is
//           a mistake: a service without variables serves nobody, and is most likely looking in the
//           wrong place.
// Threads:  plain values and functions.
#pragma once

#include <string>
#include <vector>

#include "configsrv/toml/document.h"

namespace ConfigSrv {

struct DefinitionFiles {
  // Those that could be read, in their order.
  std::vector<TextFile> files;
  std::vector<Mistake> mistakes;
};

DefinitionFiles readDefinitionFiles(const std::vector<std::string>& directories);

}  // namespace ConfigSrv
