#ifndef TAMREL_AGENT_LIFECYCLE_REBOOTFLOW_H_
#define TAMREL_AGENT_LIFECYCLE_REBOOTFLOW_H_

#include <atomic>
#include <chrono>
#include <optional>
#include <string>

#include "agent/base/agentconfig.h"
#include "agent/lifecycle/actionmachine.h"
#include "agent/lifecycle/actionstate.h"

// The reboot an installed action needs before it is confirmed: runs the
// reboot command (once a run, and again after a failure, 30 s apart,
// doubling up to an hour), tells the boot that installed from a later one by
// the boot id, and runs the confirm command after the reboot. Runs on the
// polling thread.
class RebootFlow {
 public:
  using Exit = ActionMachine::Exit;

  RebootFlow(AgentConfig const& config, std::atomic<bool> const& stop);

  // This boot's id; "" when it cannot be read.
  std::string bootId() const;
  // Runs reboot-command for `actionId` when it is due: how it exited, or
  // nothing when it did not run (none configured, ran already, or waiting
  // to run again).
  std::optional<Exit> reboot(std::string const& actionId);
  // Runs confirm-command for `state`'s action after its reboot, what it said
  // added to the action's details.
  Exit confirm(ActionState& state);

 private:
  AgentConfig const& config_;
  std::atomic<bool> const& stop_;
  bool rebooted_ = false;  // reboot-command ran in this run
  bool rebootFailed_ = false;
  int rebootRetries_ = 0;
  std::chrono::steady_clock::time_point nextReboot_;
};

#endif  // TAMREL_AGENT_LIFECYCLE_REBOOTFLOW_H_
