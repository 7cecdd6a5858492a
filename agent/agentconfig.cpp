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
  if (!in) throw ConfigError(path + ":0: cannot read the configuration file");
  static std::set<std::string> const settings = {"address", "tenant-id", "controller-id", "token"};
  AgentConfig config;
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    auto const fail = [&](std::string const& message) {
      throw ConfigError(path + ":" + std::to_string(number) + ": " + message);
    };
    std::string const content = trim(line.substr(0, line.find('#')));
    if (content.empty()) continue;
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
    } else {
      fail("unknown key '" + key + "'");
    }
  }
  if (config.downloadDir.empty()) throw ConfigError(path + ":0: download-dir is not set");
  return config;
}
