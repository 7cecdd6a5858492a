#ifndef TAMREL_AGENT_BASE_AGENTCONFIG_H_
#define TAMREL_AGENT_BASE_AGENTCONFIG_H_

#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "properties/lookup.h"

// A configuration problem, worded "FILE:LINE: message".
class ConfigError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The agent's settings, read from `key = value` lines with `#` comments.
// Connection settings go into the property table shared with the library;
// a "-file" key becomes a link whose text is the file's content. A key given
// twice, a server setting with control characters (or a second line in its
// file) and an attribute over 128 characters are errors. Every key, its
// default and its help line are in one table (keys()); ConfigReader reads
// the file.
class AgentConfig {
 public:
  // One configuration key. A number key's default is applied before the
  // file is read.
  struct Key {
    // kServer: goes into the library's table; kSecret: stays with the agent.
    // Both may be read from a file (KEY-file).
    enum class Kind { kServer, kSecret, kText, kNumber, kAttribute };
    char const* name;
    Kind kind;
    bool required;
    char const* defaultValue;  // "" when none
    char const* help;          // one line, for --help and the docs
    long long min, max;        // kNumber only
  };
  static std::vector<Key> const& keys();
  // Where the shipped configuration puts control-socket, and where
  // tamrel-ctl looks without --socket or --config.
  static constexpr char kShippedControlSocket[] = "/run/tamrel/agent.sock";
  // The longest attribute name and value: hawkBit refuses longer ones.
  static constexpr std::size_t kMaxAttribute = 128;
  // The attribute the agent's version is always sent as.
  static constexpr char const* kVersionAttribute = "tamrel-agent.version";

  AgentConfig();
  static AgentConfig fromFile(std::string const& path);  // throws ConfigError
  // Every key with its default and help, for --help.
  static std::string keysHelp();
  // The server's address, as given or read from address-file.
  std::string address() const;

  // How a chunk of one module type (hawkBit's "part") is installed: its own
  // install-command.PART, install-mode.PART and reboot-exit-code.PART where
  // given, the plain keys otherwise. `command` "" when neither is set.
  struct Install {
    std::string command;
    std::string mode;
    int rebootExitCode = -1;
  };
  Install installFor(std::string const& part) const;
  // A module type usable in a key: letters, digits, '-', '_' and '.'.
  static bool partName(std::string const& part);
  // The keys ending in ".PART" that take a module type.
  static char const* const kPartKeys[3];

  std::shared_ptr<lookup> properties = std::make_shared<lookup>();
  std::vector<tamrel::value_pair_t> attributes;
  std::string downloadDir;             // "download-dir"
  std::string stateDir;                // "state-dir": the action's recorded state
  std::string installCommand;          // run by /bin/sh -c, the files as $1, $2, ...
  std::string rebootCommand;           // "reboot-command"
  std::string confirmCommand;          // "confirm-command", run at start after a reboot
  int rebootTimeoutSeconds = 0;        // "reboot-timeout-s"
  int confirmTimeoutSeconds = 0;       // "confirm-timeout-s"
  std::string bootIdFile;              // "boot-id-file": changes with every boot
  std::string trustedHosts;            // "trusted-hosts": host[:port], ... given credentials
  std::string gatewayToken;            // "gateway-token", else a target token or none
  bool targetToken = true;             // "token" or "token-file" (fromFile decides)
  std::string clientCert, clientKey;   // "client-cert", "client-key"
  std::string keyPasswordFile;         // "client-key-password-file"
  std::string keyPassword;             // read from it
  std::string sslEngine;               // "ssl-engine"
  std::string caFile, caPath;          // "ca-file", "ca-path"
  std::string proxy, noProxy;          // "proxy", "no-proxy"
  bool downloadAuthentication = true;  // "download-authentication"
  std::string path;                    // the file read
  std::map<std::string, int> lines;    // key (a "-file" key under its base name) -> line
  int installTimeoutSeconds = 0;       // "install-timeout-s"
  std::string installMode;             // "install-mode": file, stream or url
  long long streamHoldBackKib = 0;     // "stream-hold-back-kib"
  int rebootExitCode = -1;             // "reboot-exit-code"; -1: none configured
  // "install-command.PART", "install-mode.PART", "reboot-exit-code.PART",
  // keyed by PART.
  std::map<std::string, std::string> partCommands, partModes;
  std::map<std::string, int> partRebootExitCodes;
  int retries = 0;                       // "download-retries"
  int timeoutSeconds = 0;                // "download-timeout-s"
  long long downloadMinRate = 0;         // "download-min-rate", bytes/s
  int pollTimeoutSeconds = 0;            // "poll-timeout-s"
  int feedbackTimeoutSeconds = 0;        // "feedback-timeout-s"
  long long maxDocumentMib = 0;          // "max-document-mib"
  long long pollIntervalSeconds = 0;     // "poll-interval-s"
  long long maxPollIntervalSeconds = 0;  // "max-poll-interval-s"
  std::string consent;                   // "consent": auto | command | socket
  std::string permit;                    // "permit": auto | socket
  std::string consentCommand;            // "consent-command"
  int consentTimeoutSeconds = 0;         // "consent-timeout-s"
  std::string autoConfirm;               // "auto-confirm": on | off | server
  std::string autoConfirmRemark;         // "auto-confirm-remark"
  std::string logLevel;                  // "log-level": error | warning | info | debug
  std::string controlSocket;             // "control-socket": "" for none
  std::string controlGroup;              // "control-group": "" for the agent's
  int controlClients = 0;                // "control-clients"
  bool downloadOnly = false;             // --download-only: close with "downloaded"
  bool demo = false;                     // the demo installs nothing

  std::string attributesDir;         // "attributes-dir": scripts printing attributes
  int attributesTimeoutSeconds = 0;  // "attributes-timeout-s"

 private:
  friend class ConfigReader;
  // Stores a number key's value in its field.
  void storeNumber(std::string const& key, long long value);
  // A text key's field; nullptr for other keys.
  std::string* textField(std::string const& key);
  // The words a key takes, "|"-separated; nullptr for a key that takes any text.
  static char const* choices(std::string const& key);
};

#endif  // TAMREL_AGENT_BASE_AGENTCONFIG_H_
