#include <dlfcn.h>

#include <gtest/gtest.h>

#include <memory>

#include "plugin/libtamrelcore.h"
#include "transport/curlmanager.h"

namespace {

TEST(Plugin, LoadsByDlopenLikeAHost) {
  void* library = dlopen(TAMREL_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << dlerror();
  auto create = reinterpret_cast<void* (*)()>(dlsym(library, "create_object"));
  auto destroy = reinterpret_cast<void (*)(void*)>(dlsym(library, "destroy_object"));
  ASSERT_NE(create, nullptr);
  ASSERT_NE(destroy, nullptr);

  auto* first = static_cast<libtamrelcore*>(create());
  auto* second = static_cast<libtamrelcore*>(create());
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(first->uuid(), "f5f95dd");
  EXPECT_EQ(second->uuid(), "f5f95dd");
  destroy(nullptr);
  destroy(first);
  destroy(second);
  // A host creating and destroying clients in a loop must not leak (checked
  // under LeakSanitizer in the sanitizer build).
  for (int i = 0; i < 20; ++i) destroy(create());
  dlclose(library);
}

TEST(Plugin, GivenTransportIsUsedAndOutlivesTheClient) {
  CurlManager transport;
  EXPECT_FALSE(transport.cancelled.load());
  EXPECT_TRUE(transport.targetToken.empty());
  {
    libtamrelcore client(&transport);
    client.cancelTransfer();
    EXPECT_TRUE(transport.cancelled.load());
    auto table =
        std::make_shared<lookup>(lookup{{"token", std::make_shared<value_container>("t0k")}});
    EXPECT_TRUE(client.connectProperties(table));
    EXPECT_EQ(transport.targetToken, "t0k");
  }
  transport.setTargetToken("after");
  EXPECT_EQ(transport.targetToken, "after");
  transport.cancelTransfer();
  EXPECT_TRUE(transport.cancelled.load());
}

TEST(Plugin, ClientWithoutTransportMakesItsOwn) {
  libtamrelcore client(nullptr);
  client.cancelTransfer();  // must reach a real transport, not crash
  client.cancelVerifyArtifact();
  EXPECT_EQ(client.uuid(), "f5f95dd");
}

}  // namespace
