#ifndef TAMREL_AGENT_COMMAND_H_
#define TAMREL_AGENT_COMMAND_H_

#include <atomic>
#include <string>
#include <vector>

// Runs a configured command through `/bin/sh -c '<command>' tamrel-install
// <arg1> <arg2> ...`, so the arguments (the artifact files of a chunk) are
// $1, $2, ... and "$@" in the command. Its standard output is the agent's;
// the last lines of its standard error are kept for the feedback details.
struct CommandResult {
  bool started = false;
  int exitCode = -1;  // -1: ended by a signal
  std::vector<std::string> stderrTail;
  // "exit N" / "killed by signal N" / "could not be started".
  std::string describe() const;
};

// With `stop`, the command runs in its own process group, which gets
// SIGTERM once *stop is set and SIGKILL kCommandKillAfterMs later: an agent
// that is asked to stop does not wait for an installation to end on its own.
CommandResult runCommand(std::string const& command, std::vector<std::string> const& args = {},
                         std::atomic<bool> const* stop = nullptr);

inline constexpr std::size_t kCommandTailLines = 5;    // of standard error, kept
inline constexpr std::size_t kCommandLineBytes = 200;  // of each of them
inline constexpr int kCommandKillAfterMs = 3000;

#endif  // TAMREL_AGENT_COMMAND_H_
