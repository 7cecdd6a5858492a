#include "agent/base/configreader.h"

#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <set>

#include "agent/base/settingcheck.h"

namespace {

using Key = AgentConfig::Key;

std::string trim(std::string const& text) {
  std::size_t const first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos) return std::string();
  std::size_t const last = text.find_last_not_of(" \t\r");
  return text.substr(first, last - first + 1);
}

bool parseNumber(std::string const& text, long long& value) {
  if (text.empty() || text.size() > 9 ||
      text.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  value = std::stoll(text);
  return true;
}

// A value that ends up in a request line or header must be one line: a CR or
// LF would let it add headers of its own.
bool hasControl(std::string const& text) {
  for (char c : text) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) return true;
  }
  return false;
}

}  // namespace

AgentConfig ConfigReader::read(std::string const& path) {
  std::ifstream in(path);
  struct stat info {};
  if (!in || stat(path.c_str(), &info) != 0)
    throw ConfigError(path + ": cannot read the configuration file");
  std::set<std::string> settings;
  for (Key const& key : AgentConfig::keys()) {
    if (key.kind == Key::Kind::kServer || key.kind == Key::Kind::kSecret) settings.insert(key.name);
  }
  AgentConfig config;
  config.path = path;
  std::map<std::string, int> seen;  // key (a "-file" key under its base name) -> line
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    auto const fail = [&](std::string const& message) {
      throw ConfigError(path + ":" + std::to_string(number) + ": " + message);
    };
    // Editors on other systems start a file with a byte order mark.
    if (number == 1 && line.rfind("\xef\xbb\xbf", 0) == 0) line.erase(0, 3);
    // A comment starts a line or follows a blank; a '#' inside a value (a
    // token) is kept, and so is one inside quotes of a command line.
    std::string content = trim(line);
    if (content.empty() || content[0] == '#') continue;
    bool const command = content.find("-command") < content.find('=');
    char quote = 0;
    for (std::size_t i = 1; i < content.size(); ++i) {
      char const c = content[i];
      if (command && quote != '\'' && c == '\\') {
        ++i;
      } else if (command && (c == '"' || c == '\'') && (quote == 0 || quote == c)) {
        quote = quote == 0 ? c : 0;
      } else if (c == '#' && quote == 0 && (content[i - 1] == ' ' || content[i - 1] == '\t')) {
        content = trim(content.substr(0, i));
        break;
      }
    }
    std::size_t const equals = content.find('=');
    if (equals == std::string::npos) fail("expected 'key = value'");
    std::string const key = trim(content.substr(0, equals));
    std::string value = trim(content.substr(equals + 1));
    if (key.empty()) fail("missing key before '='");

    std::string const base = key.size() > 5 && key.compare(key.size() - 5, 5, "-file") == 0
                                 ? key.substr(0, key.size() - 5)
                                 : std::string();
    std::string const slot = settings.count(base) ? base : key;
    auto const earlier = seen.find(slot);
    if (earlier != seen.end()) {
      fail("'" + key + "' repeats the setting of line " + std::to_string(earlier->second));
    }
    seen[slot] = number;

    Key const* known = nullptr;
    for (Key const& candidate : AgentConfig::keys()) {
      if (key == candidate.name) known = &candidate;
    }
    // "install-command.os" and the like: the plain key's checks, per part.
    std::string partKey;
    for (char const* name : AgentConfig::kPartKeys) {
      std::string const prefix = std::string(name) + ".";
      if (key.size() > prefix.size() && key.compare(0, prefix.size(), prefix) == 0) partKey = name;
    }
    if (!partKey.empty()) {
      std::string const part = key.substr(partKey.size() + 1);
      if (!AgentConfig::partName(part))
        fail(key + ": a module type has only letters, digits, '-', '_' and '.'");
      if (partKey == "reboot-exit-code") {
        long long code = 0;
        if (!parseNumber(value, code) || code < 1 || code > 255)
          fail(key + " must be a whole number from 1 to 255");
        config.partRebootExitCodes[part] = int(code);
      } else if (partKey == "install-mode") {
        char const* const words = AgentConfig::choices(partKey);
        if (("|" + std::string(words) + "|").find("|" + value + "|") == std::string::npos)
          fail(key + " must be one of " + words);
        config.partModes[part] = value;
      } else {
        config.partCommands[part] = value;
      }
    } else if (settings.count(key) || settings.count(base)) {
      std::string const filePath = value;
      std::string const setting = base.empty() ? key : base;
      bool const secret = setting == "token" || setting == "gateway-token";
      if (!base.empty()) {
        std::string problem;
        value = SettingCheck::readFile(filePath, key, secret, problem);
        if (!problem.empty()) fail(problem);
        if (!value.empty() && value.back() == '\n') value.pop_back();
        if (!value.empty() && value.back() == '\r') value.pop_back();
        if (hasControl(value)) fail(filePath + " must hold one line without control characters");
      } else if (hasControl(value)) {
        fail(key + " must not contain control characters");
      } else if (secret) {
        std::string const problem = SettingCheck::secretFile(path, info.st_mode);
        if (!problem.empty()) fail(key + ": " + problem + ", or use " + key + "-file");
      }
      if (value.empty())
        fail(base.empty() ? key + " is empty" : key + ": " + filePath + " is empty");
      if (setting == "tenant-id" || setting == "controller-id") {
        std::string const problem = SettingCheck::pathSegment(setting, value);
        if (!problem.empty()) fail(problem);
      }
      if (setting == "address") {
        std::string problem;
        value = SettingCheck::address(value, problem);
        if (!problem.empty()) fail(problem);
      }
      if (setting == "gateway-token") {
        config.gatewayToken = value;
      } else if (base.empty()) {
        *(*config.properties)[key] = value;
      } else {
        *(*config.properties)[key] = link_t{filePath, value};
      }
    } else if (known != nullptr && known->kind == Key::Kind::kNumber) {
      long long count = 0;
      if (!parseNumber(value, count) || count < known->min || count > known->max) {
        fail(key + " must be a whole number from " + std::to_string(known->min) + " to " +
             std::to_string(known->max));
      }
      config.storeNumber(key, count);
      // The library's table carries the download settings too.
      if (key == "download-retries" || key == "download-timeout-s") {
        *(*config.properties)[key] = static_cast<int>(count);
      }
    } else if (key.rfind("attribute.", 0) == 0 && key.size() > 10) {
      std::string const name = key.substr(10);
      if (name.size() > AgentConfig::kMaxAttribute || value.size() > AgentConfig::kMaxAttribute) {
        fail(key + ": attribute names and values are limited to 128 characters");
      }
      if (name == AgentConfig::kVersionAttribute)
        fail(key + ": the agent sends its own version as " + name);
      config.attributes.push_back({name, value});
    } else if (key == "download-authentication") {
      if (value != "yes" && value != "no") fail("download-authentication must be yes or no");
      config.downloadAuthentication = value == "yes";
    } else if (std::string* field = known != nullptr ? config.textField(key) : nullptr) {
      // Paths and URLs handed to libcurl are one line each.
      static std::set<std::string> const oneLine = {
          "client-cert", "client-key", "client-key-password-file",
          "ssl-engine",  "ca-file",    "ca-path",
          "proxy",       "no-proxy",   "control-socket"};
      if (oneLine.count(key) && hasControl(value)) {
        fail(key + " must not contain control characters");
      }
      if (key == "proxy" && value.rfind("http://", 0) != 0 && value.rfind("https://", 0) != 0 &&
          value.rfind("socks5h://", 0) != 0) {
        fail("proxy must start with http://, https:// or socks5h://");
      }
      if (key == "client-key-password-file") {
        std::string problem;
        config.keyPassword = SettingCheck::readFile(value, key, true, problem);
        if (!problem.empty()) fail(problem);
        config.keyPassword.erase(
            std::min(config.keyPassword.find('\n'), config.keyPassword.size()));
        if (!config.keyPassword.empty() && config.keyPassword.back() == '\r')
          config.keyPassword.pop_back();
      }
      if (key == "trusted-hosts" && !value.empty()) {
        std::string const problem = SettingCheck::trustedHosts(value);
        if (!problem.empty()) fail(problem);
      }
      char const* const words = AgentConfig::choices(key);
      if (words != nullptr &&
          ("|" + std::string(words) + "|").find("|" + value + "|") == std::string::npos) {
        fail(key + " must be one of " + words);
      }
      *field = value;
    } else {
      fail("unknown key '" + key + "'");
    }
  }
  // The library reports missing server settings only when it polls; a
  // device that cannot poll should not start.
  for (Key const& key : AgentConfig::keys()) {
    if (key.required && key.kind == Key::Kind::kServer && !seen.count(key.name))
      throw ConfigError(path + ": neither " + key.name + " nor " + key.name + "-file is set");
  }
  config.targetToken = seen.count("token") != 0;
  bool const gateway = seen.count("gateway-token") != 0;
  if (config.targetToken && gateway) {
    throw ConfigError(path + ":" + std::to_string(seen["gateway-token"]) +
                      ": gateway-token and the token of line " + std::to_string(seen["token"]) +
                      ": set one kind of token");
  }
  if (!config.targetToken && !gateway && config.clientCert.empty()) {
    throw ConfigError(path +
                      ": no credentials: set token, gateway-token (or their -file) or "
                      "client-cert");
  }
  // The library binds only a table with a token; which one goes on the
  // wire is the agent's transport's choice.
  if (!config.targetToken) *(*config.properties)["token"] = std::string();
  for (auto const& entry : seen) config.lines[entry.first] = entry.second;
  if (config.downloadDir.empty()) throw ConfigError(path + ": download-dir is not set");
  if (config.consent == "command" && config.consentCommand.empty())
    throw ConfigError(path + ": consent = command needs consent-command");
  // Only a local UI on the control socket can answer these.
  for (auto const& [key, value] :
       {std::make_pair("consent", &config.consent), std::make_pair("permit", &config.permit)}) {
    if (*value == "socket" && config.controlSocket.empty())
      throw ConfigError(path + ": " + key + " = socket needs control-socket");
  }
  // A default poll-interval-s yields to a lower max-poll-interval-s.
  if (seen.count("poll-interval-s") && config.maxPollIntervalSeconds < config.pollIntervalSeconds) {
    char const* const named =
        seen.count("max-poll-interval-s") ? "max-poll-interval-s" : "poll-interval-s";
    throw ConfigError(path + ":" + std::to_string(seen[named]) + ": " + named +
                      ": max-poll-interval-s (" + std::to_string(config.maxPollIntervalSeconds) +
                      ") is below poll-interval-s (" + std::to_string(config.pollIntervalSeconds) +
                      ")");
  }
  return config;
}
