#include "agent/server/deploymentfeedback.h"
#include "agent/base/log.h"

#include <cstdio>
#include <utility>

DeploymentFeedback::DeploymentFeedback(libtamrelcore& client, ServerRequest const& server,
                                       std::function<void(std::string const&)> onGone)
    : client_(client), server_(server), onGone_(std::move(onGone)) {}

std::string DeploymentFeedback::send(std::string const& actionId,
                                     std::function<bool()> const& request) {
  ServerRequest::Result const result = server_.submit(request);
  if (result.gone && gone_.insert(actionId).second) {
    Log::warning(
        "action %s no longer exists on the server (cancelled or deleted there): its "
        "state is dropped, nothing more is started or sent for it",
        actionId.c_str());
    onGone_(actionId);
  }
  return result.failure.empty() ? "sent" : result.failure;
}

std::string DeploymentFeedback::update(hawkbit_query_t::deployment_t const& deployment) {
  return send(deployment.id, [&] { return client_.sendUpdateFeedback(deployment); });
}

void DeploymentFeedback::proceed(hawkbit_query_t::deployment_t& deployment,
                                 std::string const& detail, char const* what) {
  deployment.chunks.front().details.push_back(detail);
  deployment.execution = execution_t::proceeding;
  deployment.finished = finished_t::none;
  std::string const outcome = update(deployment);
  (outcome == "sent" ? Log::info : Log::warning)("deployment %s: %s, feedback %s",
                                                 deployment.id.c_str(), what, outcome.c_str());
}

void DeploymentFeedback::close(hawkbit_query_t::deployment_t& deployment, bool success) {
  for (auto& chunk : deployment.chunks) chunk.completed = true;
  deployment.execution = execution_t::closed;
  deployment.finished = success ? finished_t::success : finished_t::failure;
  std::string const outcome = update(deployment);
  // A failed deployment is for the device maker's eyes; so is feedback
  // the server did not get.
  auto const log = !success ? Log::error : outcome == "sent" ? Log::info : Log::warning;
  log("deployment %s: %s, feedback %s", deployment.id.c_str(), success ? "success" : "failure",
      outcome.c_str());
}

void DeploymentFeedback::closeDownloaded(hawkbit_query_t::deployment_t const& deployment) {
  // hawkBit's deploymentBase link carries a query ("?c=..."); the feedback
  // resource is below the path.
  std::string const url = deployment.url.substr(0, deployment.url.find('?'));
  std::string details;
  for (auto const& chunk : deployment.chunks) {
    for (auto const& line : chunk.details) details += (details.empty() ? "" : "; ") + line;
  }
  std::string const outcome = send(deployment.id, [&] {
    return client_.sendCancelActionFeedback(url, deployment.id, "downloaded", "none", details);
  });
  (outcome == "sent" ? Log::info : Log::warning)("deployment %s: downloaded, feedback %s",
                                                 deployment.id.c_str(), outcome.c_str());
}
