#ifndef TAMREL_AGENT_REBOOTCONFIRMATION_H_
#define TAMREL_AGENT_REBOOTCONFIRMATION_H_

#include <functional>
#include <string>

#include "agent/agentconfig.h"
#include "agent/installstate.h"
#include "plugin/libtamrelcore.h"

// An action installed and waiting for a reboot: recorded in state-dir,
// reported "proceeding", reboot-command run; after the restart
// confirm-command decides how it is closed. Reports go through `post`, the
// agent's ServerRequest ("" when sent, else the reason).
class RebootConfirmation {
 public:
  using Post = std::function<std::string(std::function<bool()> const&)>;

  RebootConfirmation(libtamrelcore& client, AgentConfig const& config, Post post);

  // Records the installed action, reports it and runs reboot-command. False,
  // with a detail line added, when it cannot be recorded: the caller closes
  // the action with failure.
  bool begin(hawkbit_query_t::deployment_t& deployment);
  // Confirms and reports an action recorded by an earlier run, if any. False
  // when it was reported as failed or the record cannot be read.
  bool confirm();
  // True when the action offered by a poll is taken care of here (waiting
  // for the reboot, or confirmed): it must not be deployed again. `result`
  // is what deploying it would have returned.
  bool handles(std::string const& actionId, bool& result);
  // True when the action is installed on this device, waiting for its
  // reboot or its confirmation: too late to cancel it.
  bool installed(std::string const& actionId) const;

 private:
  // Reports "installed, rebooting" unless the record says it was, then runs
  // reboot-command.
  void announceAndReboot(hawkbit_query_t::deployment_t& deployment, InstallState::Pending& pending);

  libtamrelcore& client_;
  AgentConfig const& config_;
  Post post_;
  InstallState state_;
  std::string rebootAction_;     // installed and waiting for the reboot, in this run
  std::string confirmedAction_;  // confirmed in this run
};

#endif  // TAMREL_AGENT_REBOOTCONFIRMATION_H_
