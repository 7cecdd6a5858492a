#ifndef TAMREL_AGENT_UPDATEAGENT_H_
#define TAMREL_AGENT_UPDATEAGENT_H_

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "agent/agentconfig.h"
#include "agent/deploymentplan.h"
#include "agent/progressbar.h"
#include "agent/rebootconfirmation.h"
#include "agent/serverrequest.h"
#include "agent/watchdog.h"
#include "plugin/libtamrelcore.h"

// The update loop of a device: poll, answer what the server asks for, fetch,
// verify and install deployments, report back. Runs on one thread; stop()
// may be called from another (a signal-handling thread).
class UpdateAgent {
 public:
  UpdateAgent(libtamrelcore& client, AgentConfig const& config);

  // Binds the settings; false when the library refuses them. Then confirms
  // an action left waiting for a reboot by an earlier run.
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
  // Waits up to `seconds`, returning early once stop() was called.
  void sleep(std::int64_t seconds);
  // Cancels a running download or verification and ends the loop.
  void stop();
  bool stopping() const { return stop_.load(); }
  ProgressBar& progress() { return bar_; }

  // True when the name can safely become one path component.
  static bool safeName(std::string const& name);

 private:
  using artifact_t = hawkbit_query_t::deployment_t::chunk_t::artifact_t;

  bool deploy(hawkbit_query_t::deployment_t deployment);
  // Downloads and verifies every chunk's artifacts into download-dir/<chunk>;
  // `files` gets each chunk's paths. False when any artifact failed.
  bool download(hawkbit_query_t::deployment_t& deployment, DeploymentPlan const& plan,
                std::vector<std::vector<std::string>>& files);
  // Downloads with retries and a stall watchdog, then verifies (the
  // library's digest, then SHA-256 when listed); a complete file already on
  // disk that verifies is kept. `detail` says what happened.
  bool fetch(std::string const& label, artifact_t& artifact, std::string const& sha256,
             std::string& detail);
  bool verify(artifact_t const& artifact, std::string const& sha256, std::string& detail);
  // Closes the deployment with success or failure and says so.
  void close(hawkbit_query_t::deployment_t& deployment, bool success);
  // A download-only action: closed with "downloaded".
  void closeDownloaded(hawkbit_query_t::deployment_t const& deployment);
  enum class Installed { kDone, kReboot, kFailed };
  Installed install(std::vector<std::string> const& files, std::vector<std::string>& details);
  // Runs `work` with a watchdog beside it that passes a stop request on to
  // the library (which forgets a cancel that comes before the work begins)
  // and, for a transfer, cancels it once fewer than download-min-rate bytes/s
  // came over download-timeout-s, or once it brought more bytes than the
  // artifact's size (its file is then removed).
  bool watched(bool transfer, std::function<bool()> const& work);
  // Why the last poll failed, with a hint for the operator.
  std::string pollFailure(Watchdog::Verdict verdict, std::string const& libraryLog) const;

  // Connects a slot that lives as long as this agent (a weak connection: the
  // client outlives the agent).
  template <typename Signal, typename Slot>
  void listen(Signal& signal, Slot slot) {
    auto held = std::make_shared<typename Signal::slot_type>(std::move(slot));
    signal.connectWeak(held);
    slots_.push_back(held);
  }

  libtamrelcore& client_;
  AgentConfig const& config_;
  ProgressBar bar_;
  std::atomic<bool> stop_{false};
  // Set by the library's signals on the downloading thread.
  std::atomic<bool> transferring_{false};
  std::atomic<bool> stalled_{false};        // the watchdog found the transfer too slow
  std::atomic<bool> oversize_{false};       // more bytes than the artifact's size came
  std::atomic<std::uint64_t> received_{0};  // this attempt's file size so far
  std::atomic<Watchdog*> watchdog_{nullptr};
  // The artifact fetch() works on: its file and announced size.
  std::string artifactFile_;
  std::uint64_t expected_ = 0;
  unsigned int lastStatus_ = 0;
  std::vector<tamrel::value_pair_t> attributes_;  // sent as configuration data
  ServerRequest server_;                          // every POST/PUT goes through it
  RebootConfirmation reboot_;
  // An action downloaded in this run and waiting for its maintenance window.
  std::string waitingAction_;
  std::vector<std::shared_ptr<void>> slots_;
  std::mutex sleepLock_;
  std::condition_variable wake_;
};

#endif  // TAMREL_AGENT_UPDATEAGENT_H_
