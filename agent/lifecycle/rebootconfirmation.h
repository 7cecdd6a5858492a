#ifndef TAMREL_AGENT_LIFECYCLE_REBOOTCONFIRMATION_H_
#define TAMREL_AGENT_LIFECYCLE_REBOOTCONFIRMATION_H_

#include <atomic>
#include <chrono>
#include <functional>
#include <string>

#include "agent/base/agentconfig.h"
#include "agent/lifecycle/installstate.h"
#include "plugin/libtamrelcore.h"

// The one action in flight on this device, from its install until the
// server has its result: recorded in state-dir before anything is reported.
// An action installed and waiting for a reboot is reported "proceeding",
// reboot-command run, and after the restart confirm-command decides how it
// is closed; an action installed without a reboot has its result recorded,
// then reported, and reported again (never installed again) while the
// server does not take it. While a record stands, no other action is
// installed. Reports go through `post`, the agent's ServerRequest ("" when
// sent, else the reason).
class RebootConfirmation {
 public:
  using Post = std::function<std::string(std::function<bool()> const&)>;

  RebootConfirmation(libtamrelcore& client, AgentConfig const& config, Post post,
                     std::atomic<bool> const& stop);

  // Records the installed action, reports it and runs reboot-command. False,
  // with a detail line added, when it cannot be recorded: the caller closes
  // the action with failure.
  bool begin(hawkbit_query_t::deployment_t& deployment);
  // Records the result of an installed action, then closes it on the server;
  // the record goes once the server has it. False for a failure.
  bool finish(hawkbit_query_t::deployment_t& deployment, bool success);
  // Confirms and reports an action recorded by an earlier run, if any. False
  // when it was reported as failed or the record cannot be read.
  bool confirm();
  // True when the action offered by a poll is taken care of here: it is the
  // recorded one (waiting for the reboot, or its result not yet reported),
  // another action's record stands (this one is reported "proceeding" and
  // waits), or the record cannot be read (nothing is installed). `result` is
  // what deploying it would have returned.
  bool handles(hawkbit_query_t::deployment_t& deployment, bool& result);
  // True when the action is installed on this device, waiting for its
  // reboot or its confirmation: too late to cancel it.
  bool installed(std::string const& actionId) const;
  // Forgets action `actionId` (the server no longer has it): its record
  // goes. True when there was one.
  bool drop(std::string const& actionId);

 private:
  // Reports "installed, rebooting" unless the record says it was, then runs
  // reboot-command.
  void announceAndReboot(hawkbit_query_t::deployment_t& deployment, InstallState::Pending& pending);
  // Runs reboot-command again when it failed, with a growing pause.
  void retryReboot(std::string const& actionId);
  bool runReboot();
  // The record, on disk or (without state-dir) in memory.
  bool load(InstallState::Pending& pending, std::string& error) const;
  bool save(InstallState::Pending const& pending, std::string& error);
  void clear();

  libtamrelcore& client_;
  AgentConfig const& config_;
  Post post_;
  std::atomic<bool> const& stop_;
  InstallState state_;
  InstallState::Pending memory_;  // the record when there is no state-dir
  std::string rebootAction_;      // installed and waiting for the reboot, in this run
  std::string confirmedAction_;   // confirmed after its reboot in this run
  std::string reportedAction_;    // installed without a reboot and reported in this run
  std::string heldAction_;        // told that it waits for the recorded one, in this run
  bool rebootFailed_ = false;
  int rebootRetries_ = 0;
  std::chrono::steady_clock::time_point nextReboot_;
};

#endif  // TAMREL_AGENT_LIFECYCLE_REBOOTCONFIRMATION_H_
