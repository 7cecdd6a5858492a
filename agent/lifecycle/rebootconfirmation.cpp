#include "agent/lifecycle/rebootconfirmation.h"

#include <algorithm>
#include <cstdio>
#include <fstream>

#include "agent/base/log.h"
#include "agent/commands/command.h"
#include "agent/server/serverrequest.h"

namespace {

// The server has no use for the record any more: it answered that the action
// is closed already (reported before a crash), or that it no longer exists.
bool closedOnServer(std::string const& failure) {
  return failure.find("not active") != std::string::npos || ServerRequest::gone(failure);
}

// This boot's id; "" when it cannot be read.
std::string bootId(std::string const& path) {
  std::ifstream in(path);
  std::string id;
  std::getline(in, id);
  return id;
}

InstallState::Pending recordOf(hawkbit_query_t::deployment_t const& deployment) {
  InstallState::Pending pending;
  pending.actionId = deployment.id;
  for (auto const& chunk : deployment.chunks) {
    pending.chunks.push_back(chunk.name);
    pending.details.insert(pending.details.end(), chunk.details.begin(), chunk.details.end());
  }
  return pending;
}

}  // namespace

RebootConfirmation::RebootConfirmation(libtamrelcore& client, AgentConfig const& config, Post post,
                                       std::atomic<bool> const& stop)
    : client_(client),
      config_(config),
      post_(std::move(post)),
      stop_(stop),
      state_(config.stateDir) {}

bool RebootConfirmation::load(InstallState::Pending& pending, std::string& error) const {
  if (state_.enabled()) return state_.load(pending, error);
  pending = memory_;
  return !memory_.actionId.empty();
}

bool RebootConfirmation::save(InstallState::Pending const& pending, std::string& error) {
  if (state_.enabled()) return state_.save(pending, error);
  memory_ = pending;
  return true;
}

void RebootConfirmation::clear() {
  memory_ = InstallState::Pending();
  std::string error;
  if (!state_.clear(error)) Log::info("state: %s", error.c_str());
}

bool RebootConfirmation::begin(hawkbit_query_t::deployment_t& deployment) {
  InstallState::Pending pending = recordOf(deployment);
  pending.details.clear();
  pending.bootId = bootId(config_.bootIdFile);
  std::string error;
  if (!state_.enabled()) error = "no state-dir configured to confirm it after the reboot";
  // Without the boot id a plain restart would pass for the reboot.
  if (error.empty() && pending.bootId.empty())
    error = "boot-id-file " + config_.bootIdFile + " cannot be read";
  // Recorded before anything is reported: a crash from here on is confirmed
  // at the next start.
  if (!error.empty() || !state_.save(pending, error)) {
    deployment.chunks.front().details.push_back("installed, needs a reboot, but " + error);
    return false;
  }
  rebootAction_ = deployment.id;
  announceAndReboot(deployment, pending);
  return true;
}

bool RebootConfirmation::finish(hawkbit_query_t::deployment_t& deployment, bool success) {
  for (auto& chunk : deployment.chunks) chunk.completed = true;
  InstallState::Pending pending = recordOf(deployment);
  pending.result = success ? "success" : "failure";
  std::string error;
  // Recorded before it is reported: while the server does not take it, the
  // next offer of the action gets this result again instead of an install.
  if (!save(pending, error)) Log::info("state: %s", error.c_str());
  deployment = InstallState::closingFeedback(pending);
  std::string const failure = post_([&] { return client_.sendUpdateFeedback(deployment); });
  Log::info("deployment %s: %s, feedback %s", deployment.id.c_str(), pending.result.c_str(),
            failure.empty() ? "sent" : failure.c_str());
  reportedAction_ = deployment.id;
  if (failure.empty() || closedOnServer(failure)) clear();
  return success;
}

bool RebootConfirmation::runReboot() {
  CommandOptions options;
  options.stop = &stop_;
  options.deadlineMs = config_.rebootTimeoutSeconds * 1000LL;
  CommandResult const result = runCommand(config_.rebootCommand, {}, options);
  Log::info("reboot command: %s", result.describe().c_str());
  for (auto const& line : result.stderrTail) Log::info("  reboot: %s", line.c_str());
  return result.exitCode == 0 || result.stopped;
}

void RebootConfirmation::announceAndReboot(hawkbit_query_t::deployment_t& deployment,
                                           InstallState::Pending& pending) {
  if (!pending.announced) {
    deployment.chunks.front().details.push_back("installed, rebooting to confirm");
    deployment.execution = execution_t::proceeding;
    deployment.finished = finished_t::none;
    std::string const failure = post_([&] { return client_.sendUpdateFeedback(deployment); });
    Log::info("deployment %s: installed, needs a reboot, feedback %s", deployment.id.c_str(),
              failure.empty() ? "sent" : failure.c_str());
    std::string error;
    pending.announced = failure.empty();
    if (pending.announced && !state_.save(pending, error)) Log::info("state: %s", error.c_str());
  }
  if (config_.rebootCommand.empty()) {
    Log::info("deployment %s: no reboot-command configured; confirmed after the next boot",
              deployment.id.c_str());
    return;
  }
  rebootFailed_ = !runReboot();
  rebootRetries_ = 0;
  nextReboot_ = std::chrono::steady_clock::now() + std::chrono::seconds(30);
}

