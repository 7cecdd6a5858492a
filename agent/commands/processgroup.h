#ifndef TAMREL_AGENT_COMMANDS_PROCESSGROUP_H_
#define TAMREL_AGENT_COMMANDS_PROCESSGROUP_H_

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

// A configured command started through `/bin/sh -c '<command>'
// tamrel-install <arg1> <arg2> ...` in a process group of its own, so that
// it is ended with whatever it started: SIGTERM to the group, SIGKILL
// kCommandKillAfterMs later. Whoever starts it waits for and reaps it.
class ProcessGroup {
 public:
  // Forks the command. In the child the agent's blocked stop signals are
  // unblocked, the group is made and `prepare` runs (it sets up the
  // descriptors); then the command is executed with the agent's environment
  // plus `environment` ("NAME=value", added or replacing). False when no
  // process could be made.
  bool start(std::string const& command, std::vector<std::string> const& args,
             std::vector<std::string> const& environment, std::function<void()> const& prepare);
  pid_t pid() const { return pid_; }
  // Ends the group, a step a call: SIGTERM at the first, SIGKILL at the
  // first call kCommandKillAfterMs or more after that. Called as often as
  // suits while waiting for the command.
  void end();
  // The last signal end() sent; 0: none.
  int sent() const { return sent_; }

 private:
  pid_t pid_ = -1;
  int sent_ = 0;
  std::chrono::steady_clock::time_point signalledAt_;
};

#endif  // TAMREL_AGENT_COMMANDS_PROCESSGROUP_H_
