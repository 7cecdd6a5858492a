#include "agent/lifecycle/actiondriver.h"

#include <dirent.h>
#include <unistd.h>

#include <cstdio>

#include "agent/base/log.h"

namespace {

using Stage = ActionState::Stage;
using Result = ActionState::Result;
using Kind = ActionMachine::Kind;
using Exit = ActionMachine::Exit;
using Answer = ActionMachine::Answer;
using Event = ActionMachine::Event;

}  // namespace

ActionDriver::ActionDriver(libtamrelcore& client, AgentConfig const& config,
                           AgentTransport& transport, ServerRequest const& server,
                           DeploymentDownload& download, InstallLock& lock,
                           StreamInstaller& streamer, std::atomic<bool> const& stop,
                           ControlStatus& ui)
    : config_(config),
      download_(download),
      stop_(stop),
      chunk_(config, download, lock, streamer, stop, ui),
      record_(config.stateDir),
      reports_(client, transport, server),
      reboot_(config, stop),
      ui_(ui) {}

void ActionDriver::start(std::string const& baseUrl) {
  reports_.start(baseUrl);
  if (!record_.load(state_, unreadable_)) {
    Log::error("state record unreadable, refusing to install: %s", unreadable_.c_str());
    return;
  }
  if (state_.stage != Stage::kIdle)
    Log::info("action %s: found %s at start", state_.actionId.c_str(), state_.describe().c_str());
  bool const newBoot = !state_.bootId.empty() && state_.bootId != reboot_.bootId();
  // The reboot never happened (the agent was stopped before or while it
  // ran): nothing is confirmed before another boot.
  if (!newBoot && (state_.stage == Stage::kAnnouncing || state_.stage == Stage::kRebooting))
    Log::info("deployment %s: installed, but this is still the boot that installed it",
              state_.actionId.c_str());
  feed(Event::of(newBoot ? Kind::kStartNewBoot : Kind::kStartSameBoot));
}

bool ActionDriver::offered(deployment_t& deployment, DeploymentPlan const& plan) {
  if (!unreadable_.empty()) {
    // Installing now could install an action a second time, or beside one
    // waiting for its reboot.
    Log::error("deployment %s: state record unreadable, refusing to install: %s",
               deployment.id.c_str(), unreadable_.c_str());
    return false;
  }
  Event e = Event::of(Kind::kOffered);
  e.actionId = deployment.id;
  for (auto const& chunk : deployment.chunks) {
    e.chunks.push_back(chunk.name);
    e.parts.push_back(chunk.part);
    e.versions.push_back(chunk.version);
  }
  bool const downloadOnly = config_.downloadOnly || plan.downloadOnly();
  e.ask = config_.permit == "socket";
  e.offer = plan.download() == DeploymentPlan::Handling::kSkip && plan.problems().empty()
                ? ActionMachine::Offer::kSkip
            : downloadOnly      ? ActionMachine::Offer::kDownloadOnly
            : plan.mayInstall() ? ActionMachine::Offer::kInstall
                                : ActionMachine::Offer::kWait;
  if (e.offer == ActionMachine::Offer::kSkip && state_.actionId != deployment.id)
    Log::info("deployment %s: the server asks to skip the download for now", deployment.id.c_str());
  deployment_ = &deployment;
  plan_ = &plan;
  if (state_.actionId != deployment.id) files_.clear();
  failed_ = false;
  if (!permittedAction_.empty() && permittedAction_ == deployment.id &&
      state_.actionId == deployment.id) {
    Event p = Event::of(Kind::kPermitted);
    p.actionId = deployment.id;
    p.permit = permitted_;
    e = p;
  }
  permittedAction_.clear();
  feed(e);
  deployment_ = nullptr;
  plan_ = nullptr;
  return !failed_ && halted_.empty();
}

bool ActionDriver::holdPolling(bool hold) {
  if (!unreadable_.empty()) {
    Log::error("polling %s: the state record is unreadable, nothing recorded: %s",
               hold ? "not held" : "not released", unreadable_.c_str());
    return false;
  }
  feed(Event::of(hold ? Kind::kHoldPolling : Kind::kReleasePolling));
  return state_.pollingHeld == hold;
}

void ActionDriver::consentNeeded(std::string const& id, std::vector<std::string> const& chunks) {
  if (!unreadable_.empty()) return;
  Event e = Event::of(Kind::kConsentAsked);
  e.actionId = id;
  e.chunks = chunks;
  feed(e);
}

void ActionDriver::consentAnswered(std::string const& id) {
  if (!unreadable_.empty()) return;
  Event e = Event::of(Kind::kConsentAnswered);
  e.actionId = id;
  feed(e);
}

void ActionDriver::permit(std::string const& id, ActionMachine::Permit what) {
  permittedAction_ = id;
  permitted_ = what;
}

void ActionDriver::notOffered() {
  if (unreadable_.empty()) feed(Event::of(Kind::kNotOffered));
}

