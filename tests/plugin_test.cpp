#include <dlfcn.h>

#include <gtest/gtest.h>

#include "plugin/libtamrelcore.h"

namespace {

TEST(Plugin, LoadsByDlopenLikeAHost) {
  void* library = dlopen(TAMREL_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << dlerror();
  auto create = reinterpret_cast<void* (*)()>(dlsym(library, "create_object"));
  auto destroy = reinterpret_cast<void (*)(void*)>(dlsym(library, "destroy_object"));
  ASSERT_NE(create, nullptr);
  ASSERT_NE(destroy, nullptr);

  auto* client = static_cast<libtamrelcore*>(create());
  ASSERT_NE(client, nullptr);
  EXPECT_EQ(client->uuid(), "f5f95dd");
  client->cancelTransfer();  // reaches the client's own transport
  client->cancelVerifyArtifact();
  destroy(client);
  destroy(nullptr);
  // A host creating and destroying clients in a loop must not leak (checked
  // under LeakSanitizer and valgrind).
  for (int i = 0; i < 20; ++i) destroy(create());
  dlclose(library);
}

}  // namespace
