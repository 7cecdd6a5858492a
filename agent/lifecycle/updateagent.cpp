#include "agent/lifecycle/updateagent.h"

#include "agent/base/console.h"
#include "agent/base/exitcode.h"
#include "agent/base/log.h"
#include "agent/commands/command.h"
#include "agent/server/linkorigin.h"
#include "agent/server/pollfailure.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>

#ifndef TAMREL_VERSION
#define TAMREL_VERSION "unknown"
#endif

UpdateAgent::UpdateAgent(AgentConfig const& config)
    : config_(config),
      address_(config.address()),
      transport_(AgentTransport::settingsFor(config)),
      attributes_(config.attributes),
      fetcher_(client_, config, stop_),
      server_(config, transport_, [this] { return stopping(); }),
      reboot_(
          client_, config,
          [this](std::function<bool()> const& request) { return server_.send(request); }, stop_),
      feedback_(client_, server_,
                [this](std::string const& actionId) { dropGoneAction(actionId); }),
      download_(config, fetcher_, stop_),
      lock_((config.stateDir.empty() ? config.downloadDir + "/.install.lock"
                                     : config.stateDir + "/install.lock")),
      streamer_(transport_, config, stop_),
      reader_(config, address_, transport_, [this] { return stopping(); }),
      consent_(config, transport_, server_, reader_, stop_),
      installed_(transport_, server_, reader_) {
  // The agent's version goes with the configured attributes, unless one of
  // them is named so (hawkBit refuses configuration data without any).
  bool const named = std::any_of(attributes_.begin(), attributes_.end(), [](auto const& pair) {
    return pair.key == "tamrel-agent.version";
  });
  if (!named) attributes_.push_back({"tamrel-agent.version", TAMREL_VERSION});
}

bool UpdateAgent::connect() {
  if (!client_.connectProperties(config_.properties)) return false;
  transport_.setBaseUrl(client_.buildQueryUrl());
  // Copied on the polling thread, read once the poll returned.
  transport_.observeBase([this](long status, std::string const& body) {
    baseBody_ = status == 200 ? body : std::string();
  });
  // An install an earlier run left behind ends before anything else happens.
  std::string error;
  if (!lock_.take(stop_, config_.installTimeoutSeconds * 1000LL, error, false) && !error.empty())
    Log::info("install lock: %s", error.c_str());
  lock_.release();
  if (stopping()) return true;
  consent_.start(client_.buildQueryUrl());
  reboot_.confirm();
  return true;
}

int UpdateAgent::reportInstalled(std::string const& name, std::string const& version) {
  if (!client_.connectProperties(config_.properties)) return kExitConfig;
  std::string const failure = installed_.report(client_.buildQueryUrl(), name, version);
  Log::info("installed %s %s: %s", name.c_str(), version.c_str(),
            failure.empty() ? "reported, the server accepted it" : failure.c_str());
  return failure.empty() ? kExitOk : kExitUnreachable;
}

void UpdateAgent::stop() {
  stop_ = true;
  client_.cancelTransfer();
  client_.cancelVerifyArtifact();
  std::lock_guard<std::mutex> guard(sleepLock_);
  wake_.notify_all();
}

void UpdateAgent::sleep(std::int64_t seconds) {
  std::unique_lock<std::mutex> guard(sleepLock_);
  wake_.wait_for(guard, std::chrono::seconds(seconds), [this] { return stop_.load(); });
}