void ActionDriver::cancel(hawkbit_query_t::cancel_action_t const& cancel) {
  if (!unreadable_.empty()) {
    // Whether the action is installed cannot be told: neither answer is sent.
    Log::error("cancel request for action %s: state record unreadable, not answered: %s",
               cancel.stop_id.c_str(), unreadable_.c_str());
    return;
  }
  Event e = Event::of(Kind::kCancel);
  e.actionId = cancel.stop_id;
  cancel_ = &cancel;
  feed(e);
  cancel_ = nullptr;
}

void ActionDriver::feed(Event e) {
  // Each work yields at most one event; a chain is a few steps long.
  for (int steps = 0; steps < 64; ++steps) {
    if (!halted_.empty()) {
      Log::error("action %s: stopped at %s: %s; nothing more is done until the agent restarts",
                 state_.actionId.c_str(), state_.describe().c_str(), halted_.c_str());
      failed_ = true;
      return;
    }
    ActionState const before = state_;
    ActionMachine::Step step = ActionMachine::next(state_, e);
    // The boot that installed it, to tell the reboot from a restart.
    if (step.state.stage == Stage::kAnnouncing && step.state.bootId.empty())
      step.state.bootId = reboot_.bootId();
    std::string error;
    if (step.state.format() != state_.format() && !record_.save(step.state, error)) {
      step = ActionMachine::next(state_, Event::of(Kind::kWriteFailed));
      halted_ = error;
      Log::error("action %s: %s cannot be recorded (%s); the action stops at %s",
                 (e.actionId.empty() ? state_.actionId : e.actionId).c_str(),
                 ActionMachine::name(e.kind), error.c_str(), state_.describe().c_str());
      ui_.event("error", {{"action", state_.actionId},
                          {"message", "the next state cannot be recorded: " + error}});
      failed_ = true;
      return;
    }
    state_ = step.state;
    ui_.stepped(before, state_, step.work, current() ? deployment_ : nullptr);
    if (before.stage != state_.stage || before.chunk != state_.chunk)
      Log::debug("action %s: %s -> %s (%s), then %s",
                 (state_.actionId.empty() ? before : state_).actionId.c_str(),
                 before.describe().c_str(), state_.describe().c_str(), ActionMachine::name(e.kind),
                 ActionMachine::name(step.work));
    std::optional<Event> const next = perform(step.work, before);
    if (!next) return;
    e = *next;
  }
}

std::optional<Event> ActionDriver::perform(Work work, ActionState const& before) {
  switch (work) {
    case Work::kNone:
    case Work::kHalt:
      return std::nullopt;
    case Work::kAwaitConsent:
      Log::info("deployment %s: waits for consent through the control socket",
                state_.actionId.c_str());
      return std::nullopt;
    case Work::kAwaitPermit:
      Log::info("deployment %s: waits for the %s permit through the control socket",
                state_.actionId.c_str(),
                state_.stage == Stage::kAwaitingInstallPermit ? "install" : "download");
      return std::nullopt;
    case Work::kProceedAndDownload: {
      Log::info("deployment %s: %zu chunk(s)%s", state_.actionId.c_str(), state_.chunks.size(),
                config_.downloadOnly || (plan_ && plan_->downloadOnly()) ? ", download only" : "");
      Event e = Event::of(Kind::kFeedback);
      e.answer = proceed(std::string());
      return e;
    }
    case Work::kDownload:
      return download();
    case Work::kReportWaiting: {
      Event e = Event::of(Kind::kFeedback);
      e.answer = proceed("downloaded, waiting for maintenance window");
      Log::info("deployment %s: downloaded, waiting for the maintenance window",
                state_.actionId.c_str());
      return e;
    }
    case Work::kInstall:
      return chunk_.install(state_, current() ? deployment_ : nullptr, plan_, files_);
    case Work::kReportProgress: {
      // Sent with the next chunk recorded: the one before it is installed.
      Event e = Event::of(Kind::kFeedback);
      std::string const done =
          ChunkStep::label(state_, current() ? deployment_ : nullptr, state_.chunk - 1) +
          ": installed";
      e.answer = reports_.proceed(ActionReports::of(state_), done, state_.chunk);
      Log::info("deployment %s: %s, progress feedback %s", state_.actionId.c_str(), done.c_str(),
                e.answer == Answer::k2xx ? "sent" : "not taken");
      return e;
    }
    case Work::kRecoverInstall:
      return chunk_.recover(state_, current() ? deployment_ : nullptr);
    case Work::kAnnounce: {
      Event e = Event::of(Kind::kFeedback);
      e.answer = proceed("installed, rebooting to confirm");
      Log::info("deployment %s: installed, needs a reboot, feedback %s", state_.actionId.c_str(),
                e.answer == Answer::k2xx ? "sent" : "not taken; sent again later");
      return e;
    }
    case Work::kReboot:
      if (std::optional<Exit> const exit = reboot_.reboot(state_.actionId))
        return Event::of(Kind::kCommandExited, *exit);
      return std::nullopt;
    case Work::kConfirm:
      return Event::of(Kind::kCommandExited, reboot_.confirm(state_));
    case Work::kReport:
      return report();
    case Work::kReportInterrupted:
      proceed(state_.stage == Stage::kDownloading
                  ? "interrupted on the device; the download resumes on the next start"
                  : "installation interrupted on the device; it resumes on the next start");
      Log::warning("deployment %s: %s, left open (%s)", state_.actionId.c_str(),
                   state_.stage == Stage::kDownloading ? "interrupted" : "installation interrupted",
                   state_.describe().c_str());
      return std::nullopt;
    case Work::kHold:
      if (deployment_) reports_.hold(*deployment_, state_);
      return std::nullopt;
    case Work::kAcceptCancel:
    case Work::kRejectCancel:
      answerCancel(work == Work::kAcceptCancel, before);
      return std::nullopt;
    case Work::kDrop:
      dropFiles(before);
      Log::info(
          "action %s no longer exists on the server (cancelled or deleted there): "
          "what was downloaded for it is removed",
          before.actionId.c_str());
      return std::nullopt;
  }
  return std::nullopt;
}

