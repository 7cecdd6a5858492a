#include "agent/lifecycle/chunkstep.h"

#include "agent/base/log.h"
#include "agent/commands/command.h"
#include "agent/commands/installoutcome.h"

namespace {

using Kind = ActionMachine::Kind;
using Exit = ActionMachine::Exit;
using Event = ActionMachine::Event;

// Tells the outcome of this chunk's install from an earlier one's.
std::string tag(ActionState const& state) {
  return state.actionId + ":" + std::to_string(state.chunk);
}

}  // namespace

ChunkStep::ChunkStep(AgentConfig const& config, DeploymentDownload& download, InstallLock& lock,
                     StreamInstaller& streamer, std::atomic<bool> const& stop, ControlStatus& ui)
    : config_(config),
      download_(download),
      lock_(lock),
      stop_(stop),
      ui_(ui),
      installer_(config, streamer, lock, stop) {}

std::string ChunkStep::outcomeFile() const {
  return (config_.stateDir.empty() ? config_.downloadDir : config_.stateDir) + "/outcome";
}

std::optional<ChunkStep::Event> ChunkStep::install(ActionState& state, deployment_t* deployment,
                                                   DeploymentPlan const* plan, Files& files) {
  std::size_t const c = state.chunk;
  if (!commandsConfigured()) return Event::of(Kind::kCommandExited, Exit::kOk);
  if (!deployment) {
    Log::info("deployment %s: %s runs when the server offers the action again",
              state.actionId.c_str(), state.describe().c_str());
    return std::nullopt;
  }
  if (c >= deployment->chunks.size()) return Event::of(Kind::kFailed);
  auto& chunk = deployment->chunks[c];
  AgentConfig::Install const how = config_.installFor(chunk.part);
  if (how.command.empty()) {
    // The configuration changed since the download.
    std::string const why = "no install command for module type '" + chunk.part + "'";
    Log::error("deployment %s: chunk %s: %s", state.actionId.c_str(), chunk.name.c_str(),
               why.c_str());
    state.details.push_back(why);
    return failed(state, deployment, c, std::string());
  }
  // Resumed in a later run: what is on disk and verifies is kept.
  if (files.size() != deployment->chunks.size()) {
    files.assign(deployment->chunks.size(), {});
    if (!download_.run(*deployment, *plan, files)) {
      if (stop_.load()) return Event::of(Kind::kStop);
      state.details.push_back("the artifacts could not be fetched again to resume the install");
      return Event::of(Kind::kFailed);
    }
  }
  if (how.mode == "file" && files[c].empty()) return Event::of(Kind::kCommandExited, Exit::kOk);
  std::string error;
  if (!lock_.take(stop_, config_.installTimeoutSeconds * 1000LL, error)) {
    if (error.empty()) return Event::of(Kind::kStop);
    state.details.push_back("install command not run: " + error);
    return failed(state, deployment, c, "install command not run");
  }
  std::string const outcomePath = outcomeFile();
  std::string ignored;
  InstallOutcome::remove(outcomePath, ignored);
  Log::info("deployment %s: installing %s", state.actionId.c_str(),
            label(state, deployment, c).c_str());
  chunk.details.clear();
  ui_.event("install-started", {{"action", state.actionId},
                                {"chunk", std::to_string(c + 1)},
                                {"part", chunk.part},
                                {"name", chunk.name},
                                {"version", chunk.version}});
  std::string why;
  ChunkInstaller::Result const result =
      installer_.install(*deployment, c, *plan, how, files[c], outcomePath, tag(state), why);
  Exit const exit = result == ChunkInstaller::Result::kDone     ? Exit::kOk
                    : result == ChunkInstaller::Result::kReboot ? Exit::kReboot
                    : result == ChunkInstaller::Result::kFailed ? Exit::kFailed
                                                                : Exit::kStopped;
  // The command's standard error tail, as the feedback carries it.
  for (auto const& line : chunk.details)
    if (line.rfind("install: ", 0) == 0)
      ui_.event("install-output", {{"action", state.actionId}, {"line", line.substr(9)}});
  ui_.event("install-ended", {{"action", state.actionId},
                              {"chunk", std::to_string(c + 1)},
                              {"exit", exit == Exit::kOk       ? "ok"
                                       : exit == Exit::kReboot ? "reboot"
                                       : exit == Exit::kFailed ? "failed"
                                                               : "stopped"}});
  if (exit != Exit::kStopped)
    state.details.insert(state.details.end(), chunk.details.begin(), chunk.details.end());
  if (exit == Exit::kFailed) {
    Log::error("deployment %s: chunk %s: install command failed", state.actionId.c_str(),
               chunk.name.c_str());
    return failed(state, deployment, c, why);
  }
  if (exit != Exit::kStopped)
    state.details.push_back(label(state, deployment, c) + ": installed" +
                            (exit == Exit::kReboot ? ", reboot needed" : ""));
  return Event::of(Kind::kCommandExited, exit);
}

