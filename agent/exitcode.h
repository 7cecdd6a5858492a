#ifndef TAMREL_AGENT_EXITCODE_H_
#define TAMREL_AGENT_EXITCODE_H_

// The agent's exit statuses, for its supervisor (systemd's Restart= and
// SuccessExitStatus=) and for scripts around --once.
enum ExitCode : int {
  kExitOk = 0,                // nothing went wrong
  kExitDeploymentFailed = 1,  // a deployment failed or was refused
  kExitConfig = 2,            // configuration error
  kExitUnreachable = 3,       // server unreachable, token refused, poll timed out
  kExitFeedbackDeadline = 4,  // a POST/PUT passed its deadline
};

#endif  // TAMREL_AGENT_EXITCODE_H_
