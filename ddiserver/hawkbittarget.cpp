#include "ddiserver/hawkbittarget.h"

#include <chrono>
#include <cstdlib>
#include <utility>

namespace tamrel::ddiserver {
namespace {

// hawkBit's error answers: status, error code and message in its
// ExceptionInfo document.
bool refuse(DdiServer::Answer& answer, int status, std::string const& errorCode,
            std::string const& message) {
  static std::map<int, char const*> const kClasses = {
      {400, "org.springframework.http.converter.HttpMessageNotReadableException"},
      {403, "org.eclipse.hawkbit.repository.exception.AssignmentQuotaExceededException"},
      {404, "org.eclipse.hawkbit.repository.exception.EntityNotFoundException"},
      {405, "org.springframework.web.HttpRequestMethodNotSupportedException"},
      {409, "org.eclipse.hawkbit.repository.exception.AutoConfirmationAlreadyActiveException"}};
  answer.status = status;
  answer.contentType = "application/json";
  answer.body = exceptionInfoJson(kClasses.at(status), errorCode, message);
  return true;
}

// hawkBit's refusals that are no exception come without a body.
bool bare(DdiServer::Answer& answer, int status) {
  answer.status = status;
  answer.body.clear();
  return true;
}

bool notFound(DdiServer::Answer& answer, std::string const& what) {
  return refuse(answer, 404, "hawkbit.server.error.repo.entitiyNotFound", what + " not found");
}

bool notReadable(DdiServer::Answer& answer, std::string const& reason) {
  return refuse(answer, 400, "hawkbit.server.error.rest.body.notReadable",
                "The given request body is not well formed: " + reason);
}

constexpr int kMaxStatusEntries = 1000;
constexpr std::size_t kMaxMessagesPerStatus = 50;

// The value of `name` in a query string, "" when absent.
std::string queryValue(std::string const& query, std::string const& name) {
  std::size_t at = 0;
  while (at <= query.size()) {
    std::size_t const end = std::min(query.find('&', at), query.size());
    std::string const pair = query.substr(at, end - at);
    if (pair.compare(0, name.size() + 1, name + "=") == 0) return pair.substr(name.size() + 1);
    at = end + 1;
  }
  return "";
}

}  // namespace

HawkbitTarget::HawkbitTarget(Options options) : options_(std::move(options)) {}

void HawkbitTarget::assign(DeploymentDocument deployment) {
  std::lock_guard<std::mutex> lock(mutex_);
  Action& action = actions_[deployment.id];
  action = Action{};
  action.messages.push_back("Assignment initiated by user 'tamrel-ddi-server'");
  running_ = deployment.id;
  if (options_.confirmRequired && autoConfirm_.active) {
    action.messages.insert(
        action.messages.begin(),
        "Assignment automatically confirmed by initiator '" + autoConfirm_.initiator + "'");
  } else if (options_.confirmRequired) {
    action.waiting = true;
    action.status = "WAIT_FOR_CONFIRMATION";
    action.messages.insert(
        action.messages.begin(),
        "Waiting for the confirmation by the device before processing with the deployment");
  }
  action.deployment = std::move(deployment);
}

void HawkbitTarget::requestCancel(std::string const& cancelId) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (running_.empty()) return;
  Action& action = actions_[running_];
  action.cancelId = cancelId;
  action.cancelOffered = true;
  action.status = "CANCELING";
}

std::vector<Progress> HawkbitTarget::progress(std::string const& actionId) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto const it = actions_.find(actionId);
  return it != actions_.end() ? it->second.progress : std::vector<Progress>();
}

