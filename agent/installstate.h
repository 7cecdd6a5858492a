#ifndef TAMREL_AGENT_INSTALLSTATE_H_
#define TAMREL_AGENT_INSTALLSTATE_H_

#include <string>
#include <vector>

#include "ddi/hawkbit_query.h"

// The record of an action installed and waiting for a reboot, kept as
// `<state-dir>/pending` so that the next start can confirm it. Every change
// is written to a temporary file, flushed, renamed over the record and the
// directory flushed: a crash leaves either the old or the new record.
class InstallState {
 public:
  struct Pending {
    std::string actionId;
    std::vector<std::string> chunks;  // chunk names, for the feedback's progress
    std::string bootId;               // of the boot that installed it
    bool announced = false;           // "installed, rebooting" reached the server
    // "" while waiting for the reboot; "success" or "failure" once the
    // confirm command ran and its result is waiting to be reported.
    std::string result;
    std::vector<std::string> details;
  };

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
  bool confirm(std::string const& confirmCommand, Pending& pending, std::string& error) const;
  // The closing feedback for a confirmed action.
  static hawkbit_query_t::deployment_t closingFeedback(Pending const& pending);

 private:
  std::string path() const { return dir_ + "/pending"; }
  std::string dir_;
};

#endif  // TAMREL_AGENT_INSTALLSTATE_H_
