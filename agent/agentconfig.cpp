#include "agent/agentconfig.h"

#include <fstream>
#include <iterator>
#include <set>

namespace {

std::string trim(std::string const& text) {
  std::size_t const first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos) return std::string();
  std::size_t const last = text.find_last_not_of(" \t\r");
  return text.substr(first, last - first + 1);
}

bool parseCount(std::string const& text, int& value) {
  if (text.empty() || text.size() > 9 ||
      text.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  value = std::stoi(text);
  return true;
}

}  // namespace

AgentConfig AgentConfig::fromFile(std::string const& path) {
  std::ifstream in(path);
  if (!in) throw ConfigError(path + ": cannot read the configuration file");
  static std::set<std::string> const settings = {"address", "tenant-id", "controller-id", "token"};
  AgentConfig config;
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    auto const fail = [&](std::string const& message) {
      throw ConfigError(path + ":" + std::to_string(number) + ": " + message);
    };
    // A comment starts a line or follows a blank; a '#' inside a value (a
    // token, a URL fragment) is kept.
    std::string content = trim(line);
    if (content.empty() || content[0] == '#') continue;
    for (std::size_t hash = content.find('#'); hash != std::string::npos;
         hash = content.find('#', hash + 1)) {
      if (content[hash - 1] == ' ' || content[hash - 1] == '\t') {
        content = trim(content.substr(0, hash));
        break;
      }
    }
    std::size_t const equals = content.find('=');
    if (equals == std::string::npos) fail("expected 'key = value'");
    std::string const key = trim(content.substr(0, equals));
    std::string const value = trim(content.substr(equals + 1));
    if (key.empty()) fail("missing key before '='");

    std::string const base = key.size() > 5 && key.compare(key.size() - 5, 5, "-file") == 0
                                 ? key.substr(0, key.size() - 5)
                                 : std::string();
    if (settings.count(key)) {
      *(*config.properties)[key] = value;
    } else if (settings.count(base)) {
      std::ifstream file(value, std::ios::binary);
      if (!file) fail("cannot read '" + value + "' for " + key);
      std::string text((std::istreambuf_iterator<char>(file)), {});
      if (!text.empty() && text.back() == '\n') text.pop_back();
      *(*config.properties)[key] = link_t{value, text};
    } else if (key == "download-retries" || key == "download-timeout-s") {
      int count = 0;
      if (!parseCount(value, count)) fail(key + " must be a whole number");
      *(*config.properties)[key] = count;
      (key == "download-retries" ? config.retries : config.timeoutSeconds) = count;
    } else if (key.rfind("attribute.", 0) == 0 && key.size() > 10) {
      config.attributes.push_back({key.substr(10), value});
    } else if (key == "download-dir") {
      config.downloadDir = value;
    } else if (key == "install-command") {
      config.installCommand = value;
    } else if (key == "state-dir") {
      config.stateDir = value;
    } else if (key == "reboot-command") {
      config.rebootCommand = value;
    } else if (key == "confirm-command") {
      config.confirmCommand = value;
    } else if (key == "reboot-exit-code") {
      if (!parseCount(value, config.rebootExitCode) || config.rebootExitCode > 255)
        fail(key + " must be an exit status from 0 to 255");
    } else {
      fail("unknown key '" + key + "'");
    }
  }
  // The library reports missing server settings only when it polls; a
  // device that cannot poll should not start.
  auto const isSet = [&config](std::string const& name) {
    for (auto const& entry : *config.properties) {
      if (entry.first == name && entry.second->valid()) return true;
    }
    return false;
  };
  for (std::string const& name : settings) {
    if (!isSet(name) && !isSet(name + "-file"))
      throw ConfigError(path + ": neither " + name + " nor " + name + "-file is set");
  }
  if (config.downloadDir.empty()) throw ConfigError(path + ": download-dir is not set");
  return config;
}
