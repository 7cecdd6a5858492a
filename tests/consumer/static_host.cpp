#include <cstdio>

#include "plugin/libtamrelcore.h"

int main() {
  auto* client = static_cast<libtamrelcore*>(create_object());
  std::printf("%s\n", client->uuid().c_str());
  destroy_object(client);
  return 0;
}