UpdateAgent::Cycle UpdateAgent::cycle() {
  Cycle result;
  // After a failed poll: poll-interval-s, doubled with each further failure
  // in a row, up to max-poll-interval-s. A poll that gets through resets it.
  result.sleepSeconds = std::min<std::int64_t>(
      config_.pollIntervalSeconds << std::min(failedPolls_, 10), config_.maxPollIntervalSeconds);
  ++failedPolls_;
  std::uint64_t const before = transport_.exchanges();
  baseBody_.clear();
  hawkbit_query_t answer;
  std::string unreadable, libraryLog;
  Watchdog::Limits limits;
  // The transport's own deadline decides; this one is its backstop.
  limits.deadlineMs = (config_.pollTimeoutSeconds + 2) * 1000LL;
  limits.memoryBytes = config_.maxDocumentMib << 20;
  Watchdog watchdog(
      limits, [this] { return stopping(); },
      [this](Watchdog::Verdict) { client_.cancelTransfer(); });
  {
    // The library's lines still show; they are kept to tell the operator why.
    Console::Capture log(Console::Channel::kErr, true, 16384);
    watchdog.run([&] {
      try {
        answer = client_.queryOnlineStatus();
      } catch (std::exception const& error) {
        unreadable = error.what();
      }
      return true;
    });
    libraryLog = log.text();
  }
  if (stopping()) return result;
  AgentTransport::Answer const base = transport_.lastBaseAnswer();
  if (base.serial > before && (base.status == 409 || base.status == 429)) {
    // The server asks to wait: as long as it says, else the back-off.
    if (base.retryAfterS >= 0)
      result.sleepSeconds = std::min<std::int64_t>(std::max<std::int64_t>(base.retryAfterS, 1),
                                                   config_.maxPollIntervalSeconds);
    Log::info("poll: the server is busy (HTTP %ld), next poll in %lld s", base.status,
              static_cast<long long>(result.sleepSeconds));
    result.status = kExitUnreachable;
    return result;
  }
  bool const empty = answer.config.sleep == 0 && answer.deployment.url.empty() &&
                     answer.cancel_action.url.empty() && answer.config_data.url.empty();
  if (!unreadable.empty()) {
    Log::info("poll: the server sent an unreadable polling interval (%s)", unreadable.c_str());
    result.status = kExitUnreachable;
    return result;
  }
  ConsentFlow::Outcome const consent = watchdog.verdict() == Watchdog::Verdict::kNone
                                           ? consent_.answer(baseBody_)
                                           : ConsentFlow::Outcome::kNone;
  if (watchdog.verdict() != Watchdog::Verdict::kNone ||
      (empty && consent == ConsentFlow::Outcome::kNone)) {
    Log::info("poll: %s", PollFailure::describe(watchdog.verdict(), transport_.lastAnswer(),
                                                libraryLog, config_)
                              .c_str());
    result.status = kExitUnreachable;
    return result;
  }
  failedPolls_ = 0;
  if (consent == ConsentFlow::Outcome::kConfirmed && !again_ && !stopping()) {
    // The confirmed action is linked as a deployment from the next poll on.
    again_ = true;
    Cycle const next = cycle();
    again_ = false;
    return next;
  }
  if (consent == ConsentFlow::Outcome::kRefused) result.status = kExitDeploymentFailed;
  if (consent == ConsentFlow::Outcome::kUnreadable) result.status = kExitUnreachable;
  installed_.show(baseBody_);
  // 0 is what the library makes of an interval it cannot read ("PT36H").
  std::int64_t const named = answer.config.sleep;
  result.sleepSeconds = std::min<std::int64_t>(
      named > 0 ? std::max<std::int64_t>(named, 5) : config_.pollIntervalSeconds,
      config_.maxPollIntervalSeconds);

  std::string host;
  if (!answer.config_data.url.empty() &&
      !linkAllowed(answer.config_data.url, address_, config_.trustedHosts, host)) {
    Log::info("config data: not sent, the link names another host (%s; see trusted-hosts)",
              host.c_str());
  } else if (!answer.config_data.url.empty()) {
    std::string const failure = server_.send([&] { return client_.sendConfigData(attributes_); });
    Log::info("config data: %zu attribute%s %s", attributes_.size(),
              attributes_.size() == 1 ? "" : "s", failure.empty() ? "sent" : failure.c_str());
  }
  auto const& cancel = answer.cancel_action;
  if (!cancel.url.empty() && !cancel.stop_id.empty() &&
      (!DeploymentPlan::decimalId(cancel.id) || !DeploymentPlan::decimalId(cancel.stop_id))) {
    // No request is built from an id that is not a number.
    Log::info("cancel request refused: action ids \"%s\"/\"%s\" are not decimal numbers",
              cancel.id.c_str(), cancel.stop_id.c_str());
    result.status = kExitDeploymentFailed;
  } else if (!cancel.url.empty() && !cancel.stop_id.empty()) {
    answerCancel(cancel);
  }
  if (!answer.deployment.url.empty() && answer.deployment.chunks.empty() && !stopping()) {
    // Nothing is reported: the action may be readable at the next poll.
    Log::info("deployment: the deployment the server linked could not be read; nothing sent");
    result.status = kExitUnreachable;
  } else if (!answer.deployment.url.empty() && !stopping()) {
    if (!deploy(answer.deployment) && !stopping()) {
      result.status = kExitDeploymentFailed;
      // Directories made for a failed deployment go again when empty.
      download_.removeEmptyDirectories(answer.deployment);
    }
  }
  return result;
}

