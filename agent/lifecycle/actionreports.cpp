#include "agent/lifecycle/actionreports.h"

#include "agent/base/log.h"

using Stage = ActionState::Stage;
using Result = ActionState::Result;

ActionReports::Answer ActionReports::send(std::string const& actionId,
                                          std::function<bool()> const& request) {
  ServerRequest::Result const result = server_.submit(request);
  if (result.failure.empty()) return Answer::k2xx;
  // "not active anymore": the server closed the action already.
  if (result.gone || result.failure.find("not active") != std::string::npos) {
    Log::info("action %s: the server answers that it no longer has it open (%s)", actionId.c_str(),
              result.failure.c_str());
    return Answer::kGone;
  }
  long const status = transport_.lastAnswer().status;
  Log::warning("action %s: feedback not taken: %s", actionId.c_str(), result.failure.c_str());
  if (status == 409 || status == 429) return Answer::kBusy;
  return status == 0 ? Answer::kNone : Answer::kError;
}

ActionReports::Answer ActionReports::proceed(deployment_t deployment, std::string const& detail,
                                             std::size_t completed) {
  if (!detail.empty()) deployment.chunks.front().details.push_back(detail);
  for (std::size_t c = 0; c < completed && c < deployment.chunks.size(); ++c)
    deployment.chunks[c].completed = true;
  deployment.execution = execution_t::proceeding;
  deployment.finished = finished_t::none;
  return send(deployment.id, [&] { return client_.sendUpdateFeedback(deployment); });
}

ActionReports::deployment_t ActionReports::of(ActionState const& state) {
  deployment_t deployment;
  deployment.id = state.actionId;
  for (std::size_t c = 0; c < state.chunks.size(); ++c) {
    deployment.chunks.emplace_back();
    deployment.chunks.back().name = state.chunks[c];
    if (c < state.parts.size()) deployment.chunks.back().part = state.parts[c];
    if (c < state.versions.size()) deployment.chunks.back().version = state.versions[c];
  }
  if (deployment.chunks.empty()) deployment.chunks.emplace_back();
  return deployment;
}

ActionReports::Answer ActionReports::result(ActionState const& state) {
  deployment_t deployment = of(state);
  deployment.chunks.front().details = state.details;
  Answer answer;
  if (state.result == Result::kDownloaded) {
    std::string details;
    for (auto const& line : state.details) details += (details.empty() ? "" : "; ") + line;
    // The feedback resource is below the deploymentBase path.
    std::string const url = baseUrl_ + "/deploymentBase/" + state.actionId;
    answer = send(state.actionId, [&] {
      return client_.sendCancelActionFeedback(url, state.actionId, "downloaded", "none", details);
    });
  } else {
    for (auto& chunk : deployment.chunks) chunk.completed = true;
    deployment.execution = execution_t::closed;
    deployment.finished =
        state.result == Result::kSuccess ? finished_t::success : finished_t::failure;
    answer = send(state.actionId, [&] { return client_.sendUpdateFeedback(deployment); });
  }
  char const* const taken = answer == Answer::k2xx ? "sent" : "not taken; sent again later";
  if (state.result == Result::kFailure) {
    // Why, with the installer's last lines, for the device's own log too.
    Log::error("deployment %s: failure, feedback %s", state.actionId.c_str(), taken);
    for (auto const& line : state.details) Log::error("  %s", line.c_str());
  } else {
    Log::info("deployment %s: %s, feedback %s", state.actionId.c_str(),
              ActionState::name(state.result), taken);
  }
  return answer;
}

void ActionReports::hold(deployment_t deployment, ActionState const& state) {
  std::string const why =
      "action " + state.actionId +
      (state.stage == Stage::kInstalling   ? " is being installed"
       : state.stage == Stage::kConfirming ? " waits for its confirmation"
                                           : " is installed and waits for its reboot") +
      "; this one waits until it is closed";
  Answer const answer = proceed(deployment, why);
  Log::info("deployment %s: not installed: %s; feedback %s", deployment.id.c_str(), why.c_str(),
            answer == Answer::k2xx ? "sent" : "not taken");
}

std::string ActionReports::cancel(hawkbit_query_t::cancel_action_t const& cancel, bool accept) {
  return server_.send([&] {
    return accept ? client_.sendCancelActionFeedback(
                        cancel.url, cancel.id, "closed", "success",
                        "cancellation of action " + cancel.stop_id + " accepted")
                  : client_.sendCancelActionFeedback(
                        cancel.url, cancel.id, "rejected", "none",
                        "action " + cancel.stop_id + " is installed, waiting for its reboot");
  });
}
