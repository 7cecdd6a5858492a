#ifndef TAMREL_CTL_CTLEXIT_H_
#define TAMREL_CTL_CTLEXIT_H_

// tamrel-ctl's exit statuses, for scripts and UIs around it.
enum CtlExit : int {
  kCtlDone = 0,
  kCtlRefused = 1,
  kCtlUsage = 2,
  kCtlUnreachable = 3,
};

// Each status with what it means, for --help (and so the man page).
struct CtlExitText {
  CtlExit code;
  char const* meaning;
};
inline constexpr CtlExitText kCtlExitTexts[] = {
    {kCtlDone, "done (watch: the agent stopped and closed the socket)"},
    {kCtlRefused, "the agent refused the request; its reason is printed"},
    {kCtlUsage, "usage error, or --config names no readable configuration with control-socket"},
    {kCtlUnreachable, "no agent answers at the socket (not running, no permission, no answer)"},
};

#endif  // TAMREL_CTL_CTLEXIT_H_
