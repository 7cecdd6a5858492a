#include "agent/commands/command.h"

#include "agent/commands/runningcommand.h"

std::string CommandResult::describe() const {
  if (!started) return "could not be started";
  std::string text = exitCode >= 0 ? "exit " + std::to_string(exitCode)
                     : signal > 0  ? "killed by signal " + std::to_string(signal)
                                   : "ended, how is not known";
  if (timedOut) text += ", past its deadline";
  if (stopped) text += ", the agent was stopping";
  return text;
}

CommandResult runCommand(std::string const& command, std::vector<std::string> const& args,
                         CommandOptions const& options) {
  RunningCommand::Options run;
  run.command = command;
  run.args = args;
  run.lockFd = options.inherit;
  run.environment = options.environment;
  run.deadlineMs = options.deadlineMs;
  run.outcomePath = options.outcomePath;
  run.outcomeTag = options.outcomeTag;
  run.captureBytes = options.captureBytes;
  RunningCommand child(run);
  if (!child.started()) return child.wait(nullptr);
  if (options.started) options.started(child.pid());
  return child.wait(options.stop);
}
