#include "agent/lifecycle/actionmachine.h"

namespace {

using Stage = ActionState::Stage;
using Result = ActionState::Result;
using Kind = ActionMachine::Kind;
using Work = ActionMachine::Work;
using Exit = ActionMachine::Exit;
using Offer = ActionMachine::Offer;
using Step = ActionMachine::Step;

// A poll offers an action the record does not hold: it starts afresh.
Step offered(ActionState const& state, ActionMachine::Event const& event) {
  ActionState fresh;
  if (event.offer == Offer::kSkip) return {fresh, Work::kNone};
  fresh.actionId = event.actionId;
  fresh.chunks = event.chunks;
  fresh.parts = event.parts;
  fresh.versions = event.versions;
  (void)state;
  if (event.ask) {
    fresh.stage = Stage::kAwaitingDownloadPermit;
    return {fresh, Work::kAwaitPermit};
  }
  fresh.stage = Stage::kDownloading;
  return {fresh, Work::kProceedAndDownload};
}

Step reporting(ActionState state, Result result) {
  state.stage = Stage::kReporting;
  state.result = result;
  state.chunk = 0;
  return {state, Work::kReport};
}

// Another action is offered while this one is on the device: it is told
// once that it waits; otherwise this one's own work goes on.
Step hold(ActionState state, std::string const& other, Work otherwise) {
  if (state.held == other) return {state, otherwise};
  state.held = other;
  return {state, Work::kHold};
}

// A chunk's install ended (seen, or recovered after the agent's death).
Step installed(ActionState state, Exit exit) {
  if (exit == Exit::kStopped) return {state, Work::kReportInterrupted};
  state.rebootOwed = state.rebootOwed || exit == Exit::kReboot;
  if (exit == Exit::kFailed && !state.rebootOwed) return reporting(state, Result::kFailure);
  // The next chunk is recorded before the progress of this one is sent: a
  // crash in between installs neither chunk again nor skips one.
  if (exit != Exit::kFailed && state.chunk + 1 < state.chunks.size()) {
    ++state.chunk;
    return {state, Work::kReportProgress};
  }
  if (!state.rebootOwed) return reporting(state, Result::kSuccess);
  // A reboot was asked for: the slot may be switched already, so even a
  // later chunk's failure waits for the reboot and its confirmation.
  if (exit == Exit::kFailed) state.result = Result::kFailure;
  state.stage = Stage::kAnnouncing;
  state.chunk = 0;
  return {state, Work::kAnnounce};
}

Step beforeInstall(ActionState state, ActionMachine::Event const& event, bool self) {
  bool const waiting = state.stage == Stage::kWaitingWindow;
  switch (event.kind) {
    case Kind::kOffered:
      if (!self) return offered(state, event);
      if (event.offer == Offer::kSkip || (waiting && event.offer == Offer::kWait))
        return {state, Work::kNone};
      state.stage = Stage::kDownloading;
      return {state, Work::kDownload};
    case Kind::kNotOffered:
      return {ActionState(), Work::kDrop};
    case Kind::kDownloaded:
      if (waiting) return {state, Work::kNone};
      if (event.offer == Offer::kInstall && event.ask) {
        state.stage = Stage::kAwaitingInstallPermit;
        return {state, Work::kAwaitPermit};
      }
      if (event.offer == Offer::kInstall) {
        state.stage = Stage::kInstalling;
        state.chunk = 0;
        return {state, Work::kInstall};
      }
      if (event.offer == Offer::kDownloadOnly) return reporting(state, Result::kDownloaded);
      state.stage = Stage::kWaitingWindow;
      return {state, Work::kReportWaiting};
    case Kind::kFailed:
      return reporting(state, Result::kFailure);
    case Kind::kFeedback:
      if (event.answer == ActionMachine::Answer::kGone) return {ActionState(), Work::kDrop};
      return {state, waiting ? Work::kNone : Work::kDownload};
    case Kind::kStop:
      return {state, waiting ? Work::kNone : Work::kReportInterrupted};
    default:
      return {state, Work::kNone};
  }
}

// ---- the stages where the action waits for a local UI
// The server holds an action for consent: a fresh record asks the UI.
Step askConsent(ActionMachine::Event const& event) {
  ActionState fresh;
  fresh.stage = Stage::kConsentNeeded;
  fresh.actionId = event.actionId;
  fresh.chunks = event.chunks;
  return {fresh, Work::kAwaitConsent};
}

// Waiting for consent: the server links the action for confirmation only.
Step consentNeeded(ActionState state, ActionMachine::Event const& event, bool self, bool start) {
  if (start) return {state, Work::kAwaitConsent};
  switch (event.kind) {
    case Kind::kConsentAsked:
      return self ? Step{state, Work::kNone} : askConsent(event);
    case Kind::kConsentAnswered:
      return self ? Step{ActionState(), Work::kNone} : Step{state, Work::kNone};
    case Kind::kOffered:  // confirmed (on the server too): now a deployment
      return offered(state, event);
    case Kind::kNotOffered:
      return {ActionState(), Work::kNone};
    default:
      return {state, Work::kNone};
  }
}

// Offered (or downloaded) and waiting until the UI permits the next step.
Step awaitingPermit(ActionState state, ActionMachine::Event const& event, bool self, bool start) {
  bool const install = state.stage == Stage::kAwaitingInstallPermit;
  if (start) return {state, Work::kAwaitPermit};
  switch (event.kind) {
    case Kind::kOffered:
      return self ? Step{state, Work::kNone} : offered(state, event);
    case Kind::kNotOffered:
      return {ActionState(), Work::kDrop};
    case Kind::kPermitted:
      if (!self || (event.permit == ActionMachine::Permit::kInstall) != install)
        return {state, Work::kNone};
      if (install) {
        state.stage = Stage::kInstalling;
        state.chunk = 0;
        return {state, Work::kInstall};
      }
      state.stage = Stage::kDownloading;
      return {state, Work::kProceedAndDownload};
    case Kind::kFailed:
      return reporting(state, Result::kFailure);
    default:
      return {state, Work::kNone};
  }
}

Step step(ActionState const& state, ActionMachine::Event const& event);

}  // namespace

