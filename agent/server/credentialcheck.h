#ifndef TAMREL_AGENT_SERVER_CREDENTIALCHECK_H_
#define TAMREL_AGENT_SERVER_CREDENTIALCHECK_H_

#include <string>
#include <vector>

#include "agent/base/agentconfig.h"

// The TLS files a configuration names, checked before the first poll so that
// a mistake on the device is reported with its line instead of as a refused
// handshake: the CA file or directory, the client certificate and key (read
// with the password from client-key-password-file; a key file group or
// others may read or write is refused), whether they belong together, the certificate's validity,
// and the engine.
class CredentialCheck {
 public:
  explicit CredentialCheck(AgentConfig const& config);

  // "FILE:LINE: message" of the first problem, "" when the files are usable.
  std::string const& error() const { return error_; }
  // Usable but worth a look: a certificate expiring within 30 days, or
  // expired while a token is configured too. Each "FILE:LINE: message".
  std::vector<std::string> const& warnings() const { return warnings_; }
  // "FILE:LINE: message" when the client certificate has expired and no
  // token is configured: every request fails, yet the agent goes on (a
  // stopped agent would never see a renewed certificate). "" otherwise.
  std::string const& expired() const { return expired_; }

 private:
  std::string where(char const* key) const;
  void check();

  AgentConfig const& config_;
  std::string error_, expired_;
  std::vector<std::string> warnings_;
};

#endif  // TAMREL_AGENT_SERVER_CREDENTIALCHECK_H_
