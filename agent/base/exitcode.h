#ifndef TAMREL_AGENT_BASE_EXITCODE_H_
#define TAMREL_AGENT_BASE_EXITCODE_H_

// The agent's exit statuses, for its supervisor (systemd's Restart= and
// SuccessExitStatus=) and for scripts around --once.
enum ExitCode : int {
  kExitOk = 0,
  kExitDeploymentFailed = 1,
  kExitConfig = 2,
  kExitUnreachable = 3,
};

// Each status with what it means, for --help and the docs.
struct ExitCodeText {
  ExitCode code;
  char const* meaning;
};
inline constexpr ExitCodeText kExitCodeTexts[] = {
    {kExitOk, "nothing went wrong (also after SIGINT/SIGTERM)"},
    {kExitDeploymentFailed, "a deployment failed or was refused (--once)"},
    {kExitConfig, "configuration error, or the host is not ready (directories, commands)"},
    {kExitUnreachable,
     "the server could not be reached, refused the token, or a poll timed out "
     "(--once)"},
};

#endif  // TAMREL_AGENT_BASE_EXITCODE_H_
