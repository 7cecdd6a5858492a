// One device as a hawkBit server sees it: its running action, cancel
// requests, the attributes it is asked for, its installed base and the
// messages of every action. Answers the DDI controller paths the way a
// current hawkBit server does, for any client; DdiServer serves the
// artifacts and applies faults.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "ddiserver/ddidocument.h"
#include "ddiserver/ddiserver.h"

namespace tamrel::ddiserver {

class HawkbitTarget {
 public:
  struct Options {
    std::string baseUrl;         // "http://127.0.0.1:<port>"
    std::string controllerPath;  // "/DEFAULT/controller/v1/dev01"
    std::string sleep = "00:00:10";
    // Ask for the attributes at every poll, as when an operator keeps
    // requesting them; otherwise only at first contact and after a closed
    // success, until the device sends them.
    bool askConfigData = false;
    // After this many polls, offer a cancel request for the running action
    // (0: never).
    int cancelAfterPolls = 0;
    // The maintenance window becomes "available" (and the update "forced")
    // from this deploymentBase request on (0: never).
    int windowOpensAt = 0;
    // New actions wait for the device's confirmation (unless auto-confirm
    // is on): the poll links confirmationBase instead of deploymentBase.
    bool confirmRequired = false;
    // Lines such as "action 1 closed: success", as they happen.
    std::function<void(std::string const&)> onEvent;
  };

  explicit HawkbitTarget(Options options);

  // Makes `deployment` the running action (its id is the action id). Its
  // distribution set is named after its first chunk: that chunk's name and
  // version are what PUT installedBase accepts.
  void assign(DeploymentDocument deployment);
  // Offers a cancel request with this id for the running action.
  void requestCancel(std::string const& cancelId);

  // The progress of every "proceeding" feedback of an action that had one,
  // in arrival order.
  std::vector<Progress> progress(std::string const& actionId);

  // Answers a request under the controller path; false for other paths.
  // Thread-safe: DdiServer calls it from its worker threads.
  bool answer(RecordedRequest const& request, DdiServer::Answer& answer);

 private:
  struct Action {
    DeploymentDocument deployment;
    bool active = true;
    std::string status = "RUNNING";  // hawkBit's action status, upper-case
    std::string cancelId;            // set while a cancel request is offered
    bool cancelOffered = false;
    std::vector<std::string> messages;  // newest first
    int feedbacks = 0;
    std::vector<Progress> progress;  // of its "proceeding" feedbacks
    bool waiting = false;            // for the device's confirmation
  };

  bool poll(DdiServer::Answer& answer);
  bool document(std::string const& kind, std::string const& id, std::string const& query,
                DdiServer::Answer& answer);
  bool feedback(std::string const& kind, std::string const& id, std::string const& body,
                DdiServer::Answer& answer);
  bool configData(std::string const& body, DdiServer::Answer& answer);
  bool confirmation(RecordedRequest const& request, std::vector<std::string> const& parts,
                    DdiServer::Answer& answer);
  bool confirmationFeedback(std::string const& id, std::string const& body,
                            DdiServer::Answer& answer);
  bool switchAutoConfirm(bool on, std::string const& body, DdiServer::Answer& answer);
  void confirm(std::string const& id, Action& action, std::string const& message);
  bool installedBase(std::string const& body, DdiServer::Answer& answer);
  void record(Action& action, Feedback const& feedback);
  void event(std::string const& line) const;

  Options const options_;
  std::mutex mutex_;
  std::map<std::string, Action> actions_;  // by action id
  std::string running_;                    // id of the running action, "" if none
  std::string installed_;                  // id of the last action closed with success
  bool attributesWanted_ = true;
  std::map<std::string, std::string> attributes_;
  int polls_ = 0, deploymentRequests_ = 0;
  AutoConfirm autoConfirm_;
};

}  // namespace tamrel::ddiserver
