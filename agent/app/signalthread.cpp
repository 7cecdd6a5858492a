#include "agent/app/signalthread.h"

#include <pthread.h>

#include "agent/base/log.h"
#include "agent/control/controlchannel.h"
#include "agent/lifecycle/updateagent.h"

namespace {

// SIGUSR1 asks for a poll now; it also wakes the thread when it is to end.
// SIGHUP is taken too so that it cannot end the agent midway: it is ignored.
sigset_t stopSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGHUP);
  sigaddset(&set, SIGUSR1);
  return set;
}

}  // namespace

void SignalThread::blockStopSignals() {
  sigset_t const signals = stopSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

SignalThread::SignalThread(UpdateAgent& agent, ControlChannel& channel) : set_(stopSignals()) {
  thread_ = std::thread([this, &agent, &channel] {
    for (;;) {
      int number = 0;
      sigwait(&set_, &number);
      if (closing_) return;
      if (number == SIGINT || number == SIGTERM) {
        Log::info("signal %d: stopping", number);
        agent.stop();
      } else if (number == SIGUSR1) {
        // The loop's wait ends exactly as for a UI's poll request.
        ControlRequest request;
        request.kind = ControlRequest::Kind::kPoll;
        request.peer = "SIGUSR1";
        channel.request(request);
      } else if (number == SIGHUP) {
        Log::info("SIGHUP ignored: the configuration is read at start; SIGTERM stops the agent");
      }
    }
  });
}

SignalThread::~SignalThread() {
  closing_ = true;
  pthread_kill(thread_.native_handle(), SIGUSR1);
  thread_.join();
}
