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
// a "-file" key becomes a link whose text is the file's content.
class AgentConfig {
 public:
  static AgentConfig fromFile(std::string const& path);  // throws ConfigError

  std::shared_ptr<lookup> properties = std::make_shared<lookup>();
  std::vector<tamrel::value_pair_t> attributes;
  std::string downloadDir;
  std::string installCommand;
  int retries = 3;
  int timeoutSeconds = 60;
};

#endif  // TAMREL_AGENT_AGENTCONFIG_H_
