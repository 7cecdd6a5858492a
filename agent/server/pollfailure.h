#ifndef TAMREL_AGENT_SERVER_POLLFAILURE_H_
#define TAMREL_AGENT_SERVER_POLLFAILURE_H_

#include <string>

#include "agent/base/agentconfig.h"
#include "agent/base/watchdog.h"
#include "agent/server/agenttransport.h"

// Why a poll failed, for the operator: the deadline or memory bound that
// cancelled it, refused credentials, which side of a TLS handshake refused,
// an error status, or an answer the library could not read; with a hint
// naming the setting to look at.
class PollFailure {
 public:
  // `answer` is the transport's last exchange, `libraryLog` what the
  // library logged during the poll.
  static std::string describe(Watchdog::Verdict verdict, AgentTransport::Answer const& answer,
                              std::string const& libraryLog, AgentConfig const& config);
};

#endif  // TAMREL_AGENT_SERVER_POLLFAILURE_H_
