#ifndef TAMREL_AGENT_COMMANDS_COMMAND_H_
#define TAMREL_AGENT_COMMANDS_COMMAND_H_

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

// Runs a configured command through `/bin/sh -c '<command>' tamrel-install
// <arg1> <arg2> ...`, so the arguments (the artifact files of a chunk) are
// $1, $2, ... and "$@" in the command. Its standard output is printed line
// by line through the agent's console (stamped, escaped, cut); the last
// lines of its standard error are kept, escaped, for the feedback details.
struct CommandResult {
  bool started = false;
  int exitCode = -1;      // -1: ended by a signal
  int signal = 0;         // the signal that ended it, if one did (0: not known)
  bool stopped = false;   // a stop request ended it
  bool timedOut = false;  // its deadline ended it
  std::vector<std::string> stderrTail;
  std::string output;      // its standard output, when CommandOptions::captureBytes asked for it
  bool outputCut = false;  // it printed more than that; the rest was read and dropped
  // "exit N" / "killed by signal N" / "could not be started", and why it
  // was ended when the agent ended it.
  std::string describe() const;
};

struct CommandOptions {
  // Once *stop is set the command's process group gets SIGTERM, and SIGKILL
  // kCommandKillAfterMs later; the same past the deadline. The result comes
  // once no process of the group is left.
  std::atomic<bool> const* stop = nullptr;
  std::int64_t deadlineMs = 0;  // 0: none
  // A descriptor (the install lock) kept open until no process of the
  // command's group is left, by the process between the agent and the
  // command (CommandHolder): it outlives the agent, and not the group; -1:
  // none.
  int inherit = -1;
  // Where the process between the agent and the command writes how the
  // command ended (InstallOutcome), tagged `outcomeTag`, once none of its
  // group is left and before it lets go of `inherit`; "": nowhere.
  std::string outcomePath;
  std::string outcomeTag;
  // "NAME=value" entries added to (or replacing in) the command's environment.
  std::vector<std::string> environment;
  // Told the command's pid once it runs.
  std::function<void(pid_t)> started;
  // 0: standard output goes through the console; otherwise up to this many
  // bytes of it are kept in CommandResult::output instead.
  std::size_t captureBytes = 0;
};

// The command always runs in a process group of its own. Returns once no
// process of the group is left: what the command leaves running in its group
// when it exits is ended (SIGTERM, then SIGKILL). Output held by something
// that left the group is not waited for beyond a short drain.
CommandResult runCommand(std::string const& command, std::vector<std::string> const& args = {},
                         CommandOptions const& options = {});

inline constexpr std::size_t kCommandTailLines = 5;    // of standard error, kept
inline constexpr std::size_t kCommandLineBytes = 200;  // of each of them
inline constexpr int kCommandKillAfterMs = 3000;
inline constexpr int kCommandDrainMs = 200;  // output read after the group ended

#endif  // TAMREL_AGENT_COMMANDS_COMMAND_H_