void RebootConfirmation::retryReboot(std::string const& actionId) {
  if (!rebootFailed_ || stop_.load() || std::chrono::steady_clock::now() < nextReboot_) return;
  Log::info("deployment %s: the reboot command failed before; running it again", actionId.c_str());
  rebootFailed_ = !runReboot();
  // 30 s, doubling up to an hour.
  rebootRetries_ = std::min(rebootRetries_ + 1, 7);
  nextReboot_ =
      std::chrono::steady_clock::now() + std::chrono::seconds(std::min(3600, 30 << rebootRetries_));
}

bool RebootConfirmation::confirm() {
  InstallState::Pending pending;
  std::string error;
  bool const found = load(pending, error);
  if (!error.empty()) Log::info("state: %s", error.c_str());
  if (!found) return error.empty();
  // The same boot as the install: the reboot never happened (the agent was
  // stopped before or while it ran). What was not sent is sent, the reboot
  // asked for again, and nothing confirmed before another boot.
  if (pending.result.empty() && pending.bootId == bootId(config_.bootIdFile)) {
    Log::info("deployment %s: installed, but this is still the boot that installed it",
              pending.actionId.c_str());
    rebootAction_ = pending.actionId;
    hawkbit_query_t::deployment_t deployment = InstallState::closingFeedback(pending);
    announceAndReboot(deployment, pending);
    return true;
  }
  if (!state_.confirm(config_.confirmCommand, pending, error, &stop_,
                      config_.confirmTimeoutSeconds * 1000LL)) {
    Log::info("deployment %s: confirmation stopped; it runs again at the next start",
              pending.actionId.c_str());
    return false;
  }
  if (!error.empty()) Log::info("state: %s", error.c_str());
  hawkbit_query_t::deployment_t deployment = InstallState::closingFeedback(pending);
  confirmedAction_ = pending.actionId;
  std::string const failure = post_([&] { return client_.sendUpdateFeedback(deployment); });
  Log::info("deployment %s: %s: %s, feedback %s", deployment.id.c_str(),
            pending.bootId.empty() ? "recorded result" : "confirmed after the reboot",
            pending.result.c_str(), failure.empty() ? "sent" : failure.c_str());
  // Kept for the next start unless the server has the result, or answered
  // that the action is closed already (it was reported before a crash).
  if (failure.empty() || closedOnServer(failure)) clear();
  return deployment.finished == finished_t::success;
}

bool RebootConfirmation::installed(std::string const& actionId) const {
  InstallState::Pending pending;
  std::string error;
  return actionId == rebootAction_ || actionId == confirmedAction_ ||
         (load(pending, error) && pending.actionId == actionId);
}

bool RebootConfirmation::drop(std::string const& actionId) {
  InstallState::Pending pending;
  std::string error;
  if (!load(pending, error) || pending.actionId != actionId) return false;
  clear();
  if (rebootAction_ == actionId) rebootAction_.clear();
  return true;
}

bool RebootConfirmation::handles(hawkbit_query_t::deployment_t& deployment, bool& result) {
  std::string const& actionId = deployment.id;
  result = true;
  InstallState::Pending pending;
  std::string error;
  bool found = load(pending, error);
  if (!error.empty()) {
    // Installing now could install an action a second time, or beside one
    // waiting for its reboot.
    Log::info("deployment %s: state record unreadable, refusing to install: %s", actionId.c_str(),
              error.c_str());
    result = false;
    return true;
  }
  bool const waiting = found && pending.result.empty();
  if (actionId == rebootAction_ || (waiting && pending.actionId == actionId)) {
    Log::info("deployment %s: installed, waiting for the reboot", actionId.c_str());
    retryReboot(actionId);
    return true;
  }
  // A result not yet delivered is reported again (nothing runs twice).
  if (found && pending.actionId == actionId) {
    result = confirm();
    return true;
  }
  // Another action's result goes first; once the server has it, its record
  // goes and this one may proceed.
  if (found && !waiting) {
    confirm();
    found = load(pending, error);
  }
  if (found) {
    std::string const why = "action " + pending.actionId +
                            (pending.result.empty() ? " is installed and waits for its reboot"
                                                    : " waits for its result to be reported") +
                            "; this one waits until it is closed";
    // Said once per run: the server keeps a bounded number of status
    // entries per action, and this is offered at every poll.
    std::string failure = "not sent again";
    if (heldAction_ != actionId) {
      deployment.chunks.front().details.push_back(why);
      deployment.execution = execution_t::proceeding;
      deployment.finished = finished_t::none;
      failure = post_([&] { return client_.sendUpdateFeedback(deployment); });
      if (failure.empty()) heldAction_ = actionId;
    }
    Log::info("deployment %s: not installed: %s; feedback %s", actionId.c_str(), why.c_str(),
              failure.empty() ? "sent" : failure.c_str());
    if (pending.result.empty()) retryReboot(pending.actionId);
    return true;
  }
  if (actionId == confirmedAction_ || actionId == reportedAction_) {
    // The server may offer it once more before it has taken the result in.
    Log::info("deployment %s: its result was reported already", actionId.c_str());
    return true;
  }
  return false;
}
