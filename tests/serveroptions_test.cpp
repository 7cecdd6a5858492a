// tamrel-ddi-server's command line: every value is checked whole and a
// refusal names the option; its modules make a deployment of hawkBit's
// shape; docs/ddi-server.md lists the table's options with their help.
#include "ddiserver/serveroptions.h"

#include <sys/stat.h>

#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <memory>
#include <regex>
#include <vector>

#include "ddiserver/serveddeployment.h"
#include "tests/support/temp_dir.h"

namespace {

using tamrel::ddiserver::ServerOptions;
std::string const kData = TAMREL_TEST_DATA;

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
      {{"--module", "os:rootfs:1"}, "--module: 'os:rootfs:1' is not PART:NAME:VERSION:DIR"},
      {{"--module", "os::1:/"}, "--module: 'os::1:/' is not PART:NAME:VERSION:DIR"},
      {{"--module", "os:rootfs:1:/no/such/dir"}, "--module: '/no/such/dir' is no directory"},
      {{"--artifacts", "/no/such/dir"}, "--artifacts: '/no/such/dir' is no directory"},
      {{"--metadata", "os:k=v"}, "--metadata: 'os' is the part of no --module before it"},
      {{"--module", "os:r:1:/", "--metadata", "app:k=v"}, "'app' is the part of no --module"},
      {{"--module", "os:r:1:/", "--metadata", "os:k"}, "--metadata: 'os:k' is not PART:KEY=VALUE"},
      {{"--module", "os:r:1:/", "--metadata", "os:=v"}, "'os:=v' is not PART:KEY=VALUE"},
      {{"--artifacts", "/", "--module", "os:r:1:/"}, "--artifacts and --module exclude each other"},
      {{"--module", "os:r:1:/", "--chunk-per-file"}, "go with --artifacts, not --module"},
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

// Metadata goes to the last module of its part before it; a value is any
// text.
TEST(ServerOptions, ModulesInOrderWithTheirMetadata) {
  ServerOptions options;
  std::string const os = "os:root fs:2.1:" + kData, app = "app:a:1:/", other = "app:b:2:/";
  ASSERT_TRUE(
      parse({"--module", os.c_str(), "--metadata", "os:empty=", "--module", app.c_str(), "--module",
             other.c_str(), "--metadata", "app:k=v=$(reboot)\n", "--metadata", "os:x=y"},
            options))
      << options.error();
  using Metadata = std::vector<std::pair<std::string, std::string>>;
  ASSERT_EQ(options.modules.size(), 3u);
  EXPECT_EQ(options.modules[0].part + options.modules[0].name + options.modules[0].version,
            "osroot fs2.1");
  EXPECT_EQ(options.modules[0].dir, kData);
  EXPECT_EQ(options.modules[0].metadata, (Metadata{{"empty", ""}, {"x", "y"}}));
  EXPECT_EQ(options.modules[1].metadata, Metadata{});
  EXPECT_EQ(options.modules[2].metadata, (Metadata{{"k", "v=$(reboot)\n"}}));
  EXPECT_FALSE(options.artifactsShortcut);
}

using Json = std::unique_ptr<cJSON, void (*)(cJSON*)>;

// A JSON value's structure: members by name in order and nested, arrays
// element by element, numbers and the strings named here with their
// values; other strings (digests, URLs) only as strings.
std::string shape(cJSON const* item) {
  static std::regex const kept(
      "id|download|update|maintenanceWindow|part|version|name|"
      "filename|key|value");
  if (cJSON_IsObject(item) || cJSON_IsArray(item)) {
    std::string text = cJSON_IsObject(item) ? "{" : "[";
    for (cJSON const* child = item->child; child != nullptr; child = child->next)
      text += (child->string ? std::string(child->string) + ":" : "") + shape(child) + ",";
    return text + (cJSON_IsObject(item) ? "}" : "]");
  }
  if (cJSON_IsNumber(item)) return std::to_string(item->valuedouble);
  if (cJSON_IsString(item) && item->string && std::regex_match(item->string, kept))
    return "\"" + std::string(item->valuestring) + "\"";
  return cJSON_IsString(item) ? "s" : "?";
}

// hawkBit's example deployment (three modules, one with metadata), served
// from three directories of files of its sizes: the same document but for
// digests and URLs.
TEST(ServerOptions, ModulesServedInHawkbitsShape) {
  tamrel::testing::TempDir dir;
  struct Module {
    char const* option;
    std::size_t size;
  } const modules[] = {{"jvm:oneapp runtime:1.0.87:", 11},
                       {"os:one Firmware:1.0.81:", 11},
                       {"bApp:oneapplication:1.0.67:", 13}};
  std::vector<std::string> args = {"--action", "8", "--handling", "forced:forced:available",
                                   "--both-links"};
  for (Module const& module : modules) {
    std::string const path = dir.path() + "/" + std::to_string(args.size());
    mkdir(path.c_str(), 0700);
    for (char const* file : {"binary.tgz", "file.signature"})
      tamrel::testing::writeFile(path + "/" + file, std::string(module.size, 'x'));
    args.insert(args.end(), {"--module", module.option + path});
  }
  args.insert(args.end(),
              {"--metadata", "bApp:aMetadataKey=Metadata value as defined in software module"});
  std::vector<char const*> argv;
  for (std::string const& arg : args) argv.push_back(arg.c_str());
  ServerOptions options;
  ASSERT_TRUE(parse(argv, options)) << options.error();
  tamrel::ddiserver::ServedDeployment served(options);
  ASSERT_TRUE(served.read()) << served.error();
  tamrel::ddiserver::DdiServer server;
  Json const ours(cJSON_Parse(deploymentBaseJson(served.serve(server)).c_str()), cJSON_Delete);
  Json const hawkbits(
      cJSON_Parse(tamrel::testing::readFile(kData + "/deployment-base.json").c_str()),
      cJSON_Delete);
  cJSON_DeleteItemFromObjectCaseSensitive(hawkbits.get(), "actionHistory");
  EXPECT_EQ(shape(ours.get()), shape(hawkbits.get()));
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
