#ifndef TAMREL_AGENT_LIFECYCLE_UPDATEAGENT_H_
#define TAMREL_AGENT_LIFECYCLE_UPDATEAGENT_H_

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "agent/base/agentconfig.h"
#include "agent/base/deploymentplan.h"
#include "agent/base/watchdog.h"
#include "agent/commands/attributescripts.h"
#include "agent/commands/installlock.h"
#include "agent/commands/streaminstaller.h"
#include "agent/control/controlchannel.h"
#include "agent/lifecycle/actiondriver.h"
#include "agent/lifecycle/consentflow.h"
#include "agent/lifecycle/controlstatus.h"
#include "agent/lifecycle/installedbase.h"
#include "agent/server/agenttransport.h"
#include "agent/server/documentreader.h"
#include "agent/server/serverrequest.h"
#include "agent/transfer/artifactfetcher.h"
#include "agent/transfer/deploymentdownload.h"
#include "agent/transfer/progressbar.h"
#include "plugin/libtamrelcore.h"

// The update loop of a device: poll, and feed what the server offers or asks
// to cancel to the action's state machine (ActionDriver), which fetches,
// installs and reports. Owns the library's client and the transport it
// speaks through. Runs on one thread; stop() may be called from another (a
// signal-handling thread). Keeps `channel` (a local UI's view) current and
// takes its requests while it waits between polls.
class UpdateAgent {
 public:
  UpdateAgent(AgentConfig const& config, ControlChannel& channel);

  // Binds the settings; false when the library refuses them. Then resumes
  // the action an earlier run recorded.
  bool connect();
  // What one poll came to: the interval to sleep and the exit status
  // (ExitCode) it would give in --once mode.
  struct Cycle {
    std::int64_t sleepSeconds = 0;  // 0: the server named none
    int status = 0;
  };
  // One poll under the poll deadline and memory bound, and whatever it asks
  // for. sleepSeconds is the server's interval (poll-interval-s when it named
  // none, capped by max-poll-interval-s), or poll-interval-s after a failure.
  Cycle cycle();
  // Waits until the next poll is due: `seconds` (or the interval a UI set),
  // and longer while polling is held; a UI's poll, release, consent or
  // permit ends it at once. Takes the UI's requests meanwhile and beats the
  // loop's heartbeat.
  void wait(std::int64_t seconds);
  // Binds the settings and reports `name` `version` as installed on the
  // device; the exit status (ExitCode), the reason logged when not 0.
  int reportInstalled(std::string const& name, std::string const& version);
  // Cancels a running download or verification and ends the loop.
  void stop();
  bool stopping() const { return stop_.load(); }
  ProgressBar& progress() { return fetcher_.progress(); }

 private:
  // The deployment a poll links: false when it failed.
  bool deploy(hawkbit_query_t::deployment_t& deployment);
  // Gathers the attributes and sends them when the poll asked for them
  // (`asked`) or a value changed since the server last took them.
  void sendAttributes(bool asked);
  Cycle poll();
  // Acts on the UI's queued requests; true when one asks to poll now.
  bool answerRequests();

  AgentConfig const& config_;
  ControlChannel& channel_;
  ControlStatus ui_;
  std::string address_;  // the server; configData links elsewhere are not sent to
  AgentTransport transport_;
  libtamrelcore client_{&transport_};
  std::atomic<bool> stop_{false};
  AttributeScripts attributes_;  // sent as configuration data
  // The configData link the last poll that named one named: the library
  // sends there, also when a later poll names none.
  std::string configDataLink_;
  ArtifactFetcher fetcher_;
  ServerRequest server_;  // every POST/PUT goes through it
  DeploymentDownload download_;
  InstallLock lock_;          // one install at a time, across restarts
  StreamInstaller streamer_;  // install-mode stream and url
  ActionDriver action_;       // the action on the device, recorded in state-dir
  int failedPolls_ = 0;       // in a row
  DocumentReader reader_;     // documents the library does not read
  ConsentFlow consent_;
  InstalledBase installed_;
  std::string baseBody_;  // the last base poll answer's body, kept by the transport's observer
  bool again_ = false;    // polling again at once, after a confirmation
  std::mutex sleepLock_;
  std::condition_variable wake_;
  bool requested_ = false;     // a UI's request is queued; under sleepLock_
  std::int64_t interval_ = 0;  // the poll interval a UI set, 0: none
  // consent = socket: the UI's answer for an action, used at its next poll.
  std::string consentAction_;
  ConsentFlow::Verdict consentVerdict_;
};

#endif  // TAMREL_AGENT_LIFECYCLE_UPDATEAGENT_H_