bool HawkbitTarget::answer(RecordedRequest const& request, DdiServer::Answer& answer) {
  std::string const& path = request.path;
  // hawkBit's firewall refuses such a URL whatever it names.
  if (path.find("//") != std::string::npos) {
    return refuse(answer, 400, "hawkbit.server.error.rest.param.invalid",
                  "The request was rejected because the URL contained \"//\"");
  }
  std::string const& controller = options_.controllerPath;
  if (path.compare(0, controller.size(), controller) != 0) return false;
  std::string const rest = path.substr(controller.size());
  if (!rest.empty() && rest[0] != '/') return false;
  std::lock_guard<std::mutex> lock(mutex_);
  // rest: "", "/configData", "/<kind>/<id>" or "/<kind>/<id>/feedback"
  std::vector<std::string> parts;
  for (std::size_t at = 1; at <= rest.size();) {
    std::size_t const slash = std::min(rest.find('/', at), rest.size());
    parts.push_back(rest.substr(at, slash - at));
    at = slash + 1;
  }
  bool const get = request.method == "GET" || request.method == "HEAD";
  bool const post = request.method == "POST", put = request.method == "PUT";
  bool const known = !parts.empty() && (parts[0] == "deploymentBase" ||
                                        parts[0] == "cancelAction" || parts[0] == "installedBase");
  bool const isFeedback =
      known && parts.size() == 3 && parts[2] == "feedback" && parts[0] != "installedBase";
  if (get && (parts.empty() || (known && parts.size() == 2))) {
    // Spring's negotiation: HAL unless only plain JSON is acceptable.
    std::string const accept = request.header("Accept");
    if (!accept.empty() && accept.find("hal+json") == std::string::npos &&
        accept.find("*/*") == std::string::npos &&
        accept.find("application/*") == std::string::npos) {
      if (accept.find("application/json") == std::string::npos) {
        answer.status = 406;
        answer.body.clear();
        return true;
      }
      answer.contentType = "application/json";
    }
  }
  if (!parts.empty() && parts[0] == "confirmationBase") return confirmation(request, parts, answer);
  if (parts.size() == 1 && parts[0] == "installedBase" && put)
    return installedBase(request.body, answer);
  if (parts.empty() && get) return poll(answer);
  if (parts.size() == 1 && parts[0] == "configData" && put) return configData(request.body, answer);
  if (known && parts.size() == 2 && get) return document(parts[0], parts[1], request.query, answer);
  if (isFeedback && post) return feedback(parts[0], parts[1], request.body, answer);
  if (parts.empty() ||
      (parts.size() == 1 && (parts[0] == "configData" || parts[0] == "installedBase")) ||
      (known && parts.size() == 2) || isFeedback) {
    return refuse(answer, 405, "hawkbit.server.error.rest.method.notSupported",
                  "Request method '" + request.method + "' is not supported");
  }
  return notFound(answer, "Resource " + rest);
}

bool HawkbitTarget::poll(DdiServer::Answer& answer) {
  ++polls_;
  std::string deploymentId, cancelId;
  bool waiting = false;
  if (!running_.empty()) {
    Action& action = actions_[running_];
    if (options_.cancelAfterPolls > 0 && polls_ > options_.cancelAfterPolls &&
        !action.cancelOffered) {
      action.cancelOffered = true;  // once: a rejected cancel request is not repeated
      action.cancelId = running_;   // hawkBit gives a cancel request its action's id
      action.status = "CANCELING";
      event("action " + running_ + ": cancel requested");
    }
    // While a cancel request is open, hawkBit links only to it.
    if (!action.cancelId.empty()) {
      cancelId = action.cancelId;
    } else if (action.waiting) {
      waiting = true;
    } else {
      deploymentId = running_;
    }
  }
  answer.body = controllerBaseJson(
      options_.baseUrl, options_.controllerPath, options_.sleep, deploymentId, cancelId,
      attributesWanted_ || options_.askConfigData, installed_, waiting);
  return true;
}

bool HawkbitTarget::document(std::string const& kind, std::string const& id,
                             std::string const& query, DdiServer::Answer& answer) {
  if (kind == "cancelAction") {
    for (auto const& [actionId, action] : actions_) {
      if (!action.cancelId.empty() && action.cancelId == id) {
        answer.body = cancelActionJson(id, actionId);
        return true;
      }
    }
    // A known action that is not being canceled: refused without a body.
    if (actions_.count(id) != 0) return bare(answer, 404);
    return notFound(answer, "Cancel action " + id);
  }
  auto const it = actions_.find(id);
  if (it == actions_.end()) return notFound(answer, "Action " + id);
  if (kind == "installedBase" && it->second.active) return bare(answer, 404);
  if (kind == "deploymentBase" && (!it->second.cancelId.empty() || it->second.waiting))
    return bare(answer, 404);
  Action& action = it->second;
  if (kind == "deploymentBase" && ++deploymentRequests_ == options_.windowOpensAt &&
      !action.deployment.maintenanceWindow.empty()) {
    action.deployment.maintenanceWindow = "available";
    action.deployment.update = "forced";
    event("action " + id + ": maintenance window open");
  }
  std::string const count = queryValue(query, "actionHistory");
  long const wanted = count.empty() ? 0 : std::strtol(count.c_str(), nullptr, 10);
  ActionHistory history{action.status, action.messages};
  if (wanted > 0 && history.messages.size() > static_cast<std::size_t>(wanted))
    history.messages.resize(static_cast<std::size_t>(wanted));
  answer.body = deploymentBaseJson(action.deployment, wanted != 0 ? &history : nullptr);
  return true;
}

