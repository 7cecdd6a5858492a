#include "agent/rebootconfirmation.h"

#include <cstdio>
#include <fstream>

#include "agent/command.h"

namespace {

// This boot's id; "" when it cannot be read.
std::string bootId(std::string const& path) {
  std::ifstream in(path);
  std::string id;
  std::getline(in, id);
  return id;
}

}  // namespace

RebootConfirmation::RebootConfirmation(libtamrelcore& client, AgentConfig const& config, Post post)
    : client_(client), config_(config), post_(std::move(post)), state_(config.stateDir) {}

bool RebootConfirmation::begin(hawkbit_query_t::deployment_t& deployment) {
  InstallState::Pending pending;
  pending.actionId = deployment.id;
  for (auto const& chunk : deployment.chunks) pending.chunks.push_back(chunk.name);
  pending.bootId = bootId(config_.bootIdFile);
  std::string error;
  if (!state_.enabled()) error = "no state-dir configured to confirm it after the reboot";
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

void RebootConfirmation::announceAndReboot(hawkbit_query_t::deployment_t& deployment,
                                           InstallState::Pending& pending) {
  if (!pending.announced) {
    deployment.chunks.front().details.push_back("installed, rebooting to confirm");
    deployment.execution = execution_t::proceeding;
    deployment.finished = finished_t::none;
    std::string const failure = post_([&] { return client_.sendUpdateFeedback(deployment); });
    std::printf("deployment %s: installed, needs a reboot, feedback %s\n", deployment.id.c_str(),
                failure.empty() ? "sent" : failure.c_str());
    std::string error;
    pending.announced = failure.empty();
    if (pending.announced && !state_.save(pending, error))
      std::printf("state: %s\n", error.c_str());
  }
  if (config_.rebootCommand.empty()) {
    std::printf("deployment %s: no reboot-command configured; confirmed after the next boot\n",
                deployment.id.c_str());
  } else {
    std::printf("reboot command: %s\n", runCommand(config_.rebootCommand).describe().c_str());
  }
}

bool RebootConfirmation::confirm() {
  InstallState::Pending pending;
  std::string error;
  bool const found = state_.load(pending, error);
  if (!error.empty()) std::printf("state: %s\n", error.c_str());
  if (!found) return error.empty();
  // The same boot as the install: the reboot never happened (the agent was
  // stopped before or while it ran). What was not sent is sent, the reboot
  // asked for again, and nothing confirmed before another boot.
  if (pending.result.empty() && !pending.bootId.empty() &&
      pending.bootId == bootId(config_.bootIdFile)) {
    std::printf("deployment %s: installed, but this is still the boot that installed it\n",
                pending.actionId.c_str());
    rebootAction_ = pending.actionId;
    hawkbit_query_t::deployment_t deployment = InstallState::closingFeedback(pending);
    announceAndReboot(deployment, pending);
    return true;
  }
  state_.confirm(config_.confirmCommand, pending, error);
  hawkbit_query_t::deployment_t deployment = InstallState::closingFeedback(pending);
  confirmedAction_ = pending.actionId;
  std::string const failure = post_([&] { return client_.sendUpdateFeedback(deployment); });
  std::printf("deployment %s: confirmed after the reboot: %s, feedback %s\n", deployment.id.c_str(),
              pending.result.c_str(), failure.empty() ? "sent" : failure.c_str());
  // Kept for the next start unless the server has the result, or answered
  // that the action is closed already (it was reported before a crash).
  if (failure.empty() || failure.find("not active") != std::string::npos) {
    if (!state_.clear(error)) std::printf("state: %s\n", error.c_str());
  }
  return deployment.finished == finished_t::success;
}

bool RebootConfirmation::installed(std::string const& actionId) const {
  InstallState::Pending pending;
  std::string error;
  return actionId == rebootAction_ || actionId == confirmedAction_ ||
         (state_.load(pending, error) && pending.actionId == actionId);
}

bool RebootConfirmation::handles(std::string const& actionId, bool& result) {
  result = true;
  if (actionId == rebootAction_) {
    std::printf("deployment %s: installed, waiting for the reboot\n", actionId.c_str());
    return true;
  }
  // A result not yet delivered is reported again (the confirm command does
  // not run twice).
  InstallState::Pending pending;
  std::string error;
  if (state_.load(pending, error) && pending.actionId == actionId) {
    result = confirm();
    return true;
  }
  if (actionId == confirmedAction_) {
    // The server may offer it once more before it has taken the result in.
    std::printf("deployment %s: confirmed after the reboot already\n", actionId.c_str());
    return true;
  }
  return false;
}
