// Calls the entry points directly: linked with the static library (CMake
// package) or the shared one (pkg-config).
#include <cstdio>

#include "plugin/libtamrelcore.h"

int main() {
  auto* client = static_cast<libtamrelcore*>(create_object());
  if (client == nullptr) return 1;
  std::printf("%s\n", client->uuid().c_str());
  destroy_object(client);
  return 0;
}