bool HawkbitTarget::feedback(std::string const& kind, std::string const& id,
                             std::string const& body, DdiServer::Answer& answer) {
  Feedback const sent = readFeedback(body);
  if (!sent.valid) return notReadable(answer, sent.error);
  Action* action = nullptr;
  std::string actionId = id;
  if (kind == "cancelAction") {
    for (auto& [candidate, entry] : actions_) {
      if (entry.cancelId == id) {
        action = &entry;
        actionId = candidate;
      }
    }
  } else if (auto const it = actions_.find(id); it != actions_.end()) {
    action = &it->second;
  }
  if (action == nullptr) return notFound(answer, "Action " + id);
  if (!action->active) return bare(answer, 410);
  // hawkBit's default quotas, which also bound what a client can make us keep.
  if (++action->feedbacks > kMaxStatusEntries || sent.details.size() > kMaxMessagesPerStatus) {
    return refuse(answer, 403, "hawkbit.server.error.quota.tooManyEntries",
                  "Quota exceeded: too many status entries or messages for action " + actionId);
  }
  record(*action, sent);
  std::string const& execution = sent.execution;
  std::string const prefix = "action " + actionId;
  if (kind == "cancelAction") {
    if (execution == "canceled" || (execution == "closed" && sent.finished != "failure")) {
      action->active = false;
      action->status = "CANCELED";
      event(prefix + " canceled");
    } else if (execution == "rejected" || execution == "closed") {
      action->cancelId.clear();
      action->status = "RUNNING";
      event(prefix + ": cancel rejected");
    }
  } else if (execution == "closed") {
    action->active = false;
    bool const success = sent.finished != "failure";
    action->status = success ? "FINISHED" : "ERROR";
    if (success) {
      installed_ = actionId;
      attributesWanted_ = true;  // hawkBit asks for the attributes after an update
    }
    event(prefix + " closed: " + sent.finished);
  } else if (execution == "proceeding" && sent.hasProgress) {
    action->progress.push_back(sent.progress);
    std::string const of = sent.progress.of != 0 ? " of " + std::to_string(sent.progress.of) : "";
    event(prefix + ": feedback proceeding " + std::to_string(sent.progress.cnt) + of);
  } else if (execution == "downloaded" && action->deployment.update == "skip") {
    action->active = false;
    action->status = "DOWNLOADED";
    event(prefix + " closed: downloaded");
  }
  if (!action->active && running_ == actionId) running_.clear();
  return true;
}

bool HawkbitTarget::configData(std::string const& body, DdiServer::Answer& answer) {
  ConfigData const config = readConfigData(body);
  if (!config.valid) return notReadable(answer, config.error);
  for (auto const& [key, value] : config.data) attributes_[key] = value;
  attributesWanted_ = false;
  return true;
}

bool HawkbitTarget::confirmation(RecordedRequest const& request,
                                 std::vector<std::string> const& parts, DdiServer::Answer& answer) {
  bool const get = request.method == "GET" || request.method == "HEAD";
  bool const post = request.method == "POST";
  if (parts.size() == 1 && get) {
    std::string waiting;
    if (!running_.empty() && actions_[running_].waiting) waiting = running_;
    answer.body =
        confirmationBaseJson(options_.baseUrl, options_.controllerPath, autoConfirm_, waiting);
    return true;
  }
  bool const switching = parts.size() == 2 &&
                         (parts[1] == "activateAutoConfirm" || parts[1] == "deactivateAutoConfirm");
  if (switching && post) return switchAutoConfirm(parts[1][0] == 'a', request.body, answer);
  if (parts.size() == 2 && !switching && get) {
    auto const it = actions_.find(parts[1]);
    if (it == actions_.end()) return notFound(answer, "Action " + parts[1]);
    if (!it->second.waiting) return bare(answer, 404);
    std::string const count = queryValue(request.query, "actionHistory");
    long const wanted = count.empty() ? 0 : std::strtol(count.c_str(), nullptr, 10);
    ActionHistory history{it->second.status, it->second.messages};
    if (wanted > 0 && history.messages.size() > static_cast<std::size_t>(wanted))
      history.messages.resize(static_cast<std::size_t>(wanted));
    answer.body =
        deploymentBaseJson(it->second.deployment, wanted != 0 ? &history : nullptr, "confirmation");
    return true;
  }
  bool const isFeedback = parts.size() == 3 && parts[2] == "feedback" && !switching;
  if (isFeedback && post) return confirmationFeedback(parts[1], request.body, answer);
  if (parts.size() == 1 || parts.size() == 2 || isFeedback) {
    return refuse(answer, 405, "hawkbit.server.error.rest.method.notSupported",
                  "Request method '" + request.method + "' is not supported");
  }
  return notFound(answer, "Resource confirmationBase");
}

