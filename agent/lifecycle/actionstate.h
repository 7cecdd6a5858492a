#ifndef TAMREL_AGENT_LIFECYCLE_ACTIONSTATE_H_
#define TAMREL_AGENT_LIFECYCLE_ACTIONSTATE_H_

#include <cstddef>
#include <string>
#include <vector>

// Where the one action on this device stands: a named stage and what that
// stage needs to be resumed by a later start. It is written to state-dir
// before the stage's work begins (ActionRecord); ActionMachine takes it to
// the next one. Text form: one "key value" line each, then "end".
struct ActionState {
  enum class Stage {
    kIdle,           // no action in flight
    kConsentNeeded,  // the server holds the action for consent; a UI is asked (consent = socket)
    kAwaitingDownloadPermit,  // offered; a UI is asked before the download (permit = socket)
    kDownloading,             // offered and reported "proceeding"; artifacts being fetched
    kWaitingWindow,           // downloaded, waiting for the maintenance window
    kAwaitingInstallPermit,   // downloaded; a UI is asked before the install (permit = socket)
    kInstalling,              // the install command of chunk `chunk` (of chunks.size()) runs
    kAnnouncing,              // installed, needs a reboot; "installed, rebooting" not yet taken
    kRebooting,               // announced; reboot-command run, waiting for the next boot
    kConfirming,              // booted again; confirm-command runs
    kReporting,               // `result` recorded; the closing feedback not yet taken
    kClosed,  // the server took `result`; kept until a poll offers the action no more
  };
  enum class Result { kNone, kSuccess, kFailure, kDownloaded };

  Stage stage = Stage::kIdle;
  std::string actionId;
  std::vector<std::string> chunks;  // chunk names, in the order they install
  // Each chunk's module type and version, for the commands that run after a
  // restart (empty in older records).
  std::vector<std::string> parts, versions;
  std::size_t chunk = 0;    // kInstalling: the chunk whose command runs
  bool rebootOwed = false;  // a chunk installed so far asked for a reboot
  // kReporting/kClosed: the result; kAnnouncing..kConfirming: kFailure when a
  // chunk failed after another asked for the reboot (the slot is switched).
  Result result = Result::kNone;
  std::string bootId;                // of the boot that installed it (kAnnouncing..)
  std::string held;                  // another action told that it waits for this one
  std::vector<std::string> details;  // for the closing feedback
  // A UI asked to hold polling: kept in every stage, idle too, until released.
  bool pollingHeld = false;

  static constexpr std::size_t kMaxRecordBytes = 65536;

  static char const* name(Stage stage);
  static char const* name(Result result);
  // Stages where the action is on the device and can no longer be taken back.
  bool installed() const { return stage >= Stage::kInstalling && stage <= Stage::kClosed; }
  // "installing chunk 2 of 3" and the like, for log lines.
  std::string describe() const;

  std::string format() const;
  // "" when `text` is a complete record (also the older pending-reboot
  // record), otherwise what is wrong with it.
  static std::string parse(std::string const& text, ActionState& state);
};

#endif  // TAMREL_AGENT_LIFECYCLE_ACTIONSTATE_H_