ActionMachine::Answer ActionDriver::proceed(std::string const& detail) {
  return reports_.proceed(current() ? *deployment_ : ActionReports::of(state_), detail);
}

std::optional<Event> ActionDriver::download() {
  if (!current()) return std::nullopt;  // at the next offer
  auto& chunks = deployment_->chunks;
  if (!plan_->problems().empty()) {
    for (auto const& line : plan_->problems()) Log::error("  refused: %s", line.c_str());
    state_.details.insert(state_.details.end(), plan_->problems().begin(), plan_->problems().end());
    return Event::of(Kind::kFailed);
  }
  Event e = Event::of(Kind::kDownloaded);
  e.ask = config_.permit == "socket";
  e.offer = config_.downloadOnly || plan_->downloadOnly() ? ActionMachine::Offer::kDownloadOnly
            : plan_->mayInstall()                         ? ActionMachine::Offer::kInstall
                                                          : ActionMachine::Offer::kWait;
  bool const installing = e.offer != ActionMachine::Offer::kDownloadOnly;
  bool stored = false;
  for (auto const& chunk : chunks) {
    AgentConfig::Install const how = config_.installFor(chunk.part);
    // Nothing is fetched for an action that could not be installed whole.
    // (Logged with the failure's report.)
    if (installing && how.command.empty() && chunk_.commandsConfigured()) {
      state_.details.push_back("no install command for module type '" + chunk.part + "'");
      return Event::of(Kind::kFailed);
    }
    // In install-mode stream and url nothing is stored ahead of the install.
    if (how.mode == "file") {
      stored = true;
    } else if (!installing) {
      state_.details.push_back("install-mode " + how.mode + " of module type '" + chunk.part +
                               "' stores nothing: a download-only action cannot be served");
      return Event::of(Kind::kFailed);
    }
  }
  if (!stored) return e;
  files_.assign(chunks.size(), {});
  bool const success = download_.run(*deployment_, *plan_, files_);
  if (stop_.load()) return Event::of(Kind::kStop);
  for (auto const& chunk : chunks)
    state_.details.insert(state_.details.end(), chunk.details.begin(), chunk.details.end());
  if (success) ui_.event("verified", {{"action", state_.actionId}});
  if (success) return e;
  download_.removeEmptyDirectories(*deployment_);
  return Event::of(Kind::kFailed);
}

std::optional<Event> ActionDriver::report() {
  Event e = Event::of(Kind::kFeedback);
  e.answer = reports_.result(state_);
  if (state_.result == Result::kFailure) failed_ = true;
  return e;
}

void ActionDriver::answerCancel(bool accept, ActionState const& before) {
  if (!cancel_) return;
  std::string const failure = reports_.cancel(*cancel_, accept);
  std::string removed;
  // Downloaded for a maintenance window that no longer matters.
  if (accept && before.actionId == cancel_->stop_id &&
      (before.stage == Stage::kWaitingWindow || before.stage == Stage::kAwaitingInstallPermit)) {
    dropFiles(before);
    removed = ", its downloaded files removed";
  }
  Log::info("cancel request for action %s: %s%s", cancel_->stop_id.c_str(),
            !failure.empty() ? failure.c_str()
            : accept         ? "feedback sent"
                             : "rejected (installed already), feedback sent",
            removed.c_str());
}

void ActionDriver::dropFiles(ActionState const& state) const {
  if (state.stage != Stage::kDownloading && state.stage != Stage::kWaitingWindow &&
      state.stage != Stage::kAwaitingInstallPermit)
    return;
  for (auto const& name : state.chunks) {
    if (!DeploymentDownload::safeName(name)) continue;
    std::string const dir = config_.downloadDir + "/" + name;
    DIR* const listing = opendir(dir.c_str());
    if (!listing) continue;
    std::vector<std::string> entries;
    while (dirent const* entry = readdir(listing)) {
      std::string const file = entry->d_name;
      if (file != "." && file != "..") entries.push_back(dir + "/" + file);
    }
    closedir(listing);
    for (auto const& file : entries) unlink(file.c_str());
    rmdir(dir.c_str());
  }
}
