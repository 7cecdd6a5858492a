#ifndef TAMREL_AGENT_AGENTCONFIG_H_
#define TAMREL_AGENT_AGENTCONFIG_H_

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
// default and its help line are in one table (keys()).
class AgentConfig {
 public:
  // One configuration key. A number key's default is applied before the
  // file is read.
  struct Key {
    enum class Kind { kServer, kText, kNumber, kAttribute };
    char const* name;
    Kind kind;
    bool required;
    char const* defaultValue;  // "" when none
    char const* help;          // one line, for --help and the docs
    long long min, max;        // kNumber only
  };
  static std::vector<Key> const& keys();

  AgentConfig();
  static AgentConfig fromFile(std::string const& path);  // throws ConfigError
  // Every key with its default and help, for --help.
  static std::string keysHelp();

  std::shared_ptr<lookup> properties = std::make_shared<lookup>();
  std::vector<tamrel::value_pair_t> attributes;
  std::string downloadDir;               // "download-dir"
  std::string stateDir;                  // "state-dir": the pending-reboot record
  std::string installCommand;            // run by /bin/sh -c, the files as $1, $2, ...
  std::string rebootCommand;             // "reboot-command"
  std::string confirmCommand;            // "confirm-command", run at start after a reboot
  std::string bootIdFile;                // "boot-id-file": changes with every boot
  std::string trustedHosts;              // "trusted-hosts": host[:port], ... besides address
  std::string installMode;               // "install-mode": file, stream or url
  long long streamHoldBackKib = 0;       // "stream-hold-back-kib"
  int rebootExitCode = -1;               // "reboot-exit-code"; -1: none configured
  int retries = 0;                       // "download-retries"
  int timeoutSeconds = 0;                // "download-timeout-s"
  long long downloadMinRate = 0;         // "download-min-rate", bytes/s
  int pollTimeoutSeconds = 0;            // "poll-timeout-s"
  int feedbackTimeoutSeconds = 0;        // "feedback-timeout-s"
  long long maxDocumentMib = 0;          // "max-document-mib"
  long long pollIntervalSeconds = 0;     // "poll-interval-s"
  long long maxPollIntervalSeconds = 0;  // "max-poll-interval-s"
  bool downloadOnly = false;             // --download-only: close with "downloaded"
  bool demo = false;                     // the demo installs nothing

 private:
  // Stores a number key's value in its field.
  void storeNumber(std::string const& key, long long value);
};

#endif  // TAMREL_AGENT_AGENTCONFIG_H_
