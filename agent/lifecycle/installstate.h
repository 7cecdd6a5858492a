#ifndef TAMREL_AGENT_LIFECYCLE_INSTALLSTATE_H_
#define TAMREL_AGENT_LIFECYCLE_INSTALLSTATE_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "ddi/hawkbit_query.h"

// The record of the one action in flight on this device, kept as
// `<state-dir>/pending`: installed and waiting for a reboot (the next start
// confirms it), or with its result recorded and not yet reported. Every
// change is written to a fresh temporary file, flushed, renamed over the
// record and the directory flushed: a crash leaves either the old or the new
// record. A record is at most kMaxRecordBytes, one value per key, nothing
// after "end"; anything else is unreadable.
class InstallState {
 public:
  struct Pending {
    std::string actionId;
    std::vector<std::string> chunks;  // chunk names, for the feedback's progress
    std::string bootId;               // of the boot that installed it
    bool announced = false;           // "installed, rebooting" reached the server
    // "" while waiting for the reboot; "success" or "failure" once the
    // install (without a reboot) or the confirm command decided, until the
    // server has the result.
    std::string result;
    std::vector<std::string> details;
  };

  static constexpr std::size_t kMaxRecordBytes = 65536;

  explicit InstallState(std::string dir) : dir_(std::move(dir)) {}

  bool enabled() const { return !dir_.empty(); }
  // False when there is no record (or no state-dir); `error` says why a
  // record exists but cannot be read.
  bool load(Pending& pending, std::string& error) const;
  bool save(Pending const& pending, std::string& error) const;
  bool clear(std::string& error) const;

  // After the reboot, for a loaded record: unless a result is recorded
  // already, runs `confirmCommand` (exit 0: success; none configured: the
  // restart is success) and records its result before anything is
  // reported, so that the command runs again only after a crash during it.
  // False, with nothing recorded, when a stop request ended the command;
  // past `deadlineMs` (0: none) it is ended and the result is a failure.
  bool confirm(std::string const& confirmCommand, Pending& pending, std::string& error,
               std::atomic<bool> const* stop = nullptr, std::int64_t deadlineMs = 0) const;
  // "" when `text` is a complete record, otherwise what is wrong with it.
  static std::string parse(std::string const& text, Pending& pending);
  // The closing feedback for a confirmed action.
  static hawkbit_query_t::deployment_t closingFeedback(Pending const& pending);

 private:
  std::string path() const { return dir_ + "/pending"; }
  std::string dir_;
};

#endif  // TAMREL_AGENT_LIFECYCLE_INSTALLSTATE_H_
