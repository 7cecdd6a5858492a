#include "agent/base/agentconfig.h"

#include <cctype>

#include "agent/base/configreader.h"

std::string* AgentConfig::textField(std::string const& key) {
  if (key == "download-dir") return &downloadDir;
  if (key == "state-dir") return &stateDir;
  if (key == "install-command") return &installCommand;
  if (key == "reboot-command") return &rebootCommand;
  if (key == "confirm-command") return &confirmCommand;
  if (key == "trusted-hosts") return &trustedHosts;
  if (key == "boot-id-file") return &bootIdFile;
  if (key == "client-cert") return &clientCert;
  if (key == "client-key") return &clientKey;
  if (key == "client-key-password-file") return &keyPasswordFile;
  if (key == "ssl-engine") return &sslEngine;
  if (key == "ca-file") return &caFile;
  if (key == "ca-path") return &caPath;
  if (key == "proxy") return &proxy;
  if (key == "no-proxy") return &noProxy;
  if (key == "consent") return &consent;
  if (key == "consent-command") return &consentCommand;
  if (key == "permit") return &permit;
  if (key == "auto-confirm") return &autoConfirm;
  if (key == "auto-confirm-remark") return &autoConfirmRemark;
  if (key == "install-mode") return &installMode;
  if (key == "log-level") return &logLevel;
  if (key == "control-socket") return &controlSocket;
  if (key == "control-group") return &controlGroup;
  if (key == "attributes-dir") return &attributesDir;
  return nullptr;
}

char const* AgentConfig::choices(std::string const& key) {
  if (key == "consent") return "auto|command|socket";
  if (key == "permit") return "auto|socket";
  if (key == "auto-confirm") return "on|off|server";
  if (key == "install-mode") return "file|stream|url";
  if (key == "log-level") return "error|warning|info|debug";
  return nullptr;
}

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
    if (std::string* field = key.kind == Key::Kind::kText ? textField(key.name) : nullptr) {
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

AgentConfig AgentConfig::fromFile(std::string const& path) { return ConfigReader::read(path); }

std::string AgentConfig::address() const {
  std::string text;
  for (auto const& entry : *properties) {
    if (entry.first == "address" && entry.second->is_string()) text = entry.second->string();
    if (entry.first == "address-file" && entry.second->is_link()) text = entry.second->link().text;
  }
  return text;
}