bool HawkbitTarget::confirmationFeedback(std::string const& id, std::string const& body,
                                         DdiServer::Answer& answer) {
  ConfirmationFeedback const sent = readConfirmationFeedback(body);
  if (!sent.valid) return notReadable(answer, sent.error);
  auto const it = actions_.find(id);
  if (it == actions_.end()) return notFound(answer, "Action " + id);
  Action& action = it->second;
  if (!action.active) return bare(answer, 410);
  if (++action.feedbacks > kMaxStatusEntries || sent.details.size() > kMaxMessagesPerStatus) {
    return refuse(answer, 403, "hawkbit.server.error.quota.tooManyEntries",
                  "Quota exceeded: too many status entries or messages for action " + id);
  }
  std::string said;
  for (std::string const& line : sent.details) said += (said.empty() ? "" : "; ") + line;
  std::string const code = sent.hasCode ? " (code " + std::to_string(sent.code) + ")" : "";
  std::string const verdict = sent.confirmed ? "confirmed" : "denied";
  // Only a waiting action changes; a repeated confirmation is recorded only.
  action.messages.insert(action.messages.begin(),
                         "Device " + verdict + code + (said.empty() ? "" : ": " + said));
  if (!action.waiting) return true;
  if (sent.confirmed) {
    confirm(id, action, "");
  } else {
    // A denied action keeps waiting and is offered again.
    event("action " + id + " denied" + code + (said.empty() ? "" : ": " + said));
    return true;
  }
  event("action " + id + " confirmed" + code + (said.empty() ? "" : ": " + said));
  return true;
}

void HawkbitTarget::confirm(std::string const& id, Action& action, std::string const& message) {
  action.waiting = false;
  action.status = "RUNNING";
  if (!message.empty()) {
    action.messages.insert(action.messages.begin(), message);
    event("action " + id + " confirmed: " + message);
  }
}

bool HawkbitTarget::switchAutoConfirm(bool on, std::string const& body, DdiServer::Answer& answer) {
  if (!on) {
    if (autoConfirm_.active) event("auto-confirm deactivated");
    autoConfirm_ = AutoConfirm{};
    return true;
  }
  AutoConfirmRequest const request = readAutoConfirmRequest(body);
  if (!request.valid) return notReadable(answer, request.error);
  if (autoConfirm_.active) {
    return refuse(answer, 409, "hawkbit.server.error.repo.autoConfirmationAlreadyActive",
                  "Auto confirmation is already active");
  }
  autoConfirm_.active = true;
  autoConfirm_.initiator = request.initiator;
  autoConfirm_.remark = request.remark;
  autoConfirm_.activatedAt = std::chrono::duration_cast<std::chrono::milliseconds>(
                                 std::chrono::system_clock::now().time_since_epoch())
                                 .count();
  event("auto-confirm activated: initiator '" + request.initiator + "', remark '" + request.remark +
        "'");
  // Actions already waiting are confirmed at once.
  for (auto& [id, action] : actions_) {
    if (action.waiting) {
      confirm(id, action,
              "Assignment automatically confirmed by initiator '" + request.initiator + "'");
    }
  }
  return true;
}

bool HawkbitTarget::installedBase(std::string const& body, DdiServer::Answer& answer) {
  AssignedVersion const sent = readAssignedVersion(body);
  if (!sent.valid) return notReadable(answer, sent.error);
  long long next = 1;
  DeploymentDocument const* served = nullptr;
  for (auto const& [id, action] : actions_) {
    next = std::max(next, std::strtoll(id.c_str(), nullptr, 10) + 1);
    auto const& chunks = action.deployment.chunks;
    if (!chunks.empty() && chunks.front().name == sent.name &&
        chunks.front().version == sent.version)
      served = &action.deployment;
  }
  if (served == nullptr) {
    return notFound(answer, "Distribution set " + sent.name + ":" + sent.version);
  }
  // hawkBit records the version as an action already finished.
  std::string const id = std::to_string(next);
  DeploymentDocument deployment = *served;
  Action& action = actions_[id];
  action.deployment = std::move(deployment);
  action.deployment.id = id;
  action.active = false;
  action.status = "FINISHED";
  action.messages = {"Installed offline: " + sent.name + " " + sent.version};
  installed_ = id;
  event("installed base: " + sent.name + " " + sent.version + " (action " + id + ")");
  return true;
}

void HawkbitTarget::record(Action& action, Feedback const& feedback) {
  // hawkBit keeps each feedback's details; the newest come first.
  std::vector<std::string> lines(feedback.details.rbegin(), feedback.details.rend());
  if (lines.empty()) lines.push_back(feedback.execution + ": " + feedback.finished);
  action.messages.insert(action.messages.begin(), lines.begin(), lines.end());
}

void HawkbitTarget::event(std::string const& line) const {
  if (options_.onEvent) options_.onEvent(line);
}

}  // namespace tamrel::ddiserver
