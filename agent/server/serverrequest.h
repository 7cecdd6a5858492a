#ifndef TAMREL_AGENT_SERVER_SERVERREQUEST_H_
#define TAMREL_AGENT_SERVER_SERVERREQUEST_H_

#include <functional>
#include <string>

#include "agent/base/agentconfig.h"
#include "agent/server/agenttransport.h"

// Runs one POST/PUT of the library and reads the server's answer from the
// agent's transport. The transport bounds the request (feedback-timeout-s);
// a stopping agent gives it a few seconds' grace, then cuts it. A server that
// asks to wait (409, 429) is waited for (Retry-After, else a short back-off)
// and asked again, twice at most; anything else is left to the next poll.
class ServerRequest {
 public:
  struct Result {
    std::string failure;  // "" when the server took it, otherwise the reason
    bool gone = false;    // 404/410: the action no longer exists on the server
  };

  ServerRequest(AgentConfig const& config, AgentTransport& transport,
                std::function<bool()> stopping);

  Result submit(std::function<bool()> const& request) const;
  // True for a failure that says the action no longer exists on the server.
  static bool gone(std::string const& failure);
  // submit(request).failure.
  std::string send(std::function<bool()> const& request) const;

 private:
  // Waits up to `seconds`, returning early once the agent stops.
  void pause(long seconds) const;

  AgentConfig const& config_;
  AgentTransport& transport_;
  std::function<bool()> const stopping_;
};

#endif  // TAMREL_AGENT_SERVER_SERVERREQUEST_H_
