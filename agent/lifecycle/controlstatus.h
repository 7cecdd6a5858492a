#ifndef TAMREL_AGENT_LIFECYCLE_CONTROLSTATUS_H_
#define TAMREL_AGENT_LIFECYCLE_CONTROLSTATUS_H_

#include <chrono>
#include <cstdint>
#include <ctime>
#include <mutex>
#include <string>
#include <vector>

#include "agent/control/controlchannel.h"
#include "agent/lifecycle/actionmachine.h"
#include "agent/lifecycle/actionstate.h"
#include "plugin/libtamrelcore.h"

// The update loop's words to a local UI: keeps the status members of the
// control channel current and publishes the events, their members built as
// JSON here. Download progress comes from the download's thread and is
// passed on at most four times a second (and always at an artifact's end).
class ControlStatus {
 public:
  explicit ControlStatus(ControlChannel& channel) : channel_(channel) {}

  // The action as recorded ("state", "action", "chunks") and what it waits
  // for from the UI; `deployment` (may be null) adds the chunks' parts and
  // versions.
  void action(ActionState const& state, hawkbit_query_t::deployment_t const* deployment);
  // A step of the action's table was recorded: the status, and the events
  // it means (offered, consent or a permit needed, reboot, confirmed,
  // closed, error).
  void stepped(ActionState const& before, ActionState const& state, ActionMachine::Work work,
               hawkbit_query_t::deployment_t const* deployment);
  // An artifact's download went on (see ProgressBar::Listener).
  void progress(std::string const& name, std::uint64_t bytes, std::uint64_t total, double rate,
                bool ended);
  // The last result and when.
  void last(char const* result);
  void set(std::string const& key, std::string const& json) { channel_.set(key, json); }
  // Event `name` with members given as key, text pairs (strings) after it.
  void event(std::string const& name,
             std::vector<std::pair<std::string, std::string>> const& members = {});

 private:
  ControlChannel& channel_;
  std::mutex lock_;  // progress
  std::chrono::steady_clock::time_point told_{};
};

#endif  // TAMREL_AGENT_LIFECYCLE_CONTROLSTATUS_H_
