#include "agent/base/agentconfig.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <map>
#include <set>

#include "agent/base/settingcheck.h"

namespace {

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

std::string* textField(AgentConfig& config, std::string const& key) {
  if (key == "download-dir") return &config.downloadDir;
  if (key == "state-dir") return &config.stateDir;
  if (key == "install-command") return &config.installCommand;
  if (key == "reboot-command") return &config.rebootCommand;
  if (key == "confirm-command") return &config.confirmCommand;
  if (key == "trusted-hosts") return &config.trustedHosts;
  if (key == "boot-id-file") return &config.bootIdFile;
  if (key == "client-cert") return &config.clientCert;
  if (key == "client-key") return &config.clientKey;
  if (key == "client-key-password-file") return &config.keyPasswordFile;
  if (key == "ssl-engine") return &config.sslEngine;
  if (key == "ca-file") return &config.caFile;
  if (key == "ca-path") return &config.caPath;
  if (key == "proxy") return &config.proxy;
  if (key == "no-proxy") return &config.noProxy;
  if (key == "consent") return &config.consent;
  if (key == "consent-command") return &config.consentCommand;
  if (key == "permit") return &config.permit;
  if (key == "auto-confirm") return &config.autoConfirm;
  if (key == "auto-confirm-remark") return &config.autoConfirmRemark;
  if (key == "install-mode") return &config.installMode;
  if (key == "log-level") return &config.logLevel;
  if (key == "control-socket") return &config.controlSocket;
  if (key == "control-group") return &config.controlGroup;
  if (key == "attributes-dir") return &config.attributesDir;
  return nullptr;
}

// The words a key takes, "|"-separated; nullptr for a key that takes any text.
char const* choices(std::string const& key) {
  if (key == "consent") return "auto|command|socket";
  if (key == "permit") return "auto|socket";
  if (key == "auto-confirm") return "on|off|server";
  if (key == "install-mode") return "file|stream|url";
  if (key == "log-level") return "error|warning|info|debug";
  return nullptr;
}

}  // namespace

char const* const AgentConfig::kPartKeys[3] = {"install-command", "install-mode",
                                               "reboot-exit-code"};

bool AgentConfig::partName(std::string const& part) {
  if (part.empty()) return false;
  for (char c : part) {
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '_' && c != '.')
      return false;
  }
  return true;
}

AgentConfig::Install AgentConfig::installFor(std::string const& part) const {
  Install install{installCommand, installMode, rebootExitCode};
  auto const command = partCommands.find(part);
  if (command != partCommands.end()) install.command = command->second;
  auto const mode = partModes.find(part);
  if (mode != partModes.end()) install.mode = mode->second;
  auto const code = partRebootExitCodes.find(part);
  if (code != partRebootExitCodes.end()) install.rebootExitCode = code->second;
  return install;
}

