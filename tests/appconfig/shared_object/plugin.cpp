// What a program loads that does not link the library itself.
#include "tests/appconfig/shared_object/use_library.h"

extern "C" __attribute__((visibility("default"))) int pluginWritesMtu(int mtu) {
  return writeAndReadMtu(mtu) == std::to_string(mtu) ? 0 : 1;
}
