// Which links may carry the target token: the configured server's origin
// and the hosts the operator trusts, nothing that only looks alike.
#include "agent/server/linkorigin.h"

#include <gtest/gtest.h>

namespace {

TEST(LinkOrigin, OnlyTheServerAndTrustedHosts) {
  struct Case {
    char const *url, *trusted;
    bool allowed;
    char const* host;
  } const cases[] = {
      {"https://HAWKBIT.example.com/DEFAULT/x", "", true, "hawkbit.example.com:443"},
      {"https://hawkbit.example.com:443/x", "", true, "hawkbit.example.com:443"},
      {"http://hawkbit.example.com/x", "", false, "hawkbit.example.com:80"},  // scheme
      {"https://hawkbit.example.com:8443/x", "", false, "hawkbit.example.com:8443"},
      {"https://cdn.example.com/a.img", "", false, "cdn.example.com:443"},
      {"https://cdn.example.com/a.img", " cdn.example.com , x", true, "cdn.example.com:443"},
      {"http://cdn.example.com/a.img", "cdn.example.com", false,
       "cdn.example.com:80"},  // https server
      {"https://cdn.example.com:8443/a", "cdn.example.com", false, "cdn.example.com:8443"},
      {"https://cdn.example.com:8443/a", "cdn.example.com:8443", true, "cdn.example.com:8443"},
      {"https://hawkbit.example.com.evil.net/x", "", false, "hawkbit.example.com.evil.net:443"},
      {"https://hawkbit.example.com@evil.net/x", "", false, "evil.net:443"},
      {"https://[::1]:8443/x", "[::1]:8443", true, "[::1]:8443"},
      {"ftp://hawkbit.example.com/x", "hawkbit.example.com", false, "ftp://hawkbit.example.com/x"},
  };
  for (Case const& c : cases) {
    std::string host;
    EXPECT_EQ(linkAllowed(c.url, "https://hawkbit.example.com", c.trusted, host), c.allowed)
        << c.url << " with " << c.trusted;
    EXPECT_EQ(host, c.host) << c.url;
  }
}

}  // namespace
