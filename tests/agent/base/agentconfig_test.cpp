// The agent's configuration: what a file makes of the settings, each
// refusal with its line, and the copies of the key table (docs, the shipped
// example file, --help's exit statuses) checked against it.
#include "agent/base/agentconfig.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "agent/base/exitcode.h"
#include "tests/support/temp_dir.h"

namespace {

using tamrel::testing::TempDir;

std::string const kServer =
    "address = http://127.0.0.1:8080/\ntenant-id = DEFAULT\ncontroller-id = dev01\n"
    "download-dir = /tmp/dl\n";

// Written private to its owner unless `mode` says otherwise.
std::string write(TempDir const& dir, std::string const& name, std::string const& text,
                  mode_t mode = 0600) {
  std::string const path = dir.path() + "/" + name;
  std::ofstream(path, std::ios::binary) << text;
  chmod(path.c_str(), mode);
  return path;
}

// kServer with `key`'s line set to `value`.
std::string serverWith(std::string const& key, std::string const& value) {
  return std::regex_replace(kServer, std::regex("(^|\n)" + key + " = [^\n]*"),
                            "$1" + key + " = " + value);
}

std::string text(lookup& table, char const* key) {
  value_container const& entry = *table[key];
  if (entry.is_string()) return entry.string();
  if (entry.is_link()) return entry.link().text + " (from " + entry.link().target + ")";
  return "<not text>";
}

TEST(AgentConfig, FileSettings) {
  TempDir dir;
  std::string const token = write(dir, "token", "s3cr#t\r\n");
  // A byte order mark before the first key is skipped.
  AgentConfig config = AgentConfig::fromFile(
      write(dir, "agent.conf",
            "\xef\xbb\xbf" + kServer + "token-file = " + token +
                "  # after a blank\ninstall-command = /bin/echo '#1' \"a # b\" \"$@\"  # c\n"
                "download-retries = 0\n"
                "download-timeout-s=7\nreboot-exit-code = 10\nstate-dir = /tmp/s\n"
                "reboot-command = reboot\nconfirm-command = true\nattribute.hw = a#b\n"
                "install-command.os = rauc install \"$1\"\ninstall-mode.os = stream\n"
                "reboot-exit-code.os = 20\ninstall-mode.bApp-2.x_y = url\n"));
  lookup& table = *config.properties;
  EXPECT_EQ(text(table, "address"), "http://127.0.0.1:8080");  // trailing '/' removed
  EXPECT_EQ(text(table, "token-file"), "s3cr#t (from " + token + ")");
  EXPECT_EQ(config.installCommand, "/bin/echo '#1' \"a # b\" \"$@\"");
  EXPECT_EQ(config.rebootExitCode, 10);
  // Keys the file leaves out keep the table's defaults.
  EXPECT_EQ(config.bootIdFile, "/proc/sys/kernel/random/boot_id");
  // The library's table carries the download settings the file names.
  EXPECT_EQ(table["download-retries"]->integer(), 0);
  EXPECT_EQ(table["download-timeout-s"]->integer(), 7);
  EXPECT_TRUE(config.targetToken);
  // A gateway token stays with the agent; the library still gets a token.
  AgentConfig const gateway = AgentConfig::fromFile(
      write(dir, "gateway.conf", kServer + "gateway-token = g\ndownload-authentication = no\n"));
  EXPECT_EQ(gateway.gatewayToken, "g");
  EXPECT_FALSE(gateway.targetToken || gateway.downloadAuthentication);
  EXPECT_EQ(text(*gateway.properties, "token"), "");
  // A module type's own keys, the plain ones for what it leaves out.
  struct Part {
    char const* part;
    AgentConfig::Install install;
  } const parts[] = {
      {"os", {"rauc install \"$1\"", "stream", 20}},
      {"bApp-2.x_y", {config.installCommand, "url", 10}},
      {"jvm", {config.installCommand, "file", 10}},
  };
  for (Part const& p : parts) {
    AgentConfig::Install const install = config.installFor(p.part);
    EXPECT_EQ(install.command, p.install.command) << p.part;
    EXPECT_EQ(install.mode, p.install.mode) << p.part;
    EXPECT_EQ(install.rebootExitCode, p.install.rebootExitCode) << p.part;
  }
  ASSERT_EQ(config.attributes.size(), 1u);
  EXPECT_EQ(config.attributes[0].key, "hw");
  EXPECT_EQ(config.attributes[0].value, "a#b");
}

TEST(AgentConfig, RefusalsNameTheLine) {
  TempDir dir;
  std::string const twoLines = write(dir, "two", "one\ntwo\n");
  std::string const empty = write(dir, "empty", "\n");
  std::string const open = write(dir, "open", "secret\n", 0644);
  std::string const shared = write(dir, "shared", "secret\n", 0666);
  struct Case {
    std::string lines, message;
    std::string server = kServer;
    mode_t mode = 0600;
  } const cases[] = {
      // Secrets readable or writable by others, named with their mode.
      {"token = t\n", ":5: token: " + dir.path() + "/agent.conf holds a secret but has mode 0640",
       kServer, 0640},
      {"gateway-token-file = " + shared + "\n",
       ":5: gateway-token-file: " + shared + " holds a secret but has mode 0666"},
      {"token = t\nclient-key-password-file = " + open + "\n",
       ":6: client-key-password-file: " + open + " holds a secret but has mode 0644"},
      // Values the server could never take.
      {"token-file = " + dir.path() + "\n",
       ":5: token-file: " + dir.path() + " is not a regular file"},
      {"token = \n", ":5: token is empty"},
      {"token-file = " + empty + "\n", ":5: token-file: " + empty + " is empty"},
      {"token = t\n", ":2: tenant-id is empty", serverWith("tenant-id", "")},
      {"token = t\n", ":1: address names no host", serverWith("address", "http://")},
      {"token = t\n", ":1: address must not contain blanks", serverWith("address", "http://h st")},
      {"token = t\n", ":3: controller-id must not contain '/'", serverWith("controller-id", "a/b")},
      {"token = t\n", ":3: controller-id must not", serverWith("controller-id", "dev 01")},
      {"token = t\ntrusted-hosts = cdn.example.com, http://cdn.example.com/\n",
       ":6: trusted-hosts: 'http://cdn.example.com/' is not host or host:port"},
      {"token = t\ntrusted-hosts = cdn.example.com/files\n", "is not host or host:port"},
      {"token = t\npoll-interval-s = 20\nmax-poll-interval-s = 10\n",
       ":7: max-poll-interval-s: max-poll-interval-s (10) is below poll-interval-s (20)"},
      {"token = t\npoll-interval-s = 90000\n", ":6: poll-interval-s: max-poll-interval-s"},
      {"token = t\nlog-level = loud\n", ":6: log-level must be one of error|warning|info|debug"},
      {"token = t\ntoken = u\n", ":6: 'token' repeats the setting of line 5"},
      {"token = t\ntoken-file = " + twoLines + "\n", "repeats the setting of line 5"},
      {"token-file = " + twoLines + "\n", "must hold one line without control characters"},
      {"token-file = /nonexistent\n", "cannot read '/nonexistent' for token-file"},
      {"token = t\nbogus = 1\n", ":6: unknown key 'bogus'"},
      {"token = t\ndownload-retries = 101\n", "download-retries must be a whole number from 0"},
      {"token = t\ndownload-timeout-s = 0\n", "download-timeout-s must be a whole number from 1"},
      {"token = t\nmax-document-mib = 1e3\n", "max-document-mib must be a whole number"},
      {"token = t\nattribute.x = " + std::string(129, 'v') + "\n", "limited to 128 characters"},
      {"token = t\nconsent = ask\n", ":6: consent must be one of auto|command"},
      {"token = t\nconsent = command\n", "consent = command needs consent-command"},
      {"token = t\njust words\n", "expected 'key = value'"},
      {"token = t\n= 1\n", "missing key before '='"},
      {"token = t\x01\n", "token must not contain control characters"},
      {"", "no credentials: set token, gateway-token"},
      {"token = t\ngateway-token-file = " + twoLines + "\n", "must hold one line"},
      {"token = t\ngateway-token = g\n", ":6: gateway-token and the token of line 5"},
      {"token = t\nproxy = ftp://p\n", ":6: proxy must start with http://"},
      {"token = t\ndownload-authentication = maybe\n", "must be yes or no"},
      {"token = t\nclient-key-password-file = /nonexistent\n", ":6: cannot read '/nonexistent'"},
      // A module type's keys: its name, its values as the plain key's.
      {"token = t\ninstall-command.o/s = x\n",
       ":6: install-command.o/s: a module type has only letters, digits"},
      {"token = t\ninstall-mode. = file\n", ":6: unknown key 'install-mode.'"},
      {"token = t\ninstall-mode.os = tape\n", ":6: install-mode.os must be one of file|stream"},
      {"token = t\nreboot-exit-code.os = 0\n", ":6: reboot-exit-code.os must be a whole number"},
      {"token = t\ninstall-command.os = a\ninstall-command.os = b\n",
       ":7: 'install-command.os' repeats the setting of line 6"},
  };
  for (Case const& c : cases) {
    std::string const path = write(dir, "agent.conf", c.server + c.lines, c.mode);
    try {
      AgentConfig::fromFile(path);
      ADD_FAILURE() << "accepted: " << c.lines;
    } catch (ConfigError const& error) {
      EXPECT_NE(std::string(error.what()).find(c.message), std::string::npos)
          << c.lines << " gave: " << error.what();
    }
  }
  for (char const* address : {"ftp://h", "http://h/?x=1", "http://h/#top"}) {
    std::string text = kServer + "token = t\n";
    text.replace(10, 22, address);
    EXPECT_THROW(AgentConfig::fromFile(write(dir, "agent.conf", text)), ConfigError) << address;
  }
}

// The rows of the table under `heading` in a Markdown file: first cell ->
// second cell, with the backticks of the first removed.
std::map<std::string, std::string> tableRows(std::string const& path, std::string const& heading) {
  std::ifstream in(path);
  std::map<std::string, std::string> rows;
  bool inside = false;
  std::regex const row(R"(^\|\s*`?([^`|]+?)`?\s*\|\s*([^|]*?)\s*\|)");
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("## ", 0) == 0) inside = line == heading;
    std::smatch match;
    if (inside && std::regex_search(line, match, row) && match[1] != "key" &&
        match[1].str().find("---") == std::string::npos && match[1] != "status") {
      rows[match[1]] = match[2];
    }
  }
  return rows;
}