std::string ChunkStep::label(ActionState const& state, deployment_t const* deployment,
                             std::size_t c) {
  std::string label =
      "chunk " + std::to_string(c + 1) + " of " + std::to_string(state.chunks.size());
  if (deployment && c < deployment->chunks.size()) {
    auto const& chunk = deployment->chunks[c];
    return label + " " + chunk.part + " " + chunk.version;
  }
  return c < state.chunks.size() ? label + " " + state.chunks[c] : label;
}

ChunkStep::Event ChunkStep::failed(ActionState& state, deployment_t const* deployment,
                                   std::size_t c, std::string const& why) {
  state.details.push_back(label(state, deployment, c) + ": failed" +
                          (why.empty() ? "" : " (" + why + ")"));
  for (std::size_t later = c + 1; later < state.chunks.size(); ++later)
    state.details.push_back(label(state, deployment, later) + ": not installed");
  return Event::of(Kind::kCommandExited, Exit::kFailed);
}

std::optional<ChunkStep::Event> ChunkStep::recover(ActionState& state,
                                                   deployment_t const* deployment) {
  // An install an earlier run left behind ends before anything else.
  std::string error;
  if (!lock_.take(stop_, config_.installTimeoutSeconds * 1000LL, error, false)) {
    if (error.empty()) return std::nullopt;  // stopping
    Log::warning("install lock: %s", error.c_str());
  }
  lock_.release();
  std::string const outcomePath = outcomeFile();
  CommandResult result;
  // Ended by a signal (the agent's stop or death ended its group): run again.
  if (!InstallOutcome::read(outcomePath, tag(state), result) || result.exitCode < 0) {
    Log::warning("deployment %s: %s was interrupted and left no outcome; it runs again",
                 state.actionId.c_str(), state.describe().c_str());
    return Event::of(Kind::kNoOutcome);
  }
  // What a non-zero exit means depends on the chunk's part, known only with
  // the deployment at hand: the outcome is kept and read at the next offer.
  if (result.exitCode != 0 && !deployment && !config_.partRebootExitCodes.empty()) {
    Log::info(
        "deployment %s: %s ended while the agent was down; its outcome is taken when the "
        "server offers the action again",
        state.actionId.c_str(), state.describe().c_str());
    return std::nullopt;
  }
  int const rebootExitCode =
      deployment && state.chunk < deployment->chunks.size()
          ? config_.installFor(deployment->chunks[state.chunk].part).rebootExitCode
          : config_.rebootExitCode;
  Exit const exit = result.exitCode == 0                                       ? Exit::kOk
                    : rebootExitCode >= 0 && result.exitCode == rebootExitCode ? Exit::kReboot
                                                                               : Exit::kFailed;
  state.details.push_back("install command " +
                          std::string(exit == Exit::kFailed ? "failed" : "succeeded") + " (" +
                          result.describe() + ", ended while the agent was down)");
  Log::info("deployment %s: %s ended while the agent was down: %s", state.actionId.c_str(),
            state.describe().c_str(), result.describe().c_str());
  if (exit == Exit::kFailed) {
    Event e = failed(state, deployment, state.chunk, result.describe());
    e.kind = Kind::kRecovered;
    return e;
  }
  state.details.push_back(label(state, deployment, state.chunk) + ": installed" +
                          (exit == Exit::kReboot ? ", reboot needed" : ""));
  return Event::of(Kind::kRecovered, exit);
}
