// The definitions of the service that is attacked: one variable of each type and of each sort of
// protection, so that every check of a request can be reached. They are loaded once, from a file,
// by the service's own reader.
#include "fuzz/definitions.h"

#include <utility>

#include "fuzz/files.h"
#include "fuzz/input.h"

namespace Fuzz {
namespace {

const char* const kDefinitions = R"(
[variable."net.mtu"]
type = "int"
min = 68
max = 9000
default = 1500

[variable."net.name"]
type = "string"
max-length = 16
pattern = "[a-z]+[0-9]*"
default = "gateway"

[variable."net.servers"]
type = "list"
max-elements = 4
default = ["a", "b"]

[variable."net.mode"]
type = "enumeration"
options = ["auto", "manual"]
default = "auto"

[variable."net.on"]
type = "bool"
default = true

[variable."net.secret"]
type = "string"
secret = true
default = "hidden"
read-role = "factory"

[variable."net.admin"]
type = "string"
default = "x"
write-role = "installer"

[variable."dev.serial"]
type = "string"
default = "1234"
read-only = true

[variable."net.eth.mtu"]
type = "int"
group-instances = [0, 1, 2]
default = 1500

[variable."3:engine.speed"]
type = "int"
default = 0
)";

}  // namespace

const ConfigSrv::Definitions& definitions() {
  static const ConfigSrv::Definitions loaded = [] {
    const Files files;
    files.write("10.toml", kDefinitions);
    ConfigSrv::LoadResult result = ConfigSrv::loadDefinitions({files.directory()});
    require(result.mistakes.empty(), "the definitions are right", formatMistakes(result.mistakes));
    return std::move(result.definitions);
  }();
  return loaded;
}

}  // namespace Fuzz
