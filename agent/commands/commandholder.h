#ifndef TAMREL_AGENT_COMMANDS_COMMANDHOLDER_H_
#define TAMREL_AGENT_COMMANDS_COMMANDHOLDER_H_

#include <cstdint>
#include <string>

#include "agent/commands/installoutcome.h"
#include "agent/commands/processgroup.h"

// The process between the agent and a command: forked from the agent, it
// starts the command's process group, ends it at its deadline or when the
// agent asks (SIGTERM, SIGKILL kCommandKillAfterMs later), reaps everything
// of it (it is their subreaper) and only once no process of the group is
// left writes how the command ended (InstallOutcome), lets go of the install
// lock and tells the agent. It outlives the agent: it keeps reading ends of
// the command's output pipes (drained once the agent is gone, so that a
// chatty command never dies of SIGPIPE) and, for a stream, a writing end of
// the command's input, so that the command never sees the end of an input
// the agent did not finish: when the agent dies before that, the group is
// killed. Runs only async-signal-safe calls, as a process forked from a
// threaded one must.
class CommandHolder {
 public:
  // To the agent, on the control socket.
  struct Message {
    int kind;
    int value;  // kStarted: the command's pid; kExited, kDone: its wait status
    int flags;  // kDone
  };
  enum Kind { kStarted = 1, kExited = 2, kDone = 3, kNotStarted = 4 };
  enum Flags { kTimedOut = 1, kEndedByAgent = 2, kInputCut = 4, kOutcomeUnwritten = 8 };
  // From the agent, a byte each.
  static char const kEnd = 'T';        // end the group
  static char const kInputDone = 'D';  // the whole input was handed over

  struct Setup {
    int control = -1;       // the holder's end of the socket
    int in = -1;            // the command's standard input; -1: /dev/null
    int heldInput = -1;     // a writing end of that input, closed at kInputDone; -1: none
    int out[2] = {-1, -1};  // pipes: the command writes [1], the agent reads [0]
    int err[2] = {-1, -1};
    int lock = -1;  // the install lock, released last; -1: none
    std::int64_t deadlineMs = 0;
    InstallOutcome::Prepared const* outcome = nullptr;  // nullptr: none written
  };
  [[noreturn]] static void run(ProcessGroup& group, Setup const& setup);
};

#endif  // TAMREL_AGENT_COMMANDS_COMMANDHOLDER_H_
