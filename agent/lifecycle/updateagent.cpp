#include "agent/lifecycle/updateagent.h"

#include "agent/base/console.h"
#include "agent/base/exitcode.h"
#include "agent/base/heartbeat.h"
#include "agent/base/jsontext.h"
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

namespace {

// The agent's version, then the configured attributes: never empty (hawkBit
// refuses configuration data without attributes).
std::vector<tamrel::value_pair_t> fixedAttributes(AgentConfig const& config) {
  std::vector<tamrel::value_pair_t> fixed{{AgentConfig::kVersionAttribute, TAMREL_VERSION}};
  fixed.insert(fixed.end(), config.attributes.begin(), config.attributes.end());
  return fixed;
}

}  // namespace

UpdateAgent::UpdateAgent(AgentConfig const& config, ControlChannel& channel)
    : config_(config),
      channel_(channel),
      ui_(channel),
      address_(config.address()),
      transport_(AgentTransport::settingsFor(config)),
      attributes_(
          {config.attributesDir, config.attributesTimeoutSeconds * 1000LL, fixedAttributes(config)},
          &stop_),
      fetcher_(client_, config, stop_),
      server_(config, transport_, [this] { return stopping(); }),
      download_(config, fetcher_, stop_),
      lock_((config.stateDir.empty() ? config.downloadDir + "/.install.lock"
                                     : config.stateDir + "/install.lock")),
      streamer_(transport_, config, stop_),
      action_(client_, config, transport_, server_, download_, lock_, streamer_, stop_, ui_),
      reader_(config, address_, transport_, [this] { return stopping(); }),
      consent_(config, transport_, server_, reader_, stop_),
      installed_(transport_, server_, reader_) {
  ui_.set("server", JsonText::quoted(address_));
  fetcher_.progress().listen([this](std::string const& name, std::uint64_t bytes,
                                    std::uint64_t total, double rate,
                                    bool ended) { ui_.progress(name, bytes, total, rate, ended); });
  channel_.onRequest([this] {
    std::lock_guard<std::mutex> guard(sleepLock_);
    requested_ = true;
    wake_.notify_all();
  });
  consent_.askThrough(
      [this](std::vector<std::string> const& args) {
        ConsentFlow::Verdict verdict;
        if (args.empty()) return verdict;
        // Kept until the server took it: a failed send goes again.
        if (consentAction_ == args[0]) return consentVerdict_;
        std::vector<std::string> names;
        for (std::size_t i = 1; i + 1 < args.size(); i += 2) names.push_back(args[i]);
        action_.consentNeeded(args[0], names);
        return verdict;
      },
      [this](std::string const& id) {
        if (consentAction_ == id) consentAction_.clear();
        action_.consentAnswered(id);
      });
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
  bool const idle = lock_.take(stop_, config_.installTimeoutSeconds * 1000LL, error, false);
  if (!idle && !error.empty()) Log::warning("install lock: %s", error.c_str());
  lock_.release();
  if (stopping()) return true;
  // No install runs now: a credentials file in download-dir is a killed run's.
  if (idle) streamer_.removeStaleCredentials();
  consent_.start(client_.buildQueryUrl());
  action_.start(client_.buildQueryUrl());
  // At start, so a script's problem shows at once.
  if (!stopping()) attributes_.gather();
  return true;
}

int UpdateAgent::reportInstalled(std::string const& name, std::string const& version) {
  if (!client_.connectProperties(config_.properties)) return kExitConfig;
  std::string const failure = installed_.report(client_.buildQueryUrl(), name, version);
  if (failure.empty())
    Log::info("installed %s %s: reported, the server accepted it", name.c_str(), version.c_str());
  else
    Log::error("installed %s %s: %s", name.c_str(), version.c_str(), failure.c_str());
  return failure.empty() ? kExitOk : kExitUnreachable;
}

void UpdateAgent::stop() {
  stop_ = true;
  client_.cancelTransfer();
  client_.cancelVerifyArtifact();
  std::lock_guard<std::mutex> guard(sleepLock_);
  wake_.notify_all();
}

void UpdateAgent::wait(std::int64_t seconds) {
  using Clock = std::chrono::steady_clock;
  Clock::time_point const from = Clock::now();
  std::time_t const started = std::time(nullptr);
  std::int64_t shown = -1;  // the interval shown as next_poll, -2: held
  while (!stopping()) {
    Heartbeat::beat();
    if (answerRequests()) break;
    std::int64_t const interval = interval_ > 0 ? interval_ : seconds;
    bool const held = action_.state().pollingHeld;
    if (shown != (held ? -2 : interval)) {
      shown = held ? -2 : interval;
      ui_.set("next_poll", held ? "null" : JsonText::quoted(Console::utcTime(started + interval)));
    }
    Clock::time_point const due = from + std::chrono::seconds(interval);
    Clock::time_point const now = Clock::now();
    if (!held && now >= due) break;
    // In rounds of at most 10 s, each a beat of the loop's heartbeat.
    Clock::duration const round =
        held ? std::chrono::seconds(10)
             : std::min<Clock::duration>(due - now, std::chrono::seconds(10));
    std::unique_lock<std::mutex> guard(sleepLock_);
    wake_.wait_for(guard, round, [this] { return stop_.load() || requested_; });
  }
}

