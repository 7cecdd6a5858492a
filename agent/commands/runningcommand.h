#ifndef TAMREL_AGENT_COMMANDS_RUNNINGCOMMAND_H_
#define TAMREL_AGENT_COMMANDS_RUNNINGCOMMAND_H_

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "agent/commands/command.h"
#include "agent/commands/commandholder.h"
#include "agent/commands/stderrtail.h"

// A configured command running beside the agent: `/bin/sh -c '<command>'
// tamrel-install <args>...` in a process group of its own under a
// CommandHolder, with the environment extended. Its standard output is
// printed through the agent's console a whole line at a time; the last lines
// of its standard error are kept; both are read on a thread of their own, so
// a chatty command never blocks on them. The destructor ends the group and
// waits for it.
class RunningCommand {
 public:
  struct Options {
    std::string command;
    std::vector<std::string> args;
    std::vector<std::string> environment;  // "NAME=value", added or replacing
    int stdinFd = -1;                      // its standard input; -1: /dev/null
    // The writing end the agent feeds stdinFd through: the holder keeps it
    // open until inputDone(), and kills the group if the agent dies first.
    int heldInput = -1;
    int lockFd = -1;              // the install lock, held until no process of the group is left
    std::int64_t deadlineMs = 0;  // 0: none
    std::string outcomePath, outcomeTag;  // InstallOutcome, written by the holder
    std::size_t captureBytes = 0;         // 0: standard output printed; else kept, up to this
  };
  explicit RunningCommand(Options options);
  ~RunningCommand();
  RunningCommand(RunningCommand const&) = delete;
  RunningCommand& operator=(RunningCommand const&) = delete;

  bool started() const { return pid_ > 0; }
  pid_t pid() const { return pid_; }
  // True once the command itself has exited (never blocks).
  bool exited();
  // The whole input was handed over: the command may see its end.
  void inputDone();
  // Waits until no process of the command's group is left. Once *stop is
  // set (or right away with `end`) the group gets SIGTERM, and SIGKILL
  // kCommandKillAfterMs later.
  CommandResult wait(std::atomic<bool> const* stop, bool end = false);

 private:
  // Takes the holder's messages, waiting up to `timeoutMs`; false once the
  // holder is gone. Called with lock_ held.
  bool receive(int timeoutMs);
  void tell(char request);
  void readOutput(int out, int err);

  Options const options_;
  pid_t holder_ = -1;
  pid_t pid_ = -1;
  int control_ = -1;
  std::mutex lock_;  // guards the holder's messages between exited() and wait()
  bool exited_ = false, done_ = false, holderGone_ = false;
  int status_ = 0, flags_ = 0;
  bool askedToEnd_ = false, endedForStop_ = false;
  std::atomic<bool> finished_{false};
  std::thread reader_;
  std::mutex tailLock_;
  StderrTail tail_;
  std::string output_;  // captured standard output
  bool outputCut_ = false;
};

#endif  // TAMREL_AGENT_COMMANDS_RUNNINGCOMMAND_H_
