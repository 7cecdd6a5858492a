#ifndef TAMREL_AGENT_SERVERREQUEST_H_
#define TAMREL_AGENT_SERVERREQUEST_H_

#include <functional>
#include <string>

#include "agent/agentconfig.h"

// Runs one POST/PUT of the library under the feedback deadline, keeping the
// server's answer out of the agent's output. libcurl cannot interrupt such a
// request: past its deadline the process ends (its supervisor starts it
// again), and a stopping agent gives it a few seconds' grace.
class ServerRequest {
 public:
  ServerRequest(AgentConfig const& config, std::function<bool()> stopping);

  // "" when it was sent, otherwise the reason ("refused by the server:
  // <message>", "not sent").
  std::string send(std::function<bool()> const& request) const;

 private:
  AgentConfig const& config_;
  std::function<bool()> const stopping_;
};

#endif  // TAMREL_AGENT_SERVERREQUEST_H_
