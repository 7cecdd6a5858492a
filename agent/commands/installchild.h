#ifndef TAMREL_AGENT_COMMANDS_INSTALLCHILD_H_
#define TAMREL_AGENT_COMMANDS_INSTALLCHILD_H_

#include <sys/types.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "agent/commands/command.h"
#include "agent/commands/processgroup.h"
#include "agent/commands/stderrtail.h"

// An install command that runs beside the agent while the agent feeds it:
// `/bin/sh -c '<command>' tamrel-install <args>...` in a process group of its
// own, with the environment extended, standard input from `stdinFd` (or
// /dev/null), standard output the agent's, and the last lines of standard
// error kept (read on a thread of its own, so a chatty command never blocks
// on it). The destructor ends the group and reaps the command.
class InstallChild {
 public:
  struct Options {
    std::string command;
    std::vector<std::string> args;
    std::vector<std::string> environment;  // "NAME=value", added or replacing
    int stdinFd = -1;                      // becomes its standard input; -1: /dev/null
    int keepFd = -1;                       // handed on open to the command only; -1: none
    // Where how the command ended is kept (InstallOutcome), tagged; "": nowhere.
    std::string outcomePath, outcomeTag;
  };
  explicit InstallChild(Options const& options);
  ~InstallChild();
  InstallChild(InstallChild const&) = delete;
  InstallChild& operator=(InstallChild const&) = delete;

  bool started() const { return group_.pid() > 0; }
  // True once the command has exited (reaps it; never blocks).
  bool exited();
  // Waits for the command. Once *stop is set (or right away with `end`),
  // its group gets SIGTERM, and SIGKILL kCommandKillAfterMs later.
  CommandResult wait(std::atomic<bool> const* stop, bool end = false);

 private:
  void readErrors(int fd);

  ProcessGroup group_;
  std::mutex lock_;  // guards status_/exited_ between exited() and wait()
  int status_ = 0;
  bool exited_ = false;
  std::atomic<bool> reaped_{false};
  std::thread reader_;
  std::mutex tailLock_;
  StderrTail tail_;
};

#endif  // TAMREL_AGENT_COMMANDS_INSTALLCHILD_H_