// Holding polling is the UI's and is kept whatever the action does.
ActionMachine::Step ActionMachine::next(ActionState const& state, Event const& event) {
  if (event.kind == Kind::kWriteFailed) return {state, Work::kHalt};
  Step result = {state, Work::kNone};
  if (event.kind != Kind::kHoldPolling && event.kind != Kind::kReleasePolling)
    result = step(state, event);
  result.state.pollingHeld = event.kind == Kind::kHoldPolling      ? true
                             : event.kind == Kind::kReleasePolling ? false
                                                                   : state.pollingHeld;
  return result;
}

namespace {

Step step(ActionState const& state, ActionMachine::Event const& event) {
  using Answer = ActionMachine::Answer;
  bool const self = !state.actionId.empty() && event.actionId == state.actionId;
  bool const startEvent = event.kind == Kind::kStartSameBoot || event.kind == Kind::kStartNewBoot;
  if (event.kind == Kind::kCancel) {
    if (!self || state.stage == Stage::kIdle) return {state, Work::kAcceptCancel};
    if (state.stage <= Stage::kAwaitingInstallPermit) return {ActionState(), Work::kAcceptCancel};
    // Closed already: nothing is left to cancel.
    if (state.stage == Stage::kClosed) return {state, Work::kAcceptCancel};
    return {state, Work::kRejectCancel};
  }
  bool const other = event.kind == Kind::kOffered && !self;
  ActionState next = state;
  switch (state.stage) {
    case Stage::kIdle:
      if (event.kind == Kind::kOffered) return offered(state, event);
      if (event.kind == Kind::kConsentAsked) return askConsent(event);
      return {state, Work::kNone};
    case Stage::kConsentNeeded:
      return consentNeeded(state, event, self, startEvent);
    case Stage::kAwaitingDownloadPermit:
    case Stage::kAwaitingInstallPermit:
      return awaitingPermit(state, event, self, startEvent);
    case Stage::kDownloading:
    case Stage::kWaitingWindow:
      return beforeInstall(state, event, self);
    case Stage::kInstalling:
      if (startEvent || (event.kind == Kind::kOffered && self))
        return {state, Work::kRecoverInstall};
      if (other) return hold(state, event.actionId, Work::kNone);
      if (event.kind == Kind::kCommandExited || event.kind == Kind::kRecovered)
        return installed(state, event.exit);
      // Whatever the server made of the progress, the next chunk installs.
      if (event.kind == Kind::kNoOutcome || event.kind == Kind::kFeedback)
        return {state, Work::kInstall};
      if (event.kind == Kind::kFailed) return installed(state, Exit::kFailed);
      if (event.kind == Kind::kStop) return {state, Work::kReportInterrupted};
      return {state, Work::kNone};
    case Stage::kAnnouncing:
    case Stage::kRebooting: {
      Work const again = state.stage == Stage::kAnnouncing ? Work::kAnnounce : Work::kReboot;
      if (event.kind == Kind::kStartNewBoot) {
        next.stage = Stage::kConfirming;
        return {next, Work::kConfirm};
      }
      if (event.kind == Kind::kStartSameBoot || event.kind == Kind::kNotOffered ||
          (event.kind == Kind::kOffered && self))
        return {state, again};
      if (other) return hold(state, event.actionId, again);
      if (event.kind == Kind::kFeedback && state.stage == Stage::kAnnouncing) {
        // The reboot goes ahead either way; an announcement the server did
        // not take is sent again at the next poll or start.
        if (event.answer == Answer::k2xx) next.stage = Stage::kRebooting;
        return {next, Work::kReboot};
      }
      return {state, Work::kNone};
    }
    case Stage::kConfirming:
      if (startEvent || (event.kind == Kind::kOffered && self)) return {state, Work::kConfirm};
      if (other) return hold(state, event.actionId, Work::kNone);
      if (event.kind == Kind::kCommandExited && event.exit != Exit::kStopped) {
        bool const good = event.exit == Exit::kOk && state.result != Result::kFailure;
        return reporting(state, good ? Result::kSuccess : Result::kFailure);
      }
      return {state, Work::kNone};
    case Stage::kReporting:
      if (startEvent || (event.kind == Kind::kOffered && self)) return {state, Work::kReport};
      // Not offered any more: the server has no open action of it, whether
      // it took the result or answered that the action is gone.
      if (event.kind == Kind::kNotOffered) return {ActionState(), Work::kNone};
      if (other) return offered(state, event);
      if (event.kind == Kind::kConsentAsked && !self) return askConsent(event);
      if (event.kind == Kind::kFeedback && event.answer == Answer::k2xx) {
        next.stage = Stage::kClosed;
        return {next, Work::kNone};
      }
      return {state, Work::kNone};
    case Stage::kClosed:
      // Offered again (the server lost the result it took): the recorded
      // result goes again; nothing installs again.
      if (event.kind == Kind::kOffered && self) {
        next.stage = Stage::kReporting;
        return {next, Work::kReport};
      }
      if (other) return offered(state, event);
      if (event.kind == Kind::kConsentAsked && !self) return askConsent(event);
      if (event.kind == Kind::kNotOffered) return {ActionState(), Work::kNone};
      return {state, Work::kNone};
  }
  return {state, Work::kNone};
}

}  // namespace

