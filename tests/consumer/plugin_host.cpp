// Loads the installed plug-in by dlopen, as an agent does: the path given,
// else the one found by find_package.
#include <dlfcn.h>

#include <cstdio>

#include "plugin/libtamrelcore.h"

int main(int argc, char** argv) {
  char const* path = argc > 1 ? argv[1] : TAMREL_PLUGIN;
  void* library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    std::fprintf(stderr, "%s\n", dlerror());
    return 1;
  }
  auto create = reinterpret_cast<void* (*)()>(dlsym(library, "create_object"));
  auto destroy = reinterpret_cast<void (*)(void*)>(dlsym(library, "destroy_object"));
  if (create == nullptr || destroy == nullptr) return 1;
  auto* client = static_cast<libtamrelcore*>(create());
  std::printf("%s\n", client->uuid().c_str());
  destroy(client);
  dlclose(library);
  return 0;
}
