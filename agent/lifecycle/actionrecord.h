#ifndef TAMREL_AGENT_LIFECYCLE_ACTIONRECORD_H_
#define TAMREL_AGENT_LIFECYCLE_ACTIONRECORD_H_

#include <string>

#include "agent/lifecycle/actionstate.h"

// Where the ActionState lives between runs: `<state-dir>/action`, replaced
// whole through AtomicFile, so a crash leaves the old state or the new one.
// A state-dir of "" keeps it in memory (for tests only: the agent requires
// state-dir). A device upgraded from an agent that kept only
// `<state-dir>/pending` (an action waiting for its reboot or its report)
// has that record read once and replaced by the first save.
class ActionRecord {
 public:
  explicit ActionRecord(std::string dir) : dir_(std::move(dir)) {}

  // False with `error` when a record exists but cannot be read; no record
  // is the idle state.
  bool load(ActionState& state, std::string& error) const;
  // False with `error` when the state is not on disk.
  bool save(ActionState const& state, std::string& error);
  std::string path() const { return dir_ + "/action"; }

 private:
  std::string dir_;
  ActionState memory_;
};

#endif  // TAMREL_AGENT_LIFECYCLE_ACTIONRECORD_H_