std::vector<AgentConfig::Key> const& AgentConfig::keys() {
  using K = Key::Kind;
  static std::vector<Key> const table = {
      {"address", K::kServer, true, "", "the server's URL, http:// or https://", 0, 0},
      {"tenant-id", K::kServer, true, "", "the tenant on the server", 0, 0},
      {"controller-id", K::kServer, true, "", "this device's controller id", 0, 0},
      {"token", K::kServer, false, "", "target security token, one line", 0, 0},
      {"gateway-token", K::kSecret, false, "", "tenant-wide gateway token (instead of token)", 0,
       0},
      {"client-cert", K::kText, false, "", "PEM client certificate for mutual TLS", 0, 0},
      {"client-key", K::kText, false, "", "its PEM key (with ssl-engine: the engine's key id)", 0,
       0},
      {"client-key-password-file", K::kText, false, "", "file holding the key's password", 0, 0},
      {"ssl-engine", K::kText, false, "", "OpenSSL engine that holds the key (TPM, HSM)", 0, 0},
      {"ca-file", K::kText, false, "", "PEM CA(s) of the server, instead of the system store", 0,
       0},
      {"ca-path", K::kText, false, "", "directory of hashed CAs, instead of the system store", 0,
       0},
      {"proxy", K::kText, false, "",
       "http://, https:// or socks5h:// proxy; unset: the *_proxy variables", 0, 0},
      {"no-proxy", K::kText, false, "", "hosts reached without the proxy, comma-separated", 0, 0},
      {"download-authentication", K::kText, false, "yes",
       "yes or no: credentials with artifact downloads", 0, 0},
      {"download-dir", K::kText, true, "", "where artifacts are stored, a folder per chunk", 0, 0},
      {"state-dir", K::kText, false, "/var/lib/tamrel/state",
       "where the action's state and the install lock are kept", 0, 0},
      {"install-command", K::kText, false, "", "sh -c command, the chunk's files as $1, $2, ...", 0,
       0},
      {"install-command.PART", K::kText, false, "",
       "install-command for chunks of module type PART (letters, digits, -_.)", 0, 0},
      {"install-timeout-s", K::kNumber, false, "3600",
       "deadline of one install command; a restart waits as long for one left running", 1,
       7 * 86400},
      {"install-mode", K::kText, false, "file",
       "file (stored, then installed), stream (fed to its stdin) or url (it fetches)", 0, 0},
      {"install-mode.PART", K::kText, false, "", "install-mode for chunks of module type PART", 0,
       0},
      {"stream-hold-back-kib", K::kNumber, false, "1024",
       "stream: the last KiB the command sees once the digests match", 64, 1048576},
      {"reboot-exit-code", K::kNumber, false, "", "install exit status meaning reboot needed", 1,
       255},
      {"reboot-exit-code.PART", K::kNumber, false, "",
       "reboot-exit-code for chunks of module type PART", 1, 255},
      {"reboot-command", K::kText, false, "", "run for that reboot", 0, 0},
      {"reboot-timeout-s", K::kNumber, false, "300",
       "deadline of reboot-command; past it: ended, failed, run again later", 1, 86400},
      {"boot-id-file", K::kText, false, "/proc/sys/kernel/random/boot_id",
       "tells whether that reboot happened", 0, 0},
      {"confirm-command", K::kText, false, "", "run after that reboot; exit 0 confirms", 0, 0},
      {"confirm-timeout-s", K::kNumber, false, "300",
       "deadline of confirm-command; past it: ended, the update failed", 1, 86400},
      {"trusted-hosts", K::kText, false, "",
       "hosts besides address that get the credentials: host[:port], ...", 0, 0},
      {"attribute.NAME", K::kAttribute, false, "", "sent as config data (<= 128 characters)", 0, 0},
      {"attributes-dir", K::kText, false, "",
       "its executables print name=value lines, sent as config data", 0, 0},
      {"attributes-timeout-s", K::kNumber, false, "10",
       "deadline of one of them; past it: ended, its lines left out", 1, 600},
      {"download-retries", K::kNumber, false, "3", "further attempts per artifact", 0, 100},
      {"download-timeout-s", K::kNumber, false, "60",
       "window in which download-min-rate must arrive (at least 1 s)", 1, 86400},
      {"download-min-rate", K::kNumber, false, "1024", "bytes/s; below it a download is cancelled",
       0, 999999999},
      {"poll-timeout-s", K::kNumber, false, "60", "deadline of one poll", 1, 86400},
      {"feedback-timeout-s", K::kNumber, false, "60",
       "deadline of one POST/PUT; past it: failed, tried again later", 1, 86400},
      {"max-document-mib", K::kNumber, false, "16", "heap one poll may take", 1, 4096},
      {"poll-interval-s", K::kNumber, false, "300",
       "wait after a failed poll (doubling while they fail), or when the server names none", 1,
       31 * 86400},
      {"max-poll-interval-s", K::kNumber, false, "86400", "longest wait between polls", 1,
       31 * 86400},
      {"consent", K::kText, false, "auto",
       "who agrees to an update that waits for the device: auto | command | socket (a local UI)", 0,
       0},
      {"consent-command", K::kText, false, "",
       "sh -c command, $1 action id, then each chunk's name, version; exit 0 yes, 1 no, 75 later",
       0, 0},
      {"consent-timeout-s", K::kNumber, false, "300",
       "deadline of consent-command; past it: asked again", 1, 86400},
      {"permit", K::kText, false, "auto",
       "auto | socket: a local UI permits each download and each install first", 0, 0},
      {"auto-confirm", K::kText, false, "server",
       "the server's auto-confirm for this device: on | off | server (as it is)", 0, 0},
      {"auto-confirm-remark", K::kText, false, "", "remark sent when switching auto-confirm on", 0,
       0},
      {"log-level", K::kText, false, "info",
       "lines logged: error | warning | info | debug (each with the ones before it)", 0, 0},
      {"control-socket", K::kText, false, "",
       "Unix socket for a local UI and tamrel-ctl (unset: none)", 0, 0},
      {"control-group", K::kText, false, "",
       "group (name or number) that may use it (unset: the agent's)", 0, 0},
      {"control-clients", K::kNumber, false, "16", "clients of the socket at once", 1, 1024},
  };
  return table;
}

AgentConfig::AgentConfig() {
  for (Key const& key : keys()) {
    if (*key.defaultValue == '\0') continue;
    if (key.kind == Key::Kind::kNumber) storeNumber(key.name, std::stoll(key.defaultValue));
    if (std::string* field = key.kind == Key::Kind::kText ? textField(*this, key.name) : nullptr) {
      *field = key.defaultValue;
    }
  }
}