TEST(AgentConfig, DocsAndExampleFileMatchTheKeyTable) {
  std::string const source = TAMREL_SOURCE_DIR;
  auto rows = tableRows(source + "/docs/agent.md", "## Configuration");
  std::ifstream example(source + "/packaging/agent.conf");
  std::set<std::string> shipped;
  std::regex const setting(R"(^#?\s*([a-z][a-zA-Z0-9.-]*)\s*=)");
  for (std::string line; std::getline(example, line);) {
    std::smatch match;
    if (std::regex_search(line, match, setting)) shipped.insert(match[1]);
  }
  for (AgentConfig::Key const& key : AgentConfig::keys()) {
    std::string const expected = key.required ? "required" : key.defaultValue;
    auto const row = rows.find(key.name);
    if (row == rows.end()) {
      ADD_FAILURE() << key.name << " is not in docs/agent.md";
      continue;
    }
    EXPECT_EQ(row->second, expected) << "default of " << key.name << " in docs/agent.md";
    rows.erase(row);
    // "attribute.NAME", "install-command.PART": any name after the dot.
    std::string name = key.name;
    if (name.find('.') != std::string::npos) name.erase(name.find('.') + 1);
    bool const found = std::any_of(shipped.begin(), shipped.end(),
                                   [&](std::string const& s) { return s.rfind(name, 0) == 0; });
    EXPECT_TRUE(found) << key.name << " is not in packaging/agent.conf";
  }
  rows.erase("KEY-file");
  for (auto const& unknown : rows)
    ADD_FAILURE() << "docs/agent.md lists unknown key " << unknown.first;
  for (std::string const& name : shipped) {
    bool const known =
        name.rfind("attribute.", 0) == 0 ||
        std::any_of(std::begin(AgentConfig::kPartKeys), std::end(AgentConfig::kPartKeys),
                    [&](char const* key) { return name.rfind(std::string(key) + ".", 0) == 0; }) ||
        std::any_of(AgentConfig::keys().begin(), AgentConfig::keys().end(),
                    [&](AgentConfig::Key const& key) {
                      return name == key.name || name == std::string(key.name) + "-file";
                    });
    EXPECT_TRUE(known) << "packaging/agent.conf names unknown key " << name;
  }

  auto codes = tableRows(source + "/docs/agent.md", "## Exit codes");
  for (ExitCodeText const& entry : kExitCodeTexts) {
    EXPECT_EQ(codes.erase(std::to_string(entry.code)), 1u)
        << "exit code " << entry.code << " undocumented";
  }
  for (auto const& unknown : codes)
    ADD_FAILURE() << "docs/agent.md lists unknown exit code " << unknown.first;
}

}  // namespace
