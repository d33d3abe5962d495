// Loads a plugin that uses the library, beside messages of its own that bear the library's names;
// unloads it and loads it again.
//
//   plugin_host PLUGIN local|global
#include <dlfcn.h>

#include <cstdio>
#include <cstring>

#include "tests/appconfig/shared_object/own_schema_check.h"

namespace {

int complain(const char* what) {
  const char* const error = dlerror();
  std::fprintf(stderr, "%s: %s\n", what, error != nullptr ? error : "-");
  return 1;
}

int useOnce(const char* path, int scope, int mtu) {
  void* const plugin = dlopen(path, RTLD_NOW | scope);
  if (plugin == nullptr) return complain("dlopen");
  auto* const writesMtu = reinterpret_cast<int (*)(int)>(dlsym(plugin, "pluginWritesMtu"));
  if (writesMtu == nullptr) return complain("dlsym");
  if (writesMtu(mtu) != 0) return complain("the library's write was not read back");
  if (!OwnSchema::works()) return complain("own messages");
  return dlclose(plugin) == 0 ? 0 : complain("dlclose");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const int scope = std::strcmp(argv[2], "global") == 0 ? RTLD_GLOBAL : RTLD_LOCAL;
  if (!OwnSchema::works()) return complain("own messages, before");
  for (const int mtu : {1400, 1401}) {
    if (useOnce(argv[1], scope, mtu) != 0) return 1;
  }
  return 0;
}
