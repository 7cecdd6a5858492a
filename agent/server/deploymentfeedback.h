#ifndef TAMREL_AGENT_SERVER_DEPLOYMENTFEEDBACK_H_
#define TAMREL_AGENT_SERVER_DEPLOYMENTFEEDBACK_H_

#include <functional>
#include <set>
#include <string>

#include "agent/server/serverrequest.h"
#include "plugin/libtamrelcore.h"

// Sends a deployment's feedback through the server request and logs it. An
// action the server answers 404/410 for is gone: said once, remembered, and
// `onGone` runs so that the agent forgets what it keeps for it. Runs on the
// polling thread.
class DeploymentFeedback {
 public:
  DeploymentFeedback(libtamrelcore& client, ServerRequest const& server,
                     std::function<void(std::string const&)> onGone);

  // Sends one feedback of the action: "sent", or why not.
  std::string send(std::string const& actionId, std::function<bool()> const& request);
  // Sends the deployment's state as it stands: "sent", or why not.
  std::string update(hawkbit_query_t::deployment_t const& deployment);
  // Reports the action "proceeding" with `detail`, leaving it open; logs
  // `what` with the outcome of the report.
  void proceed(hawkbit_query_t::deployment_t& deployment, std::string const& detail,
               char const* what);
  // Closes the deployment with success or failure and says so.
  void close(hawkbit_query_t::deployment_t& deployment, bool success);
  // A download-only action: closed with "downloaded".
  void closeDownloaded(hawkbit_query_t::deployment_t const& deployment);
  // True once the server answered 404/410 for the action.
  bool gone(std::string const& actionId) const { return gone_.count(actionId) != 0; }

 private:
  libtamrelcore& client_;
  ServerRequest const& server_;
  std::function<void(std::string const&)> const onGone_;
  std::set<std::string> gone_;
};

#endif  // TAMREL_AGENT_SERVER_DEPLOYMENTFEEDBACK_H_
