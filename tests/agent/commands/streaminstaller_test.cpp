#include "agent/commands/streaminstaller.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "agent/base/agentconfig.h"
#include "agent/server/agenttransport.h"

namespace {

// url mode: the credentials file carries the token to the server's origin
// and trusted hosts only; the CA goes to every host.
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
  EXPECT_EQ(installer.credentials("https://hawkbit.example.com/a"), header + ca);
  EXPECT_EQ(installer.credentials("https://cdn.example.com/a"), header + ca);
  EXPECT_EQ(installer.credentials("https://objects.example.net/a?sig=1"), ca);
}

}  // namespace
