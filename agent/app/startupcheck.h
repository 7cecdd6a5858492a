#ifndef TAMREL_AGENT_APP_STARTUPCHECK_H_
#define TAMREL_AGENT_APP_STARTUPCHECK_H_

#include <string>

#include "agent/base/agentconfig.h"

// What a deployment will need of this host, checked before the first poll:
// a local mistake ends the agent with a reason instead of failing an action
// on the server. Nothing is made on disk before every check has passed;
// then a missing download-dir or state-dir is created (its last component
// only). "" when the host is ready, otherwise "FILE:LINE: reason".
std::string checkHost(AgentConfig const& config);

// The program a command line starts: its first word, looked up in PATH when
// it has no slash; "" when there is no such executable file.
std::string commandProgram(std::string const& commandLine);

#endif  // TAMREL_AGENT_APP_STARTUPCHECK_H_