bool UpdateAgent::answerRequests() {
  {
    std::lock_guard<std::mutex> guard(sleepLock_);
    if (!requested_) return false;
    requested_ = false;
  }
  bool now = false;
  for (ControlRequest const& request : channel_.take()) {
    char const* const peer = request.peer.empty() ? "?" : request.peer.c_str();
    if (request.interval > 0) {
      interval_ = std::min<std::int64_t>(request.interval, config_.maxPollIntervalSeconds);
      Log::info("control: poll interval %lld s until the agent restarts (%s)",
                static_cast<long long>(interval_), peer);
    }
    switch (request.kind) {
      case ControlRequest::Kind::kPoll:
        Log::info("control: poll now (%s)", peer);
        now = true;
        break;
      case ControlRequest::Kind::kHold:
      case ControlRequest::Kind::kRelease: {
        // Each request is answered with the event of where polling stands,
        // also when it stood so already.
        bool const hold = request.kind == ControlRequest::Kind::kHold;
        bool const change = action_.state().pollingHeld != hold;
        if (change && !action_.holdPolling(hold)) break;
        if (change) Log::info("control: polling %s (%s)", hold ? "held" : "released", peer);
        ui_.event(hold ? "held" : "released");
        now = now || (change && !hold);
        break;
      }
      case ControlRequest::Kind::kConsent:
        Log::info("control: action %s %s (%s)", request.action.c_str(),
                  request.confirm ? "confirmed" : "denied", peer);
        consentAction_ = request.action;
        consentVerdict_.kind = request.confirm ? ConsentFlow::Verdict::Kind::kConfirm
                                               : ConsentFlow::Verdict::Kind::kDeny;
        consentVerdict_.reason = request.reason;
        now = true;
        break;
      case ControlRequest::Kind::kPermit:
        Log::info("control: action %s: %s permitted (%s)", request.action.c_str(),
                  request.permit.c_str(), peer);
        action_.permit(request.action, request.permit == "install"
                                           ? ActionMachine::Permit::kInstall
                                           : ActionMachine::Permit::kDownload);
        now = true;
        break;
    }
  }
  return now;
}

UpdateAgent::Cycle UpdateAgent::cycle() {
  ui_.set("next_poll", "");
  Cycle const result = poll();
  if (!stopping()) {
    char const* const outcome = result.status == kExitOk                 ? "ok"
                                : result.status == kExitUnreachable      ? "unreachable"
                                : result.status == kExitDeploymentFailed ? "failed"
                                                                         : "error";
    ui_.event("poll", {{"outcome", outcome}});
    if (!installed_.json().empty()) ui_.set("installed", installed_.json());
  }
  return result;
}

