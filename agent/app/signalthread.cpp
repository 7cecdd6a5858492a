#include "agent/app/signalthread.h"

#include <pthread.h>

#include "agent/base/log.h"
#include "agent/lifecycle/updateagent.h"

namespace {

// SIGUSR1 only wakes the thread when it is to end. SIGHUP is taken too so
// that it cannot end the agent midway: it is ignored.
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

SignalThread::SignalThread(UpdateAgent& agent) : set_(stopSignals()) {
  thread_ = std::thread([this, &agent] {
    for (;;) {
      int number = 0;
      sigwait(&set_, &number);
      if (closing_) return;
      if (number == SIGINT || number == SIGTERM) {
        Log::info("signal %d: stopping", number);
        agent.stop();
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
