#ifndef TAMREL_AGENT_BASE_SETTINGCHECK_H_
#define TAMREL_AGENT_BASE_SETTINGCHECK_H_

#include <string>

// The checks of single configuration values that AgentConfig makes while it
// reads a file, and CredentialCheck of the client key. Each problem is
// worded to follow "FILE:LINE: ".
class SettingCheck {
 public:
  // "" when a file of `mode` may hold a secret (nobody but its owner may
  // read or write it), otherwise why not, naming `path`.
  static std::string secretFile(std::string const& path, unsigned mode);
  // The text of the file a KEY-file setting names; `problem` set instead
  // when it is no readable regular file of at most 64 KiB, or (`secret`)
  // when it is not private to its owner.
  static std::string readFile(std::string const& path, std::string const& key, bool secret,
                              std::string& problem);
  // The server's address without trailing '/' (the server refuses paths
  // with "//", and the library appends "/"); `problem` set when it is not
  // http:// or https:// and a host, or has a query, fragment or blank.
  static std::string address(std::string address, std::string& problem);
  // "" when `value` can be a segment of the controller's path (tenant-id,
  // controller-id), otherwise why not.
  static std::string pathSegment(std::string const& key, std::string const& value);
  // "" when every entry of a trusted-hosts list is host or host:port.
  static std::string trustedHosts(std::string const& list);
};

#endif  // TAMREL_AGENT_BASE_SETTINGCHECK_H_