UpdateAgent::Cycle UpdateAgent::poll() {
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
  std::vector<std::string> libraryLines;
  Watchdog::Limits limits;
  // The transport's own deadline decides; this one is its backstop.
  limits.deadlineMs = (config_.pollTimeoutSeconds + 2) * 1000LL;
  limits.memoryBytes = config_.maxDocumentMib << 20;
  Watchdog watchdog(
      limits, [this] { return stopping(); },
      [this](Watchdog::Verdict) { client_.cancelTransfer(); });
  {
    // The library's lines are held until its answer tells their level, and
    // kept to tell the operator why a poll failed.
    Console::Capture log(Console::Channel::kErr, false, 65536);
    watchdog.run([&] {
      try {
        answer = client_.queryOnlineStatus();
      } catch (std::exception const& error) {
        unreadable = error.what();
      }
      return true;
    });
    libraryLog = log.text();
    libraryLines = log.writes();
  }
  // The library calls an answer with an interval below 30 s and nothing to
  // do unreadable; the agent polls at that interval, so it is no error.
  for (std::string const& line : libraryLines) {
    bool const normal =
        answer.config.sleep > 0 && line.find("Failed to parse response!") != std::string::npos;
    Log::library(normal ? Log::Level::kDebug : Log::libraryLevel(line), line);
  }
  if (stopping()) return result;
  AgentTransport::Answer const base = transport_.lastBaseAnswer();
  if (base.serial > before && (base.status == 409 || base.status == 429)) {
    // The server asks to wait: as long as it says, else the back-off.
    if (base.retryAfterS >= 0)
      result.sleepSeconds = std::min<std::int64_t>(std::max<std::int64_t>(base.retryAfterS, 1),
                                                   config_.maxPollIntervalSeconds);
    Log::warning("poll: the server is busy (HTTP %ld), next poll in %lld s", base.status,
                 static_cast<long long>(result.sleepSeconds));
    result.status = kExitUnreachable;
    return result;
  }
  bool const empty = answer.config.sleep == 0 && answer.deployment.url.empty() &&
                     answer.cancel_action.url.empty() && answer.config_data.url.empty();
  if (!unreadable.empty()) {
    Log::warning("poll: the server sent an unreadable polling interval (%s)", unreadable.c_str());
    result.status = kExitUnreachable;
    return result;
  }
  ConsentFlow::Outcome const consent = watchdog.verdict() == Watchdog::Verdict::kNone
                                           ? consent_.answer(baseBody_)
                                           : ConsentFlow::Outcome::kNone;
  if (watchdog.verdict() != Watchdog::Verdict::kNone ||
      (empty && consent == ConsentFlow::Outcome::kNone)) {
    Log::warning("poll: %s", PollFailure::describe(watchdog.verdict(), transport_.lastAnswer(),
                                                   libraryLog, config_)
                                 .c_str());
    result.status = kExitUnreachable;
    return result;
  }
  failedPolls_ = 0;
  if (consent == ConsentFlow::Outcome::kConfirmed && !again_ && !stopping()) {
    // The confirmed action is linked as a deployment from the next poll on.
    again_ = true;
    Cycle const next = poll();
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

  if (!answer.config_data.url.empty()) configDataLink_ = answer.config_data.url;
  sendAttributes(!answer.config_data.url.empty());
  auto const& cancel = answer.cancel_action;
  if (!cancel.url.empty() && !cancel.stop_id.empty() &&
      (!DeploymentPlan::decimalId(cancel.id) || !DeploymentPlan::decimalId(cancel.stop_id))) {
    // No request is built from an id that is not a number.
    Log::error("cancel request refused: action ids \"%s\"/\"%s\" are not decimal numbers",
               cancel.id.c_str(), cancel.stop_id.c_str());
    result.status = kExitDeploymentFailed;
  } else if (!cancel.url.empty() && !cancel.stop_id.empty()) {
    action_.cancel(cancel);
  }
  if (!answer.deployment.url.empty() && answer.deployment.chunks.empty() && !stopping()) {
    // Nothing is reported: the action may be readable at the next poll.
    Log::warning("deployment: the deployment the server linked could not be read; nothing sent");
    result.status = kExitUnreachable;
  } else if (!answer.deployment.url.empty() && !stopping()) {
    if (!deploy(answer.deployment) && !stopping()) result.status = kExitDeploymentFailed;
  } else if (answer.deployment.url.empty() && cancel.url.empty() &&
             consent == ConsentFlow::Outcome::kNone && !stopping()) {
    // A cancel request stands for its action: the server still has it open.
    action_.notOffered();
  }
  return result;
}

void UpdateAgent::sendAttributes(bool asked) {
  // The library sends only to a link a poll named.
  if (configDataLink_.empty() || stopping()) return;
  std::string host;
  if (!linkAllowed(configDataLink_, address_, config_.trustedHosts, host)) {
    if (asked)
      Log::warning("config data: not sent, the link names another host (%s; see trusted-hosts)",
                   host.c_str());
    return;
  }
  auto const& attributes = attributes_.gather();
  if (stopping()) return;
  if (!asked && !attributes_.changed()) {
    Log::debug("config data: not asked for, no value changed; not sent");
    return;
  }
  std::string const failure = server_.send([&] { return client_.sendConfigData(attributes); });
  char const* const plural = attributes.size() == 1 ? "" : "s";
  if (!failure.empty()) {
    Log::warning("config data: %zu attribute%s not sent: %s", attributes.size(), plural,
                 failure.c_str());
    return;
  }
  attributes_.accepted();
  Log::info("config data: %zu attribute%s sent%s", attributes.size(), plural,
            asked ? "" : " (a value changed)");
}

bool UpdateAgent::deploy(hawkbit_query_t::deployment_t& deployment) {
  if (!DeploymentPlan::decimalId(deployment.id)) {
    // Nothing is built from an id that is not a number, not even a feedback URL.
    Log::error("deployment: refused, action id is not a decimal number; nothing sent");
    return false;
  }
  DeploymentPlan const plan = DeploymentPlan::read(deployment);
  // The library logs the links it fetches: it gets them with their query
  // (a signed URL's signature) hidden, the transport knows the rest.
  transport_.forgetConcealed();
  for (auto& chunk : deployment.chunks) {
    for (auto& artifact : chunk.artifacts) {
      for (auto& link : artifact.links) link.second = transport_.concealed(link.second);
    }
  }
  return action_.offered(deployment, plan);
}
