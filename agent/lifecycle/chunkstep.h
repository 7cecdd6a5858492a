#ifndef TAMREL_AGENT_LIFECYCLE_CHUNKSTEP_H_
#define TAMREL_AGENT_LIFECYCLE_CHUNKSTEP_H_

#include <atomic>
#include <optional>
#include <string>
#include <vector>

#include "agent/base/agentconfig.h"
#include "agent/base/deploymentplan.h"
#include "agent/commands/chunkinstaller.h"
#include "agent/commands/installlock.h"
#include "agent/commands/streaminstaller.h"
#include "agent/lifecycle/actionmachine.h"
#include "agent/lifecycle/actionstate.h"
#include "agent/lifecycle/controlstatus.h"
#include "agent/transfer/deploymentdownload.h"
#include "plugin/libtamrelcore.h"

// Installs the chunk an action stands at (state.chunk), or takes the outcome
// of an install an earlier run left behind, and tells ActionDriver what came
// of it as an event. The chunk's lines go to state.details and its progress
// to the local UI. `deployment` is the offered deployment when it is the
// recorded action's, nullptr otherwise.
class ChunkStep {
 public:
  using deployment_t = hawkbit_query_t::deployment_t;
  using Event = ActionMachine::Event;
  using Files = std::vector<std::vector<std::string>>;

  ChunkStep(AgentConfig const& config, DeploymentDownload& download, InstallLock& lock,
            StreamInstaller& streamer, std::atomic<bool> const& stop, ControlStatus& ui);

  // Runs the chunk's install command; `files` (the chunks' downloaded files)
  // are fetched again when an earlier run left them.
  std::optional<Event> install(ActionState& state, deployment_t* deployment,
                               DeploymentPlan const* plan, Files& files);
  // Ends the install an earlier run left and takes its outcome.
  std::optional<Event> recover(ActionState& state, deployment_t const* deployment);
  // An install command is configured for some module type at least (not
  // so in the demo and with --download-only).
  bool commandsConfigured() const {
    return !config_.installCommand.empty() || !config_.partCommands.empty();
  }
  // "chunk 2 of 3 bApp 1.1" (the chunk's name when the deployment is not at hand).
  static std::string label(ActionState const& state, deployment_t const* deployment,
                           std::size_t chunk);

 private:
  // Records that chunk `chunk` failed (`why`: "exit 4" and the like) and the
  // later ones were not installed.
  static Event failed(ActionState& state, deployment_t const* deployment, std::size_t chunk,
                      std::string const& why);
  // Where the install's outcome is kept.
  std::string outcomeFile() const;

  AgentConfig const& config_;
  DeploymentDownload& download_;
  InstallLock& lock_;
  std::atomic<bool> const& stop_;
  ControlStatus& ui_;
  ChunkInstaller installer_;
};

#endif  // TAMREL_AGENT_LIFECYCLE_CHUNKSTEP_H_