char const* ActionMachine::name(Kind kind) {
  switch (kind) {
    case Kind::kStartSameBoot:
      return "start (same boot)";
    case Kind::kStartNewBoot:
      return "start (new boot)";
    case Kind::kOffered:
      return "offered";
    case Kind::kNotOffered:
      return "not offered";
    case Kind::kCancel:
      return "cancel";
    case Kind::kDownloaded:
      return "downloaded";
    case Kind::kFailed:
      return "failed";
    case Kind::kCommandExited:
      return "command exited";
    case Kind::kRecovered:
      return "command exited (recovered)";
    case Kind::kNoOutcome:
      return "no outcome";
    case Kind::kFeedback:
      return "feedback answer";
    case Kind::kStop:
      return "stop";
    case Kind::kWriteFailed:
      return "write failed";
    case Kind::kHoldPolling:
      return "hold polling";
    case Kind::kReleasePolling:
      return "release polling";
    case Kind::kConsentAsked:
      return "consent asked";
    case Kind::kConsentAnswered:
      return "consent answered";
    case Kind::kPermitted:
      return "permitted";
  }
  return "?";
}

char const* ActionMachine::name(Work work) {
  switch (work) {
    case Work::kNone:
      return "none";
    case Work::kProceedAndDownload:
      return "proceed and download";
    case Work::kDownload:
      return "download";
    case Work::kReportWaiting:
      return "report waiting";
    case Work::kInstall:
      return "install";
    case Work::kReportProgress:
      return "report progress";
    case Work::kRecoverInstall:
      return "recover install";
    case Work::kAnnounce:
      return "announce";
    case Work::kReboot:
      return "reboot";
    case Work::kConfirm:
      return "confirm";
    case Work::kReport:
      return "report";
    case Work::kReportInterrupted:
      return "report interrupted";
    case Work::kHold:
      return "hold";
    case Work::kAcceptCancel:
      return "accept cancel";
    case Work::kRejectCancel:
      return "reject cancel";
    case Work::kDrop:
      return "drop";
    case Work::kHalt:
      return "halt";
    case Work::kAwaitConsent:
      return "await consent";
    case Work::kAwaitPermit:
      return "await permit";
  }
  return "?";
}
