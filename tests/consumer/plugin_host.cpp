// Loads the installed plug-in by dlopen, as an agent does.
#include <dlfcn.h>

#include <cstdio>

#include "plugin/libtamrelcore.h"

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  void* library = dlopen(argv[1], RTLD_NOW);
  if (library == nullptr) {
    std::fprintf(stderr, "%s\n", dlerror());
    return 1;
  }
  auto create = reinterpret_cast<void* (*)()>(dlsym(library, "create_object"));
  auto destroy = reinterpret_cast<void (*)(void*)>(dlsym(library, "destroy_object"));
  auto* client = static_cast<libtamrelcore*>(create());
  std::printf("%s\n", client->uuid().c_str());
  destroy(client);
  dlclose(library);
  return 0;
}
