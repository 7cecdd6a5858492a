#include "agent/lifecycle/rebootflow.h"

#include <algorithm>
#include <fstream>

#include "agent/base/log.h"
#include "agent/commands/chunkenvironment.h"
#include "agent/commands/command.h"
#include "agent/lifecycle/actionreports.h"

RebootFlow::RebootFlow(AgentConfig const& config, std::atomic<bool> const& stop)
    : config_(config), stop_(stop) {}

std::string RebootFlow::bootId() const {
  std::ifstream in(config_.bootIdFile);
  std::string id;
  std::getline(in, id);
  return id;
}

std::optional<RebootFlow::Exit> RebootFlow::reboot(std::string const& actionId) {
  if (config_.rebootCommand.empty()) {
    Log::info("deployment %s: no reboot-command configured; confirmed after the next boot",
              actionId.c_str());
    return std::nullopt;
  }
  // Once a run, and again after a failure: 30 s, doubling up to an hour.
  if (rebooted_ && (!rebootFailed_ || std::chrono::steady_clock::now() < nextReboot_)) {
    Log::info("deployment %s: installed, waiting for the reboot", actionId.c_str());
    return std::nullopt;
  }
  if (rebooted_) {
    Log::warning("deployment %s: the reboot command failed before; running it again",
                 actionId.c_str());
    rebootRetries_ = std::min(rebootRetries_ + 1, 7);
  }
  rebooted_ = true;
  CommandOptions options;
  options.stop = &stop_;
  options.deadlineMs = config_.rebootTimeoutSeconds * 1000LL;
  CommandResult const result = runCommand(config_.rebootCommand, {}, options);
  rebootFailed_ = result.exitCode != 0 && !result.stopped;
  nextReboot_ =
      std::chrono::steady_clock::now() + std::chrono::seconds(std::min(3600, 30 << rebootRetries_));
  if (rebootFailed_) {
    Log::error("reboot command: %s", result.describe().c_str());
    for (auto const& line : result.stderrTail) Log::error("  reboot: %s", line.c_str());
  } else {
    Log::info("reboot command: %s", result.describe().c_str());
  }
  return rebootFailed_ ? Exit::kFailed : Exit::kOk;
}

RebootFlow::Exit RebootFlow::confirm(ActionState& state) {
  if (config_.confirmCommand.empty()) {
    state.details.push_back("restarted after the reboot; no confirm-command configured");
    return Exit::kOk;
  }
  CommandOptions options;
  options.stop = &stop_;
  // Past its deadline the confirmation is a failure, never a wait for good.
  options.deadlineMs = config_.confirmTimeoutSeconds * 1000LL;
  // After the reboot only the record is at hand: the chunks' names, module
  // types and versions.
  ChunkEnvironment const environment(config_.downloadDir, ActionReports::of(state));
  options.environment = environment.variables();
  CommandResult const result = runCommand(config_.confirmCommand, {}, options);
  // A stopped confirmation decides nothing: it runs again at the next start.
  if (result.stopped) {
    Log::warning("deployment %s: confirmation stopped; it runs again at the next start",
                 state.actionId.c_str());
    return Exit::kStopped;
  }
  state.details.push_back("confirm command: " + result.describe());
  for (auto const& line : result.stderrTail) state.details.push_back("confirm: " + line);
  Log::info("deployment %s: confirmed after the reboot: %s", state.actionId.c_str(),
            result.exitCode == 0 ? "success" : result.describe().c_str());
  return result.exitCode == 0 ? Exit::kOk : Exit::kFailed;
}
