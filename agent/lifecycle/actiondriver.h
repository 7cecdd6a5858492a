#ifndef TAMREL_AGENT_LIFECYCLE_ACTIONDRIVER_H_
#define TAMREL_AGENT_LIFECYCLE_ACTIONDRIVER_H_

#include <atomic>
#include <optional>
#include <string>
#include <vector>

#include "agent/base/agentconfig.h"
#include "agent/base/deploymentplan.h"
#include "agent/commands/installlock.h"
#include "agent/commands/streaminstaller.h"
#include "agent/lifecycle/actionmachine.h"
#include "agent/lifecycle/actionrecord.h"
#include "agent/lifecycle/actionreports.h"
#include "agent/lifecycle/chunkstep.h"
#include "agent/lifecycle/controlstatus.h"
#include "agent/lifecycle/rebootflow.h"
#include "agent/server/agenttransport.h"
#include "agent/server/serverrequest.h"
#include "agent/transfer/deploymentdownload.h"
#include "plugin/libtamrelcore.h"

// Feeds what the world does to ActionMachine and does the work it names:
// each next state is recorded (ActionRecord) before its work starts, and
// what came of the work is fed in again. A state that cannot be recorded
// stops the action where it is for the rest of the run. Runs on the polling
// thread.
class ActionDriver {
 public:
  using deployment_t = hawkbit_query_t::deployment_t;

  ActionDriver(libtamrelcore& client, AgentConfig const& config, AgentTransport& transport,
               ServerRequest const& server, DeploymentDownload& download, InstallLock& lock,
               StreamInstaller& streamer, std::atomic<bool> const& stop, ControlStatus& ui);

  // Reads the record and resumes it (`baseUrl`: the controller's resource).
  void start(std::string const& baseUrl);
  // A poll offers `deployment` (its id a decimal number); false when the
  // action failed or cannot be served now.
  bool offered(deployment_t& deployment, DeploymentPlan const& plan);
  // A poll that got through offers no action.
  void notOffered();
  // The server asks to cancel `cancel.stop_id`.
  void cancel(hawkbit_query_t::cancel_action_t const& cancel);
  ActionState const& state() const { return state_; }

  // ---- what a local UI asks (consent = socket, permit = socket, hold)
  // Holds or resumes polling, recorded; false when it cannot be recorded.
  bool holdPolling(bool hold);
  // The server holds action `id` (its chunks' names `chunks`) for consent.
  void consentNeeded(std::string const& id, std::vector<std::string> const& chunks);
  // The UI's consent answer for `id` reached the server.
  void consentAnswered(std::string const& id);
  // The UI permits `what` for action `id`: done when the next poll offers it.
  void permit(std::string const& id, ActionMachine::Permit what);

 private:
  using Event = ActionMachine::Event;
  using Work = ActionMachine::Work;
  void feed(Event event);
  std::optional<Event> perform(Work work, ActionState const& before);
  std::optional<Event> download();
  std::optional<Event> report();
  // Sends "proceeding" for the action with `detail`; the server's answer.
  ActionMachine::Answer proceed(std::string const& detail);
  void answerCancel(bool accept, ActionState const& before);
  // Removes the downloaded files of the chunks of `state`.
  void dropFiles(ActionState const& state) const;
  bool current() const { return deployment_ && deployment_->id == state_.actionId; }

  AgentConfig const& config_;
  DeploymentDownload& download_;
  std::atomic<bool> const& stop_;
  ChunkStep chunk_;  // installs the chunk the action stands at
  ActionRecord record_;
  ActionReports reports_;
  RebootFlow reboot_;
  ActionState state_;
  std::string unreadable_;  // why the record cannot be read: nothing is installed
  std::string halted_;      // why the action stopped where it is, for this run
  bool failed_ = false;     // the action failed in this poll
  // What the poll being answered brought; nullptr outside offered()/cancel().
  deployment_t* deployment_ = nullptr;
  DeploymentPlan const* plan_ = nullptr;
  hawkbit_query_t::cancel_action_t const* cancel_ = nullptr;
  std::vector<std::vector<std::string>> files_;  // the current action's downloaded files
  ControlStatus& ui_;
  // A permit the UI gave, fed at the next offer of its action (when the
  // deployment is at hand); lost on a restart, when the UI is asked again.
  std::string permittedAction_;
  ActionMachine::Permit permitted_ = ActionMachine::Permit::kDownload;
};

#endif  // TAMREL_AGENT_LIFECYCLE_ACTIONDRIVER_H_
