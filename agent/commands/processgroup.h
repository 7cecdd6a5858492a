#ifndef TAMREL_AGENT_COMMANDS_PROCESSGROUP_H_
#define TAMREL_AGENT_COMMANDS_PROCESSGROUP_H_

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

// A configured command run through `/bin/sh -c '<command>' tamrel-install
// <arg1> <arg2> ...` in a process group of its own, so that it is ended with
// whatever it started: SIGTERM to the group, SIGKILL kCommandKillAfterMs
// later. The words and environment are made when it is constructed; start()
// and the rest make no allocation and take no lock, so they run in a process
// forked from the threaded agent. Whoever starts it waits for and reaps it.
class ProcessGroup {
 public:
  // The agent's environment plus `environment` ("NAME=value", added or
  // replacing).
  ProcessGroup(std::string const& command, std::vector<std::string> const& args,
               std::vector<std::string> const& environment);

  // Forks the command with `in`, `out` and `err` as its standard streams
  // (-1: /dev/null), every other descriptor closed, default signal
  // dispositions and nothing blocked. False when no process could be made.
  bool start(int in, int out, int err);
  pid_t pid() const { return pid_; }
  // Ends the group, a step a call: SIGTERM at the first, SIGKILL at the
  // first call kCommandKillAfterMs or more after that (and again every
  // kCommandKillAfterMs). Called as often as suits while waiting for it.
  void end();
  // Ends the group at once with `signal` (no SIGTERM step).
  void kill(int signal);
  // The last signal sent; 0: none.
  int sent() const { return sent_; }
  // True while a process of the group is left (its leader reaped or not).
  bool alive() const;
  // When end() should be called next to take its next step, in ms from now;
  // -1: no step is due.
  int nextStepMs() const;

 private:
  std::vector<std::string> words_, env_;
  std::vector<char*> argv_, envp_;
  pid_t pid_ = -1;
  int sent_ = 0;
  std::chrono::steady_clock::time_point signalledAt_;
};

// Closes every descriptor from 3 up except those in `keep` (in a process
// forked from the agent: async-signal-safe).
void closeDescriptorsBut(int const* keep, int count);

#endif  // TAMREL_AGENT_COMMANDS_PROCESSGROUP_H_
