#include "agent/commands/chunkinstaller.h"

#include "agent/commands/chunkenvironment.h"
#include "agent/commands/command.h"

ChunkInstaller::Result ChunkInstaller::install(deployment_t& deployment, std::size_t index,
                                               DeploymentPlan const& plan,
                                               AgentConfig::Install const& how,
                                               std::vector<std::string> const& files,
                                               std::string const& outcomePath,
                                               std::string const& outcomeTag, std::string& why) {
  auto& chunk = deployment.chunks[index];
  // Removed again once the command ended.
  ChunkEnvironment const environment(config_.downloadDir, deployment, index);
  if (!environment.error().empty()) {
    lock_.release();
    chunk.details.push_back("install command not run: " + environment.error());
    why = "install command not run";
    return Result::kFailed;
  }
  if (how.mode != "file") {
    std::string const sha256 =
        chunk.artifacts.size() == 1 ? plan.sha256(chunk.name, chunk.artifacts[0].filename) : "";
    // The lock goes with the command: held as long as the installer runs,
    // even past the agent.
    StreamInstaller::Result const result = streamer_.install(
        chunk, sha256, how, environment.variables(), lock_.fd(), outcomePath, outcomeTag);
    lock_.release();
    return result == StreamInstaller::Result::kDone     ? Result::kDone
           : result == StreamInstaller::Result::kReboot ? Result::kReboot
           : stop_.load()                               ? Result::kStopped
                                                        : Result::kFailed;
  }
  CommandOptions options;
  options.stop = &stop_;
  options.deadlineMs = config_.installTimeoutSeconds * 1000LL;
  options.inherit = lock_.fd();
  options.outcomePath = outcomePath;
  options.outcomeTag = outcomeTag;
  options.started = [this](pid_t pid) { lock_.handOver(pid); };
  options.environment = environment.variables();
  options.environment.push_back("TAMREL_INSTALL_MODE=file");
  // One artifact is described as in the other modes; several by number.
  for (std::size_t a = 0; a < chunk.artifacts.size(); ++a) {
    std::string const infix = chunk.artifacts.size() == 1 ? "" : "_" + std::to_string(a + 1);
    ChunkEnvironment::artifact(chunk.artifacts[a],
                               plan.sha256(chunk.name, chunk.artifacts[a].filename), infix,
                               options.environment);
  }
  CommandResult const result = runCommand(how.command, files, options);
  lock_.release();
  Result const done = result.stopped         ? Result::kStopped
                      : result.exitCode == 0 ? Result::kDone
                      : how.rebootExitCode >= 0 && result.exitCode == how.rebootExitCode
                          ? Result::kReboot
                          : Result::kFailed;
  why = result.describe();
  chunk.details.push_back(
      std::string("install command ") + (done == Result::kFailed ? "failed" : "succeeded") + " (" +
      result.describe() + (done == Result::kReboot ? ", reboot needed" : "") + ")");
  for (auto const& line : result.stderrTail) chunk.details.push_back("install: " + line);
  return done;
}
