// tamrel-ddi-server's command line: every value is checked whole and a
// refusal names the option; docs/ddi-server.md lists the table's options
// with their help.
#include "ddiserver/serveroptions.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <vector>

namespace {

using tamrel::ddiserver::ServerOptions;

bool parse(std::vector<char const*> args, ServerOptions& options) {
  args.insert(args.begin(), "tamrel-ddi-server");
  return options.parse(static_cast<int>(args.size()), args.data());
}

TEST(ServerOptions, RefusesAnyValueNotTakenWhole) {
  struct Case {
    std::vector<char const*> args;
    char const* error;
  } const cases[] = {
      {{"--port", "70000"}, "--port: '70000' is no number from 0 to 65535"},
      {{"--port", "18085abc"}, "--port: '18085abc' is no number"},
      {{"--sleep", "garbage"}, "--sleep: 'garbage' is not HH:MM:SS"},
      {{"--sleep", "00:61:00"}, "--sleep: '00:61:00' is not HH:MM:SS"},
      {{"--handling", "foo:bar"}, "--handling: 'foo:bar' is not D:U[:W]"},
      {{"--handling", "forced:skip:closed"}, "--handling: 'forced:skip:closed'"},
      {{"--bogus"}, "unknown option '--bogus'"},
      {{"--token", ""}, "--token: needs one line of text"},
      {{"--gateway-token", "a\nb"}, "--gateway-token: needs one line of text"},
      {{"--action", "1/2"}, "--action: '1/2' cannot be a path segment"},
      {{"--fault", "poll=slowly"}, "--fault: 'slowly' is no fault"},
      {{"--fault", "disk=503"}, "--fault: 'disk' is not poll"},
      {{"--fail-first", "abc:x"}, "--fail-first: 'abc' is no HTTP status"},
      {{"--name-as", "a="}, "--name-as: 'a=' is not FILE=NAME"},
      {{"--client-ca", "ca.pem"}, "--client-ca needs --https or --tls-cert"},
      {{"--https", "--client-ca", "a.pem", "--client-cert-out", "d"}, "exclude each other"},
      {{"--tls-cert", "c", "--tls-key", "k", "--client-cert-out", "d"},
       "--client-cert-out needs --https"},
  };
  for (Case const& c : cases) {
    ServerOptions options;
    EXPECT_FALSE(parse(c.args, options)) << c.error;
    EXPECT_NE(options.error().find(c.error), std::string::npos)
        << options.error() << " lacks " << c.error;
  }
}

TEST(ServerOptions, TakesWholeValues) {
  ServerOptions options;
  ASSERT_TRUE(
      parse({"--port", "65535", "--sleep", "01:02:03", "--handling", "attempt:skip:unavailable",
             "--fail-first", "503:a.bin", "--action", "1x", "--https", "--client-ca", "ca.pem",
             "--gateway-token", "g#1", "--confirm-required"},
            options))
      << options.error();
  EXPECT_EQ(options.port, 65535);
  EXPECT_EQ(options.sleep, "01:02:03");
  EXPECT_EQ(options.download + options.update + options.window, "attemptskipunavailable");
  EXPECT_EQ(options.once.status, 503);
  EXPECT_EQ(options.onceFile, "a.bin");
  EXPECT_EQ(options.action, "1x");
  EXPECT_EQ(options.clientCa, "ca.pem");
  EXPECT_EQ(options.gatewayToken, "g#1");
  EXPECT_TRUE(options.confirmRequired && options.https);
}

// The rows of the options table in docs/ddi-server.md: option -> help.
TEST(ServerOptions, DocsListTheTable) {
  std::ifstream in(std::string(TAMREL_TEST_DATA) + "/../../docs/ddi-server.md");
  ASSERT_TRUE(in);
  std::map<std::string, std::string> rows;
  std::regex const row(R"(^\| `(--[^`]*)` \| (.*) \|$)");
  bool inside = false;
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("## ", 0) == 0) inside = line == "## Options";
    std::smatch match;
    if (inside && std::regex_match(line, match, row)) rows[match[1]] = match[2];
  }
  rows.erase("--help");
  for (ServerOptions::Option const& option : ServerOptions::options()) {
    std::string const name =
        std::string(option.name) + (*option.argument ? " " : "") + option.argument;
    auto const it = rows.find(name);
    if (it == rows.end()) {
      ADD_FAILURE() << name << " is not in docs/ddi-server.md";
      continue;
    }
    EXPECT_EQ(it->second, option.help) << "help of " << name << " in docs/ddi-server.md";
    rows.erase(it);
  }
  for (auto const& unknown : rows) ADD_FAILURE() << "docs/ddi-server.md lists " << unknown.first;
}

}  // namespace