void AgentConfig::storeNumber(std::string const& key, long long value) {
  struct Field {
    char const* key;
    void (*store)(AgentConfig&, long long);
  };
  static Field const fields[] = {
      {"reboot-exit-code", [](AgentConfig& c, long long v) { c.rebootExitCode = int(v); }},
      {"download-retries", [](AgentConfig& c, long long v) { c.retries = int(v); }},
      {"install-timeout-s", [](AgentConfig& c, long long v) { c.installTimeoutSeconds = int(v); }},
      {"stream-hold-back-kib", [](AgentConfig& c, long long v) { c.streamHoldBackKib = v; }},
      {"download-timeout-s", [](AgentConfig& c, long long v) { c.timeoutSeconds = int(v); }},
      {"download-min-rate", [](AgentConfig& c, long long v) { c.downloadMinRate = v; }},
      {"poll-timeout-s", [](AgentConfig& c, long long v) { c.pollTimeoutSeconds = int(v); }},
      {"feedback-timeout-s",
       [](AgentConfig& c, long long v) { c.feedbackTimeoutSeconds = int(v); }},
      {"max-document-mib", [](AgentConfig& c, long long v) { c.maxDocumentMib = v; }},
      {"poll-interval-s", [](AgentConfig& c, long long v) { c.pollIntervalSeconds = v; }},
      {"max-poll-interval-s", [](AgentConfig& c, long long v) { c.maxPollIntervalSeconds = v; }},
      {"consent-timeout-s", [](AgentConfig& c, long long v) { c.consentTimeoutSeconds = int(v); }},
      {"reboot-timeout-s", [](AgentConfig& c, long long v) { c.rebootTimeoutSeconds = int(v); }},
      {"confirm-timeout-s", [](AgentConfig& c, long long v) { c.confirmTimeoutSeconds = int(v); }},
      {"control-clients", [](AgentConfig& c, long long v) { c.controlClients = int(v); }},
      {"attributes-timeout-s",
       [](AgentConfig& c, long long v) { c.attributesTimeoutSeconds = int(v); }},
  };
  for (Field const& field : fields) {
    if (key == field.key) field.store(*this, value);
  }
}

std::string AgentConfig::keysHelp() {
  std::string text = "configuration keys (key = value; # starts a comment after a blank):\n";
  for (Key const& key : keys()) {
    std::string name = key.name;
    if (key.required) name += " (required)";
    if (*key.defaultValue != '\0') name += std::string(" [") + key.defaultValue + "]";
    // A name too long for its column gets a line of its own: help2man reads
    // a name and its text only when two blanks at least part them.
    if (name.size() < 33) {
      name.resize(34, ' ');
    } else {
      name += "\n" + std::string(36, ' ');
    }
    text += "  " + name + key.help + "\n";
  }
  text +=
      "  KEY-file = PATH                   address, tenant-id, controller-id, token or\n"
      "                                    gateway-token read from a file (one line; its line\n"
      "                                    ending removed)\n";
  return text;
}

AgentConfig AgentConfig::fromFile(std::string const& path) {
  std::ifstream in(path);
  struct stat info {};
  if (!in || stat(path.c_str(), &info) != 0)
    throw ConfigError(path + ": cannot read the configuration file");
  std::set<std::string> settings;
  for (Key const& key : keys()) {
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
    for (Key const& candidate : keys()) {
      if (key == candidate.name) known = &candidate;
    }
    // "install-command.os" and the like: the plain key's checks, per part.
    std::string partKey;
    for (char const* name : kPartKeys) {
      std::string const prefix = std::string(name) + ".";
      if (key.size() > prefix.size() && key.compare(0, prefix.size(), prefix) == 0) partKey = name;
    }
    if (!partKey.empty()) {
      std::string const part = key.substr(partKey.size() + 1);
      if (!partName(part)) fail(key + ": a module type has only letters, digits, '-', '_' and '.'");
      if (partKey == "reboot-exit-code") {
        long long code = 0;
        if (!parseNumber(value, code) || code < 1 || code > 255)
          fail(key + " must be a whole number from 1 to 255");
        config.partRebootExitCodes[part] = int(code);
      } else if (partKey == "install-mode") {
        char const* const words = choices(partKey);
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
      if (name.size() > kMaxAttribute || value.size() > kMaxAttribute) {
        fail(key + ": attribute names and values are limited to 128 characters");
      }
      if (name == kVersionAttribute) fail(key + ": the agent sends its own version as " + name);
      config.attributes.push_back({name, value});
    } else if (key == "download-authentication") {
      if (value != "yes" && value != "no") fail("download-authentication must be yes or no");
      config.downloadAuthentication = value == "yes";
    } else if (std::string* field = known != nullptr ? textField(config, key) : nullptr) {
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
      char const* const words = choices(key);
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
  for (Key const& key : keys()) {
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

std::string AgentConfig::address() const {
  std::string text;
  for (auto const& entry : *properties) {
    if (entry.first == "address" && entry.second->is_string()) text = entry.second->string();
    if (entry.first == "address-file" && entry.second->is_link()) text = entry.second->link().text;
  }
  return text;
}
