#ifndef TAMREL_AGENT_APP_SIGNALTHREAD_H_
#define TAMREL_AGENT_APP_SIGNALTHREAD_H_

#include <signal.h>

#include <atomic>
#include <thread>

class ControlChannel;
class UpdateAgent;

// A thread that turns SIGINT/SIGTERM into a clean stop of the agent, SIGUSR1
// into a poll now (a request on the control channel, as a UI's "poll"), and
// ignores SIGHUP (a reload request or a closed terminal) with a log line. Call
// blockStopSignals() first thing in main(), before any thread exists: the
// signals are then blocked in every thread, so only this one receives them,
// outside any signal handler.
class SignalThread {
 public:
  static void blockStopSignals();

  SignalThread(UpdateAgent& agent, ControlChannel& channel);
  ~SignalThread();
  SignalThread(SignalThread const&) = delete;
  SignalThread& operator=(SignalThread const&) = delete;

 private:
  sigset_t set_;
  std::atomic<bool> closing_{false};
  std::thread thread_;
};

#endif  // TAMREL_AGENT_APP_SIGNALTHREAD_H_
