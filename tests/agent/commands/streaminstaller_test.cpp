#include "agent/commands/streaminstaller.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "agent/base/agentconfig.h"
#include "agent/server/agenttransport.h"

namespace {

// url mode: the credentials file names the URL, carries the token to the
// server's origin and trusted hosts only, never to plain http while the
// server is https; the CA goes to every host.
TEST(StreamInstaller, CredentialsOnlyForHome) {
  AgentTransport::Settings settings;
  settings.address = "https://hawkbit.example.com";
  settings.trustedHosts = "cdn.example.com";
  settings.caFile = "/etc/ca.pem";
  AgentTransport transport(settings);
  transport.setTargetToken("s3cr\"t");
  AgentConfig const config;
  std::atomic<bool> stop{false};
  StreamInstaller const installer(transport, config, stop);
  std::string const header = "header = \"Authorization: TargetToken s3cr\\\"t\"\n";
  std::string const ca = "cacert = \"/etc/ca.pem\"\n";
  struct Case {
    char const* url;
    bool token;
  } const cases[] = {
      {"https://hawkbit.example.com/a", true},
      {"https://cdn.example.com/a", true},
      {"http://cdn.example.com/a", false},
      {"https://objects.example.net/a?sig=1", false},
  };
  for (Case const& c : cases) {
    EXPECT_EQ(installer.credentials(c.url),
              "url = \"" + std::string(c.url) + "\"\n" + (c.token ? header : "") + ca)
        << c.url;
  }
}

}  // namespace
