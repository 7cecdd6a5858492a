#ifndef TAMREL_AGENT_BASE_CONFIGREADER_H_
#define TAMREL_AGENT_BASE_CONFIGREADER_H_

#include <string>

#include "agent/base/agentconfig.h"

// Reads an AgentConfig from its file: strips comments, checks each value
// against its key in AgentConfig::keys() (numbers in range, one of a key's
// words, server settings one line, files of "-file" keys, per-part keys),
// then the keys against each other (credentials, consent and permit, poll
// intervals). The first problem throws ConfigError "FILE:LINE: message".
class ConfigReader {
 public:
  static AgentConfig read(std::string const& path);
};

#endif  // TAMREL_AGENT_BASE_CONFIGREADER_H_