void UpdateAgent::answerCancel(hawkbit_query_t::cancel_action_t const& cancel) {
  // What is installed cannot be taken back; anything else is dropped.
  bool const installed = reboot_.installed(cancel.stop_id);
  std::string const failure = server_.send([&] {
    return installed ? client_.sendCancelActionFeedback(
                           cancel.url, cancel.id, "rejected", "none",
                           "action " + cancel.stop_id + " is installed, waiting for its reboot")
                     : client_.sendCancelActionFeedback(
                           cancel.url, cancel.id, "closed", "success",
                           "cancellation of action " + cancel.stop_id + " accepted");
  });
  std::string removed;
  // Downloaded for a maintenance window that no longer matters.
  if (!installed && failure.empty() && dropWaiting(cancel.stop_id))
    removed = ", its downloaded files removed";
  Log::info("cancel request for action %s: %s%s", cancel.stop_id.c_str(),
            !failure.empty() ? failure.c_str()
            : installed      ? "rejected (installed already), feedback sent"
                             : "feedback sent",
            removed.c_str());
}

bool UpdateAgent::deploy(hawkbit_query_t::deployment_t deployment) {
  if (!DeploymentPlan::decimalId(deployment.id)) {
    // Nothing is built from an id that is not a number, not even a feedback URL.
    Log::info("deployment: refused, action id is not a decimal number; nothing sent");
    return false;
  }
  bool handled = true;
  if (reboot_.handles(deployment, handled)) return handled;
  // Gone from the server: nothing new is started for it.
  if (feedback_.gone(deployment.id)) return true;

  DeploymentPlan const plan = DeploymentPlan::read(deployment);
  if (plan.download() == DeploymentPlan::Handling::kSkip && plan.problems().empty()) {
    Log::info("deployment %s: the server asks to skip the download for now", deployment.id.c_str());
    return true;
  }
  bool const downloadOnly = config_.downloadOnly || plan.downloadOnly();
  bool const installNow = !downloadOnly && plan.mayInstall();
  bool const waited = deployment.id == waitingAction_;
  if (waited && !installNow) {
    Log::info("deployment %s: still waiting for the maintenance window", deployment.id.c_str());
    return true;
  }
  Log::info("deployment %s: %zu chunk(s)%s", deployment.id.c_str(), deployment.chunks.size(),
            downloadOnly ? ", download only" : "");
  if (!waited) {
    deployment.execution = execution_t::proceeding;
    deployment.finished = finished_t::none;
    std::string const outcome = feedback_.update(deployment);
    if (outcome != "sent")
      Log::info("deployment %s: proceeding %s", deployment.id.c_str(), outcome.c_str());
    if (feedback_.gone(deployment.id)) return true;
  }
  if (!plan.problems().empty()) {
    auto& details = deployment.chunks.front().details;
    details.insert(details.end(), plan.problems().begin(), plan.problems().end());
    for (auto const& line : plan.problems()) Log::info("  refused: %s", line.c_str());
    feedback_.close(deployment, false);
    return false;
  }

  // In install-mode stream and url nothing is stored ahead of the install.
  bool const streamed = config_.installMode != "file";
  if (streamed && downloadOnly) {
    deployment.chunks.front().details.push_back("install-mode " + config_.installMode +
                                                " stores nothing: a download-only action "
                                                "cannot be served");
    feedback_.close(deployment, false);
    return false;
  }
  std::vector<std::vector<std::string>> files(deployment.chunks.size());
  bool success = streamed || download_.run(deployment, plan, files);
  if (stopping()) {
    // The next run resumes the partial files.
    feedback_.proceed(deployment,
                      "interrupted on the device; the download resumes on the next start",
                      "interrupted, left open");
    return false;
  }
  if (!success) {
    feedback_.close(deployment, false);
    return false;
  }
  if (downloadOnly) {
    feedback_.closeDownloaded(deployment);
    return true;
  }
  if (!installNow) {
    feedback_.proceed(deployment, "downloaded, waiting for maintenance window",
                      "downloaded, waiting for the maintenance window");
    waitingAction_ = deployment.id;
    waitingFiles_.clear();
    waitingDirs_.clear();
    for (std::size_t c = 0; c < files.size(); ++c) {
      waitingFiles_.insert(waitingFiles_.end(), files[c].begin(), files[c].end());
      waitingDirs_.push_back(config_.downloadDir + "/" + deployment.chunks[c].name);
    }
    return true;
  }
  waitingAction_.clear();
  bool reboot = false;
  for (std::size_t c = 0; c < deployment.chunks.size() && success; ++c) {
    auto& chunk = deployment.chunks[c];
    chunk.completed = true;
    if (config_.installCommand.empty() || (files[c].empty() && !streamed)) continue;
    Installed const result =
        streamed ? installStreamed(chunk, plan, deployment.id) : install(files[c], chunk.details);
    success = result != Installed::kFailed;
    reboot = reboot || result == Installed::kReboot;
  }
  if (stopping() && !success) {
    // Stopped with the agent: offered again and installed at the next start.
    feedback_.proceed(deployment,
                      "installation interrupted on the device; it runs again on the next start",
                      "installation interrupted, left open");
    return false;
  }
  if (success && reboot && reboot_.begin(deployment)) return true;
  return reboot_.finish(deployment, success && !reboot);
}

