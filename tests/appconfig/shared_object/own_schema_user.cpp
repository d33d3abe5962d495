// Uses the library, and messages of its own that bear the names of the library's.
#include "tests/appconfig/shared_object/own_schema_check.h"
#include "tests/appconfig/shared_object/use_library.h"

int main() {
  const bool before = OwnSchema::works();
  const bool library = writeAndReadMtu(1400) == "1400";
  return before && library && OwnSchema::works() ? 0 : 1;
}
