#ifndef TAMREL_AGENT_LIFECYCLE_ACTIONREPORTS_H_
#define TAMREL_AGENT_LIFECYCLE_ACTIONREPORTS_H_

#include <functional>
#include <string>

#include "agent/lifecycle/actionmachine.h"
#include "agent/server/agenttransport.h"
#include "agent/server/serverrequest.h"
#include "plugin/libtamrelcore.h"

// What the device tells the server about an action, and the server's answer
// as ActionMachine takes it: taken (2xx), gone (404/410, or "not active"),
// busy (409/429), refused (any other status) or none.
class ActionReports {
 public:
  using deployment_t = hawkbit_query_t::deployment_t;
  using Answer = ActionMachine::Answer;

  ActionReports(libtamrelcore& client, AgentTransport& transport, ServerRequest const& server)
      : client_(client), transport_(transport), server_(server) {}

  void start(std::string const& baseUrl) { baseUrl_ = baseUrl; }
  Answer send(std::string const& actionId, std::function<bool()> const& request);
  // "proceeding" for `deployment`, with `detail` added when not "", its
  // first `completed` chunks counted as done.
  Answer proceed(deployment_t deployment, std::string const& detail, std::size_t completed = 0);
  // The recorded result of `state` (success, failure or downloaded).
  Answer result(ActionState const& state);
  // Tells the offered `deployment` that it waits for the action of `state`.
  void hold(deployment_t deployment, ActionState const& state);
  // Accepts or rejects a cancel request; "" when the server took it.
  std::string cancel(hawkbit_query_t::cancel_action_t const& cancel, bool accept);
  // A feedback of the action of `state` with its chunks, nothing else set.
  static deployment_t of(ActionState const& state);

 private:
  libtamrelcore& client_;
  AgentTransport& transport_;
  ServerRequest const& server_;
  std::string baseUrl_;
};

#endif  // TAMREL_AGENT_LIFECYCLE_ACTIONREPORTS_H_