bool UpdateAgent::takeInstallLock(std::vector<std::string>& details) {
  std::string error;
  if (lock_.take(stop_, config_.installTimeoutSeconds * 1000LL, error)) return true;
  details.push_back("install command not run: " + (error.empty() ? "stopping" : error));
  return false;
}

UpdateAgent::Installed UpdateAgent::install(std::vector<std::string> const& files,
                                            std::vector<std::string>& details) {
  if (!takeInstallLock(details)) return Installed::kFailed;
  CommandOptions options;
  options.stop = &stop_;
  options.deadlineMs = config_.installTimeoutSeconds * 1000LL;
  options.inherit = lock_.fd();
  options.started = [this](pid_t pid) { lock_.handOver(pid); };
  CommandResult const result = runCommand(config_.installCommand, files, options);
  lock_.release();
  Installed const installed =
      result.exitCode == 0 ? Installed::kDone
      : config_.rebootExitCode >= 0 && result.exitCode == config_.rebootExitCode
          ? Installed::kReboot
          : Installed::kFailed;
  details.push_back(
      std::string("install command ") + (installed == Installed::kFailed ? "failed" : "succeeded") +
      " (" + result.describe() + (installed == Installed::kReboot ? ", reboot needed" : "") + ")");
  for (auto const& line : result.stderrTail) details.push_back("install: " + line);
  return installed;
}

void UpdateAgent::dropGoneAction(std::string const& actionId) {
  dropWaiting(actionId);
  reboot_.drop(actionId);
}

bool UpdateAgent::dropWaiting(std::string const& actionId) {
  if (waitingAction_.empty() || actionId != waitingAction_) return false;
  for (std::string const& file : waitingFiles_) std::remove(file.c_str());
  for (std::string const& dir : waitingDirs_) rmdir(dir.c_str());
  waitingAction_.clear();
  return true;
}

UpdateAgent::Installed UpdateAgent::installStreamed(hawkbit_query_t::deployment_t::chunk_t& chunk,
                                                    DeploymentPlan const& plan,
                                                    std::string const& actionId) {
  std::string const sha256 =
      chunk.artifacts.size() == 1 ? plan.sha256(chunk.name, chunk.artifacts[0].filename) : "";
  if (!takeInstallLock(chunk.details)) return Installed::kFailed;
  // The lock goes with the command: it is held as long as the stream's
  // installer runs, even past the agent.
  StreamInstaller::Result const result = streamer_.install(chunk, sha256, actionId, lock_.fd());
  lock_.release();
  switch (result) {
    case StreamInstaller::Result::kDone:
      return Installed::kDone;
    case StreamInstaller::Result::kReboot:
      return Installed::kReboot;
    default:
      return Installed::kFailed;
  }
}
