#ifndef TAMREL_AGENT_LIFECYCLE_ACTIONMACHINE_H_
#define TAMREL_AGENT_LIFECYCLE_ACTIONMACHINE_H_

#include <string>
#include <vector>

#include "agent/lifecycle/actionstate.h"

// The one table of an action's life on the device: what the world did
// (an Event) takes the recorded state to the next one and names the work to
// do there. Pure: no I/O, no clock; the update loop records the next state,
// then does the work, and feeds what came of it back in.
class ActionMachine {
 public:
  enum class Kind {
    kStartSameBoot,  // the agent starts; the boot is the one of the record
    kStartNewBoot,   // the agent starts after another boot
    kOffered,        // a poll offers `actionId` (with `offer`, `chunks`)
    kNotOffered,     // a poll offers no action
    kCancel,         // the server asks to cancel `actionId`
    kDownloaded,     // every artifact is on disk and verified (`offer` as now)
    kFailed,         // the action cannot be carried out (download, refused document)
    kCommandExited,  // the command of the work ended (`exit`)
    kRecovered,      // an install ended while the agent was dead (`exit` from its outcome)
    kNoOutcome,      // an install was interrupted and left no outcome
    kFeedback,       // the server answered a feedback of the work (`answer`)
    kStop,           // the agent stops
    kWriteFailed,    // the next state could not be recorded
    // A local UI (the control socket) steers the action:
    kHoldPolling,      // holds polling (kept in the record) until released
    kReleasePolling,   // resumes polling
    kConsentAsked,     // consent = socket: the server holds `actionId` for consent (`chunks`)
    kConsentAnswered,  // the UI's answer for `actionId` reached the server
    kPermitted,        // permit = socket: the UI permits `permit` for `actionId`
  };
  // What the deployment asks for, as the poll shows it.
  enum class Offer { kInstall, kWait, kDownloadOnly, kSkip };
  enum class Exit { kOk, kReboot, kFailed, kStopped };
  enum class Answer { k2xx, kGone, kBusy, kError, kNone };  // 404/410; 409/429; 5xx and other
  enum class Permit { kDownload, kInstall };

  struct Event {
    Kind kind = Kind::kStop;
    std::string actionId;                      // kOffered, kCancel
    std::vector<std::string> chunks;           // kOffered
    std::vector<std::string> parts, versions;  // kOffered: each chunk's
    Offer offer = Offer::kInstall;             // kOffered, kDownloaded
    Exit exit = Exit::kOk;                     // kCommandExited, kRecovered
    Answer answer = Answer::k2xx;              // kFeedback
    bool ask = false;                   // kOffered, kDownloaded: a UI permits the next step first
    Permit permit = Permit::kDownload;  // kPermitted

    static Event of(Kind kind, Exit exit = Exit::kOk) {
      Event e;
      e.kind = kind;
      e.exit = exit;
      return e;
    }
  };

  enum class Work {
    kNone,
    kProceedAndDownload,  // report "proceeding", then download
    kDownload,            // download (what is on disk and verifies is kept)
    kReportWaiting,       // report "downloaded, waiting for the maintenance window"
    kInstall,             // run the install command of the state's chunk
    kReportProgress,      // report "proceeding" with the chunks installed so far, then install
    kRecoverInstall,      // wait for an orphaned install, read its outcome
    kAnnounce,            // report "installed, rebooting"
    kReboot,              // run reboot-command
    kConfirm,             // run confirm-command
    kReport,              // send the recorded result
    kReportInterrupted,   // report "proceeding": interrupted, resumed at the next start
    kHold,                // tell the offered action that it waits for the recorded one
    kAcceptCancel,        // accept the cancel request; drop what was downloaded
    kRejectCancel,        // reject the cancel request: installed already
    kDrop,                // the action is gone: drop what was downloaded
    kHalt,                // the state could not be recorded: stop where it is
    kAwaitConsent,        // ask the UI for consent to the state's action
    kAwaitPermit,         // ask the UI to permit the state's download or install
  };
  struct Step {
    ActionState state;
    Work work = Work::kNone;
  };

  static Step next(ActionState const& state, Event const& event);
  static char const* name(Kind kind);
  static char const* name(Work work);
};

#endif  // TAMREL_AGENT_LIFECYCLE_ACTIONMACHINE_H_
